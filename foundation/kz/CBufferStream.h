#pragma once

#include "harl/foundation/kz/CFileStreamBase.h"
#include "harl/foundation/kz/TBuffer.h"

namespace kz {

// A stream over bytes in memory, opened for reading and writing. It owns its buffer, which
// grows as writes pass the end; getBuffer() shows the bytes (its used length is the stream's
// length). Checks and errors are those of every file stream (CFileStreamBase).
//
// It keeps no lock ranges: lockRange answers true for every request.
class CBufferStream : public CFileStreamBase {
public:
    explicit CBufferStream(const CURI& uri = CURI());
    CBufferStream(const TBuffer<unsigned char>& content, const CURI& uri = CURI());

    const TBuffer<unsigned char>& getBuffer() const { return buffer; }

    TBuffer<unsigned char>& getBuffer() { return buffer; }

protected:
    int doRead(long long position, void* data, int size) override;
    void doWrite(long long position, const void* data, int size) override;

    long long doGetLength() override { return static_cast<long long>(buffer.getUsed()); }

    void doSetLength(long long length) override;

    void doFlush() override {}

    bool doLockRange(long long, long long, LockType) override { return true; }

    void doClose() override {}

private:
    TBuffer<unsigned char> buffer;
};

}  // namespace kz
