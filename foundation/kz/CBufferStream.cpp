#include "foundation/kz/CBufferStream.h"

#include <algorithm>
#include <cstring>

#include "foundation/kz/CDummyWriteBarrier.h"
#include "foundation/kz/CIOError.h"
#include "foundation/kz/CInvalidArgError.h"

namespace kz {

namespace {

void checkCount(const char* where, int size) {
    if (size < 0) {
        throw CInvalidArgError(where, "Negative byte count", CProps().add("size", size));
    }
}

}  // namespace

CBufferStream::CBufferStream(const CURI& uri) : uri(uri) {}

CBufferStream::CBufferStream(const TBuffer<unsigned char>& content, const CURI& uri)
    : buffer(content), uri(uri) {}

void CBufferStream::checkOpen() const {
    if (closed) {
        throw CIOError(CIOError::StreamClosed, "Stream is closed",
                       CProps().add("uri", uri.toString(true)));
    }
}

long long CBufferStream::getLength() {
    checkOpen();
    return static_cast<long long>(buffer.getUsed());
}

long long CBufferStream::getPosition() {
    checkOpen();
    return position;
}

CURI CBufferStream::getURI() {
    return uri;
}

void CBufferStream::seek(long long newPosition) {
    checkOpen();
    if (newPosition < 0) {
        throw CIOError(CIOError::BadSeek, "Seek to a negative position",
                       CProps().add("uri", uri.toString(true)).add("position", newPosition));
    }
    position = newPosition;
}

bool CBufferStream::lockRange(long long, long long, LockType) {
    checkOpen();
    return true;
}

void CBufferStream::close() {
    closed = true;
}

void CBufferStream::read(void* data, int size) {
    if (readLax(data, size) != size) {
        throw CIOError(CIOError::EndOfData, "Unexpected end of data",
                       CProps().add("uri", uri.toString(true)));
    }
}

int CBufferStream::readLax(void* data, int size) {
    checkOpen();
    checkCount("CBufferStream::read", size);
    const long long length = static_cast<long long>(buffer.getUsed());
    const long long available = std::max(0LL, length - position);
    const int count = static_cast<int>(std::min<long long>(size, available));
    if (count > 0) {
        std::memcpy(data, buffer.getData() + position, static_cast<size_t>(count));
        position += count;
    }
    return count;
}

int CBufferStream::readAvailable(void* data, int size) {
    return readLax(data, size);
}

bool CBufferStream::waitReadable(int) {
    return true;
}

bool CBufferStream::isEndOfStream() {
    checkOpen();
    return position >= static_cast<long long>(buffer.getUsed());
}

bool CBufferStream::isEndOfStream_NonBlocking() {
    return isEndOfStream();
}

void CBufferStream::write(const void* data, int size, IWriteBarrier*) {
    checkOpen();
    checkCount("CBufferStream::write", size);
    if (size == 0) {
        return;
    }
    const size_t end = static_cast<size_t>(position) + static_cast<size_t>(size);
    const size_t oldLength = buffer.getUsed();
    if (end > oldLength) {
        buffer.setUsed(end);
        // A write behind the end leaves a hole that reads as zeros, as in a file.
        if (static_cast<size_t>(position) > oldLength) {
            std::memset(buffer.getData() + oldLength, 0, static_cast<size_t>(position) - oldLength);
        }
    }
    std::memcpy(buffer.getData() + position, data, static_cast<size_t>(size));
    position += size;
}

void CBufferStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& slice, IWriteBarrier* barrier) {
    write(slice.getData(), static_cast<int>(slice.getLength()), barrier);
}

P<IWriteBarrier> CBufferStream::createWriteBarrier() {
    return P<IWriteBarrier>(new CDummyWriteBarrier);
}

void CBufferStream::flush() {
    checkOpen();
}

void CBufferStream::setLength(long long length) {
    checkOpen();
    if (length < 0) {
        throw CInvalidArgError("CBufferStream::setLength", "Negative length",
                               CProps().add("length", length));
    }
    const size_t oldLength = buffer.getUsed();
    buffer.setUsed(static_cast<size_t>(length));
    if (static_cast<size_t>(length) > oldLength) {
        std::memset(buffer.getData() + oldLength, 0, static_cast<size_t>(length) - oldLength);
    }
}

}  // namespace kz
