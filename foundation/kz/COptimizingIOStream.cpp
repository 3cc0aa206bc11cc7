#include "harl/foundation/kz/COptimizingIOStream.h"

#include "harl/foundation/kz/CDummyWriteBarrier.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace kz {

COptimizingIOStream::COptimizingIOStream(IIOStream* raw, int bufferSizeBytes)
    : COptimizingInStream(raw, bufferSizeBytes) {
}

bool COptimizingIOStream::windowTakes(long long start) const {
    return start >= windowStart && start <= getWindowEnd() && start < windowStart + capacity;
}

void COptimizingIOStream::write(const void* data, int size, IWriteBarrier*) {
    checkOpen();
    if (size < 0) {
        throw CInvalidArgError("write", "Negative byte count", CProps().add("size", size));
    }
    if (position > LLONG_MAX - size) {
        throw CIOError(CIOError::WritePastEnd, "Write past the largest file position",
                       CProps()
                           .add("uri", getURI().toString(true))
                           .add("position", position)
                           .add("size", size));
    }
    const unsigned char* in = static_cast<const unsigned char*>(data);
    int done = 0;
    while (done < size) {
        const int remaining = size - done;
        if (remaining >= capacity) {
            writeDirect(in + done, remaining);
            position += remaining;
            break;
        }
        if (!windowTakes(position)) {
            writeBack();
            dropWindow();
            windowStart = position;
        }
        const int offset = static_cast<int>(position - windowStart);
        const int count = std::min(remaining, capacity - offset);
        std::memcpy(buffer.getData() + offset, in + done, static_cast<size_t>(count));
        dirtyBegin = isDirty() ? std::min(dirtyBegin, offset) : offset;
        dirtyEnd = std::max(dirtyEnd, offset + count);
        windowLength = std::max(windowLength, offset + count);
        position += count;
        done += count;
    }
}

void COptimizingIOStream::writeDirect(const unsigned char* data, int size) {
    // The raw write would leave stale bytes in the window, and a later write-back of the
    // window must not undo it: so the window goes first.
    if (windowOverlaps(position, size)) {
        writeBack();
        dropWindow();
    }
    writeRaw(position, data, size);
}

void COptimizingIOStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& slice,
                                          IWriteBarrier* barrier) {
    if (slice.getLength() > static_cast<size_t>(INT_MAX)) {
        throw CInvalidArgError("writeKeepBuffer", "Slice too long for one write",
                               CProps().add("length", String::numberUnsigned(slice.getLength())));
    }
    write(slice.getData(), static_cast<int>(slice.getLength()), barrier);
}

P<IWriteBarrier> COptimizingIOStream::createWriteBarrier() {
    return P<IWriteBarrier>(new CDummyWriteBarrier);
}

void COptimizingIOStream::flush() {
    checkOpen();
    writeBack();
    raw->flush();
    changedSinceFlush = false;
}

void COptimizingIOStream::setLength(long long length) {
    checkOpen();
    if (length < 0) {
        throw CInvalidArgError("setLength", "Negative length",
                               CProps().add("uri", getURI().toString(true)).add("length", length));
    }
    writeBack();
    setRawLength(length);
    if (windowStart >= length) {
        dropWindow();
    } else {
        windowLength = static_cast<int>(std::min<long long>(windowLength, length - windowStart));
    }
}

}  // namespace kz
