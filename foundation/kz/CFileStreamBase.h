#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/IIOStream.h"
#include "harl/foundation/kz/P.h"

namespace kz {

// What the streams of the file systems share: the position, the closed state, the checks of
// arguments and access, and the errors that come of them. A subclass supplies positioned
// primitives (doRead, doWrite, ...) and never sees a closed stream, a negative count or a
// write on a read-only stream.
//
// Errors: a closed stream throws CIOError code 10, a negative seek code 7, read() that meets
// the end code 4, a write that would pass the largest position code 3; a write, setLength or
// exclusive lock on a stream opened for reading throws CFileSystemError AccessDenied. Each
// names the "uri". Failures of the primitives pass through unchanged.
//
// Lock ranges: `length` 0 reaches from `position` to any end the file may grow to.
class CFileStreamBase : public CBase, public IIOStream {
public:
    long long getLength() override;
    long long getPosition() override;
    CURI getURI() override;
    void seek(long long position) override;
    bool lockRange(long long position, long long length, LockType type) override;
    void close() override;

    void read(void* data, int size) override;
    int readLax(void* data, int size) override;
    int readAvailable(void* data, int size) override;
    bool waitReadable(int timeoutMilliseconds) override;
    bool isEndOfStream() override;
    bool isEndOfStream_NonBlocking() override;

    void write(const void* data, int size, IWriteBarrier* barrier) override;
    void writeKeepBuffer(const TConstBufferSlice<unsigned char>& slice,
                         IWriteBarrier* barrier) override;
    P<IWriteBarrier> createWriteBarrier() override;
    void flush() override;
    void setLength(long long length) override;

    Access getAccess() const { return access; }

    bool isClosed() const { return closed; }

protected:
    CFileStreamBase(const CURI& uri, Access access);

    // Reads up to `size` bytes at `position`; fewer only at the end of the file.
    virtual int doRead(long long position, void* data, int size) = 0;
    // Writes all `size` bytes at `position`, filling a gap behind the end with zeros.
    virtual void doWrite(long long position, const void* data, int size) = 0;
    virtual long long doGetLength() = 0;
    virtual void doSetLength(long long length) = 0;
    // Makes what was written durable. Called on writable streams only.
    virtual void doFlush() = 0;
    virtual bool doLockRange(long long position, long long length, LockType type) = 0;
    // Releases the file and its locks; called once. The stream counts as closed even when
    // this throws.
    virtual void doClose() = 0;

    // For destructors of subclasses: closes, reporting a failure instead of throwing.
    void closeInDestructor(const char* className) noexcept;

private:
    void checkOpen() const;
    void checkWritable(const char* what) const;

    CURI uri;
    Access access;
    long long position = 0;
    bool closed = false;
};

}  // namespace kz
