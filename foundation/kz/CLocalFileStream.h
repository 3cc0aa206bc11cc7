#pragma once

#include "harl/foundation/kz/CFileStreamBase.h"

namespace kz {

// A file of the host, opened by CLocalFileSystem. Unbuffered: every read and write is one
// pread or pwrite at the stream's own position, so streams on one file never disturb each
// other's position. flush() is fdatasync, setLength() ftruncate.
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
    int fd;
};

}  // namespace kz
