#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/CFaultInjectingFileSystem.h"
#include "harl/foundation/kz/IIOStream.h"

namespace kz {

// A stream of CFaultInjectingFileSystem: passes every call to the wrapped stream, after
// counting the operations the file system counts, which may fail instead or, for a write,
// store part of the bytes and then fail.
class CFaultInjectingStream : public CBase, public IIOStream {
public:
    CFaultInjectingStream(IIOStream* inner, CFaultInjectingFileSystem* owner);

    long long getLength() override { return inner->getLength(); }

    long long getPosition() override { return inner->getPosition(); }

    CURI getURI() override { return inner->getURI(); }

    void seek(long long position) override { inner->seek(position); }

    bool lockRange(long long position, long long length, LockType type) override {
        return inner->lockRange(position, length, type);
    }

    void close() override { inner->close(); }

    void read(void* data, int size) override;
    int readLax(void* data, int size) override;
    int readAvailable(void* data, int size) override;

    bool waitReadable(int timeoutMilliseconds) override {
        return inner->waitReadable(timeoutMilliseconds);
    }

    bool isEndOfStream() override { return inner->isEndOfStream(); }

    bool isEndOfStream_NonBlocking() override { return inner->isEndOfStream_NonBlocking(); }

    void write(const void* data, int size, IWriteBarrier* barrier) override;
    void writeKeepBuffer(const TConstBufferSlice<unsigned char>& slice,
                         IWriteBarrier* barrier) override;
    P<IWriteBarrier> createWriteBarrier() override;
    void flush() override;
    void setLength(long long length) override;

private:
    P<IIOStream> inner;
    P<CFaultInjectingFileSystem> owner;
};

}  // namespace kz
