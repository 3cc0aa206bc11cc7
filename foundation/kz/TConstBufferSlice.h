#pragma once

#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/TBuffer.h"

#include <cstddef>

namespace kz {

// A read-only view of elements owned elsewhere; the owner must outlive the slice.
template <class T = unsigned char>
class TConstBufferSlice {
public:
    TConstBufferSlice() = default;

    TConstBufferSlice(const T* data, size_t length) : data(data), length(length) {}

    // `length` -1: to the end of the used elements. A range outside them throws a
    // CInvalidArgError.
    TConstBufferSlice(const TBuffer<T>& buffer, size_t offset = 0, long long length = -1) {
        const size_t used = buffer.getUsed();
        if (offset > used || length < -1 ||
            (length >= 0 && static_cast<unsigned long long>(length) > used - offset)) {
            throw CInvalidArgError("TConstBufferSlice", "Slice outside the buffer",
                                   CProps()
                                       .add("offset", String::numberUnsigned(offset))
                                       .add("length", String::number(length))
                                       .add("used", String::numberUnsigned(used)));
        }
        this->data = buffer.getData() + offset;
        this->length = length < 0 ? used - offset : static_cast<size_t>(length);
    }

    const T* getData() const { return data; }

    size_t getLength() const { return length; }

private:
    const T* data = nullptr;
    size_t length = 0;
};

}  // namespace kz
