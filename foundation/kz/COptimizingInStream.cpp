#include "harl/foundation/kz/COptimizingInStream.h"

#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/Log.h"

#include <algorithm>
#include <cstring>

namespace kz {

namespace {

// A window starts at a position rounded down to this, so that a read a little before the
// last one (a table entry before the one just read) still finds it buffered.
constexpr int kFillAlignBytes = 4096;

IIOStream* checkedRaw(IIOStream* raw) {
    if (raw == nullptr) {
        throw CInvalidArgError("COptimizingInStream", "No raw stream");
    }
    return raw;
}

}  // namespace

COptimizingInStream::COptimizingInStream(IIOStream* raw, int bufferSizeBytes)
    : raw(checkedRaw(raw)),
      capacity(bufferSizeBytes),
      uri(raw->getURI()),
      fillAlignBytes(std::max(1, std::min(kFillAlignBytes, bufferSizeBytes / 4))) {
    if (bufferSizeBytes <= 0) {
        throw CInvalidArgError("COptimizingInStream", "Buffer size must be positive",
                               CProps().add("bufferSizeBytes", bufferSizeBytes));
    }
    buffer.setUsed(static_cast<size_t>(capacity));
}

COptimizingInStream::~COptimizingInStream() {
    if (closed) {
        return;
    }
    try {
        writeBack();
    } catch (const std::exception& error) {
        onExceptionInDestructorIgnored("COptimizingInStream", error, true);
    }
}

void COptimizingInStream::checkOpen() const {
    if (closed) {
        throw CIOError(CIOError::StreamClosed, "Stream is closed",
                       CProps().add("uri", uri.toString(true)));
    }
}

long long COptimizingInStream::getRawLength() {
    if (rawLength < 0) {
        rawLength = raw->getLength();
    }
    return rawLength;
}

bool COptimizingInStream::windowOverlaps(long long start, long long length) const {
    return windowLength > 0 && start < getWindowEnd() && windowStart < start + length;
}

void COptimizingInStream::writeRaw(long long start, const void* data, int size) {
    changedSinceFlush = true;
    try {
        raw->seek(start);
        raw->write(data, size, nullptr);
    } catch (...) {
        rawLength = -1;
        throw;
    }
    if (rawLength >= 0) {
        rawLength = std::max(rawLength, start + size);
    }
}

void COptimizingInStream::setRawLength(long long length) {
    changedSinceFlush = true;
    try {
        raw->setLength(length);
    } catch (...) {
        rawLength = -1;
        throw;
    }
    rawLength = length;
}

void COptimizingInStream::writeBack() {
    if (!isDirty()) {
        return;
    }
    writeRaw(windowStart + dirtyBegin, buffer.getData() + dirtyBegin, dirtyEnd - dirtyBegin);
    dirtyBegin = dirtyEnd = 0;
}

void COptimizingInStream::dropWindow() {
    windowLength = 0;
    dirtyBegin = dirtyEnd = 0;
}

long long COptimizingInStream::getLength() {
    checkOpen();
    const long long length = getRawLength();
    return windowLength > 0 ? std::max(length, getWindowEnd()) : length;
}

long long COptimizingInStream::getPosition() {
    checkOpen();
    return position;
}

CURI COptimizingInStream::getURI() {
    return uri;
}

void COptimizingInStream::seek(long long newPosition) {
    checkOpen();
    if (newPosition < 0) {
        throw CIOError(CIOError::BadSeek, "Seek to a negative position",
                       CProps().add("uri", uri.toString(true)).add("position", newPosition));
    }
    position = newPosition;
}

bool COptimizingInStream::lockRange(long long rangePosition, long long length, LockType type) {
    checkOpen();
    return raw->lockRange(rangePosition, length, type);
}

void COptimizingInStream::close() {
    if (closed) {
        return;
    }
    writeBack();
    if (changedSinceFlush) {
        raw->flush();
        changedSinceFlush = false;
    }
    closed = true;
    dropWindow();
    raw->close();
}

void COptimizingInStream::read(void* data, int size) {
    const long long start = position;
    if (readLax(data, size) != size) {
        throw CIOError(
            CIOError::EndOfData, "Unexpected end of data",
            CProps().add("uri", uri.toString(true)).add("position", start).add("size", size));
    }
}

int COptimizingInStream::readLax(void* data, int size) {
    checkOpen();
    if (size < 0) {
        throw CInvalidArgError("read", "Negative byte count", CProps().add("size", size));
    }
    unsigned char* out = static_cast<unsigned char*>(data);
    int done = 0;
    while (done < size) {
        const int remaining = size - done;
        if (position >= windowStart && position < getWindowEnd()) {
            const int offset = static_cast<int>(position - windowStart);
            const int count = std::min(remaining, windowLength - offset);
            std::memcpy(out + done, buffer.getData() + offset, static_cast<size_t>(count));
            position += count;
            done += count;
        } else if (remaining >= capacity) {
            const int count = readDirect(out + done, remaining);
            position += count;
            done += count;
            if (count < remaining) {
                break;
            }
        } else if (!fillWindow()) {
            break;
        }
    }
    return done;
}

int COptimizingInStream::readDirect(unsigned char* data, int size) {
    // The raw stream tells the truth except where the window holds unwritten bytes, and
    // except for the length while an unwritten window lies past the raw end.
    if (isDirty() && (windowOverlaps(position, size) || getWindowEnd() > getRawLength())) {
        writeBack();
    }
    raw->seek(position);
    return raw->readLax(data, size);
}

bool COptimizingInStream::fillWindow() {
    writeBack();
    dropWindow();
    const long long start = position - position % fillAlignBytes;
    raw->seek(start);
    const int count = raw->readLax(buffer.getData(), capacity);
    windowStart = start;
    windowLength = count;
    if (count < capacity && (count > 0 || start == 0)) {
        // A short read that found something ended at the raw end: learnt for free.
        rawLength = start + count;
    }
    return position < getWindowEnd();
}

int COptimizingInStream::readAvailable(void* data, int size) {
    return readLax(data, size);
}

bool COptimizingInStream::waitReadable(int) {
    checkOpen();
    return true;
}

bool COptimizingInStream::isEndOfStream() {
    return position >= getLength();
}

bool COptimizingInStream::isEndOfStream_NonBlocking() {
    return isEndOfStream();
}

int COptimizingInStream::getBestPerformancePositionAlign() {
    const P<IAlignedStreamBase> aligned = P<IAlignedStreamBase>::cast(raw);
    return aligned ? aligned->getBestPerformancePositionAlign() : kFillAlignBytes;
}

}  // namespace kz
