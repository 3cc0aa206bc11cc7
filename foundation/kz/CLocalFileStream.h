#pragma once

#include "harl/foundation/kz/CFileStreamBase.h"

namespace kz {

// A file of the host, opened by CLocalFileSystem. Unbuffered: every read and write is one
// pread or pwrite at the stream's own position, so streams on one file never disturb each
// other's position. flush() is fdatasync, setLength() ftruncate.
//
// Writing starts the system's writeback of what was written once a few MiB have gathered
// (Linux), without waiting for it: a large image then reaches the disk while the host still
// computes the rest, flush() finds little left to do, and the writer never fills the system's
// memory with dirty pages. Whether the data arrived is still told by flush() alone.
//
// Locks are open-file-description locks: they belong to this stream, conflict with the locks
// of every other stream on the file (in this process or another), and go at close.
class CLocalFileStream : public CFileStreamBase {
public:
    // Takes over `fd`, an open descriptor of a regular file.
    CLocalFileStream(int fd, const CURI& uri, Access access);
    ~CLocalFileStream() override;

protected:
    int doRead(long long position, void* data, int size) override;
    void doWrite(long long position, const void* data, int size) override;
    long long doGetLength() override;
    void doSetLength(long long length) override;
    void doFlush() override;
    bool doLockRange(long long position, long long length, LockType type) override;
    void doClose() override;

private:
    // Starts writeback of the range written since the last start.
    void startWriteback();

    int fd;
    // The range written since writeback was last started: [unstartedFrom, unstartedTo), and
    // how many bytes were written into it.
    long long unstartedFrom = 0;
    long long unstartedTo = 0;
    long long unstartedBytes = 0;
};

}  // namespace kz
