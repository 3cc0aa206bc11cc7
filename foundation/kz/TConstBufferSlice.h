#pragma once

#include <cstddef>

#include "foundation/kz/TBuffer.h"

namespace kz {

// A read-only view of bytes owned elsewhere; the owner must outlive the slice.
class TConstBufferSlice {
public:
    TConstBufferSlice() = default;
    TConstBufferSlice(const unsigned char* data, size_t length) : data(data), length(length) {}
    // `length` -1: to the end of the used bytes. A range outside the used bytes throws a
    // CInvalidArgError.
    TConstBufferSlice(const TBuffer<unsigned char>& buffer, size_t offset = 0, long long length = -1);

    const unsigned char* getData() const { return data; }
    size_t getLength() const { return length; }

private:
    const unsigned char* data = nullptr;
    size_t length = 0;
};

}  // namespace kz
