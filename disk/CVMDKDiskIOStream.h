#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/IFileSystem.h"
#include "harl/foundation/kz/IIOStream.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/String.h"

namespace harl {

class CVMDKDisk;

// A whole disk as a stream, for any code that reads or writes a kz::IIOStream: the stream's
// bytes are the disk's contents, its length the disk's size and its position the disk's own,
// so two streams on one disk share one position. Nothing is buffered here.
//
// Reads and writes beyond the disk's size fail as the disk's do; readLax and readAvailable
// stop at the end instead. The size never changes: setLength throws CIOError code 13. Locking
// a range is not supported (CFileSystemError, problem Unsupported). A write barrier is spent
// when it is made: creating one flushes the disk.
//
// close() drops this stream's reference to the disk, without a flush of its own; the disk
// closes when its last holder lets it go. After close every operation but getURI and close
// throws CIOError code 10.
class CVMDKDiskIOStream : public kz::CBase, public kz::IIOStream {
public:
    // A stream over an open disk, which it shares with the caller.
    explicit CVMDKDiskIOStream(CVMDKDisk* disk);
    // Opens the disk at `uri` (level -1, its own grain table cache, parents opened as needed);
    // the disk's errors reach the caller. The disk closes with the stream.
    CVMDKDiskIOStream(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                      kz::IIOStream::Access access, const kz::String& password);
    CVMDKDiskIOStream(const CVMDKDiskIOStream&);
    CVMDKDiskIOStream& operator=(const CVMDKDiskIOStream&);
    ~CVMDKDiskIOStream() override;

    long long getLength() override;
    long long getPosition() override;
    kz::CURI getURI() override;
    void seek(long long position) override;
    bool lockRange(long long position, long long length, LockType type) override;
    void close() override;
    void read(void* data, int size) override;
    int readLax(void* data, int size) override;
    int readAvailable(void* data, int size) override;
    bool waitReadable(int timeoutMilliseconds) override;
    bool isEndOfStream() override;
    bool isEndOfStream_NonBlocking() override;
    void write(const void* data, int size, kz::IWriteBarrier* barrier) override;
    void writeKeepBuffer(const kz::TConstBufferSlice<unsigned char>& slice,
                         kz::IWriteBarrier* barrier) override;
    kz::P<kz::IWriteBarrier> createWriteBarrier() override;
    void flush() override;
    void setLength(long long length) override;

protected:
    void construct(CVMDKDisk* openDisk);

private:
    // The disk, or CIOError code 10 after close.
    CVMDKDisk& openDisk() const;

    kz::P<CVMDKDisk> disk;
    kz::CURI uri;
};

}  // namespace harl
