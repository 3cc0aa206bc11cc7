#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/IAlignedStreamBase.h"
#include "harl/foundation/kz/IIOStream.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/TBuffer.h"

namespace kz {

// A buffer over a raw stream, so that the many small reads of headers, markers and tables
// cost few system calls, while a transfer of at least the buffer size goes straight between
// the caller's bytes and the raw stream, without a copy. COptimizingIOStream adds buffered
// writes on the same buffer.
//
// The buffer holds one window of the file, [windowStart, windowStart + windowLength).
// Invariant: the window's bytes are the stream's current content there. The bytes in
// [dirtyBegin, dirtyEnd) of the window may not have reached the raw stream yet; all others
// equal it. A window that reaches past the raw stream's end is dirty up to its end, so the
// stream's length is the larger of the raw length and the window's end.
//
// Contract:
// - While it is open the stream is the only one that changes its file: it keeps the raw
//   length and the window without asking the raw stream again.
// - seek() costs nothing. The raw stream's position is set before each raw call and means
//   nothing between calls.
// - Errors of the raw stream pass through unchanged, and the window stays valid: a failed
//   write-back stays dirty, so that a later flush or close tries it again.
// - close() writes the window back, flushes the raw stream when anything was written since
//   the last flush, and closes the raw stream. If the write-back or the flush fails, the
//   stream stays open. The destructor of a stream that was not closed writes the window
//   back, reports a failure instead of throwing, and leaves the raw stream to its owners.
// - Positions and lengths need no alignment: getPositionAlign and getBufferAlign give 1.
class COptimizingInStream : public CBase, public virtual IInStream, public IAlignedStreamBase {
public:
    static constexpr int kDefaultBufferSizeBytes = 65536;

    // Keeps its own reference to `raw`, which must not be null.
    explicit COptimizingInStream(IIOStream* raw, int bufferSizeBytes = kDefaultBufferSizeBytes);
    ~COptimizingInStream() override;

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

    int getPositionAlign() override { return 1; }

    int getBufferAlign() override { return 1; }

    // The raw stream's, if it tells one; else the page size of common hosts.
    int getBestPerformancePositionAlign() override;

    const P<IIOStream>& getRawStream() const { return raw; }

    int getBufferSizeBytes() const { return capacity; }

protected:
    void checkOpen() const;
    // The raw stream's length, asked once and then kept up to date.
    long long getRawLength();

    long long getWindowEnd() const { return windowStart + windowLength; }

    bool isDirty() const { return dirtyEnd > dirtyBegin; }

    bool windowOverlaps(long long start, long long length) const;
    // Writes the dirty bytes to the raw stream; the window stays, clean.
    void writeBack();
    void dropWindow();
    // Raw writes and length changes, which keep the raw length up to date; after a failure
    // it is asked anew, since a call that failed halfway may have changed it.
    void writeRaw(long long start, const void* data, int size);
    void setRawLength(long long length);

    P<IIOStream> raw;
    TBuffer<unsigned char> buffer;
    int capacity;
    long long position = 0;
    long long windowStart = 0;
    int windowLength = 0;
    int dirtyBegin = 0;
    int dirtyEnd = 0;
    long long rawLength = -1;  // -1: not known
    bool changedSinceFlush = false;
    bool closed = false;

private:
    int readDirect(unsigned char* data, int size);
    // Loads the window at the position; false when the position is at or behind the end.
    bool fillWindow();

    CURI uri;
    int fillAlignBytes;
};

}  // namespace kz
