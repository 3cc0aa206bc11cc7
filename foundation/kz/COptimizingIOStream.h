#pragma once

#include "harl/foundation/kz/COptimizingInStream.h"

namespace kz {

// COptimizingInStream with writes. Small writes gather in the window and reach the raw
// stream when the window moves on, at flush() or at close(); a write of at least the buffer
// size goes straight to the raw stream. A read sees every write made before it.
//
// A write to a raw stream that refuses writes fails when the window is written back, at the
// latest at flush() or close(). flush() writes the window back, then flushes the raw stream.
class COptimizingIOStream : public COptimizingInStream, public IIOStream {
public:
    explicit COptimizingIOStream(IIOStream* raw, int bufferSizeBytes = kDefaultBufferSizeBytes);

    void write(const void* data, int size, IWriteBarrier* barrier) override;
    void writeKeepBuffer(const TConstBufferSlice<unsigned char>& slice,
                         IWriteBarrier* barrier) override;
    P<IWriteBarrier> createWriteBarrier() override;
    void flush() override;
    // Writes the window back first, so that a failure of the raw stream loses nothing.
    void setLength(long long length) override;

private:
    void writeDirect(const unsigned char* data, int size);
    // True when a write at `start` can go on in the window.
    bool windowTakes(long long start) const;
};

}  // namespace kz
