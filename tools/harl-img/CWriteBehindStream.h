#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/IIOStream.h"
#include "harl/foundation/kz/P.h"

#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace harlimg {

// Writes behind the caller: write() copies the bytes into a chunk and returns, and a thread of
// the stream's own writes full chunks to the wrapped stream in the order they were made. So the
// thread that stores grains (and encrypts them on the way) does not also wait for the system's
// copy into the page cache. Consecutive writes gather in one chunk of up to kChunkBytes;
// kChunkCount chunks bound the memory and how far the caller may run ahead.
//
// Every call other than write(), seek(), getPosition(), getLength() and getURI() first waits
// until all chunks are written, then goes to the wrapped stream: reads see every write made
// before them, and flush() makes them durable. A failed background write is thrown by the next
// call that is not a write to the buffer (at the latest flush() or close()) and by every call
// after it, as a buffered stream reports a failed write-back; the chunks behind it are dropped.
//
// One thread at a time may call the stream, as with any stream.
class CWriteBehindStream : public kz::CBase, public kz::IIOStream {
public:
    static constexpr int kChunkBytes = 1 << 20;
    static constexpr int kChunkCount = 4;

    explicit CWriteBehindStream(kz::P<kz::IIOStream> inner);
    ~CWriteBehindStream() override;

    CWriteBehindStream(const CWriteBehindStream&) = delete;
    CWriteBehindStream& operator=(const CWriteBehindStream&) = delete;

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

private:
    struct CChunk {
        std::vector<unsigned char> bytes;
        long long position = 0;
    };

    // Hands the chunk being filled to the thread, if it holds anything.
    void submitFilling();
    // Waits until the thread has written everything, throws its failure, and puts the wrapped
    // stream at this stream's position.
    void drain();
    void throwIfFailed();
    void stopThread();
    void run();

    kz::P<kz::IIOStream> inner;
    // Kept apart from the wrapped stream, which the thread may be using.
    kz::CURI uri;
    long long position;
    long long length;
    bool closed = false;

    // A ring: the thread's chunks run from `first` for `queued` chunks, and the one after them
    // is the chunk being filled, `filling`, which only the caller touches.
    std::vector<CChunk> chunks;
    int filling = 0;
    int first = 0;
    int queued = 0;
    bool stopping = false;
    std::exception_ptr failure;
    std::mutex mutex;
    std::condition_variable workToDo;
    std::condition_variable workDone;
    std::thread thread;
};

}  // namespace harlimg
