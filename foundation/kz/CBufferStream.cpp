#include "harl/foundation/kz/CBufferStream.h"

#include <algorithm>
#include <cstring>

namespace kz {

CBufferStream::CBufferStream(const CURI& uri) : CFileStreamBase(uri, AccessReadWrite) {
}

CBufferStream::CBufferStream(const TBuffer<unsigned char>& content, const CURI& uri)
    : CFileStreamBase(uri, AccessReadWrite), buffer(content) {
}

int CBufferStream::doRead(long long position, void* data, int size) {
    const long long available = std::max(0LL, static_cast<long long>(buffer.getUsed()) - position);
    const int count = static_cast<int>(std::min<long long>(size, available));
    if (count > 0) {
        std::memcpy(data, buffer.getData() + position, static_cast<size_t>(count));
    }
    return count;
}

void CBufferStream::doWrite(long long position, const void* data, int size) {
    if (position + size > static_cast<long long>(buffer.getUsed())) {
        // A write behind the end leaves a hole that reads as zeros, as in a file.
        doSetLength(position + size);
    }
    std::memcpy(buffer.getData() + position, data, static_cast<size_t>(size));
}

void CBufferStream::doSetLength(long long length) {
    const size_t oldLength = buffer.getUsed();
    buffer.setUsed(static_cast<size_t>(length));
    if (static_cast<size_t>(length) > oldLength) {
        std::memset(buffer.getData() + oldLength, 0, static_cast<size_t>(length) - oldLength);
    }
}

}  // namespace kz
