#pragma once

#include "foundation/kz/CBase.h"
#include "foundation/kz/IIOStream.h"
#include "foundation/kz/P.h"
#include "foundation/kz/TBuffer.h"

namespace kz {

// A stream over bytes in memory. It owns its buffer, which grows as writes pass the end;
// getBuffer() shows the bytes (its used length is the stream's length).
//
// It keeps no lock ranges: lockRange answers true for every request.
class CBufferStream : public CBase, public IIOStream {
public:
    explicit CBufferStream(const CURI& uri = CURI());
    CBufferStream(const TBuffer<unsigned char>& content, const CURI& uri = CURI());

    const TBuffer<unsigned char>& getBuffer() const { return buffer; }
    TBuffer<unsigned char>& getBuffer() { return buffer; }

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
    void writeKeepBuffer(const TConstBufferSlice<unsigned char>& slice, IWriteBarrier* barrier) override;
    P<IWriteBarrier> createWriteBarrier() override;
    void flush() override;
    void setLength(long long length) override;

private:
    void checkOpen() const;

    TBuffer<unsigned char> buffer;
    CURI uri;
    long long position = 0;
    bool closed = false;
};

}  // namespace kz
