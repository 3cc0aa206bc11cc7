#include "foundation/kz/TConstBufferSlice.h"

#include "foundation/kz/CInvalidArgError.h"

namespace kz {

TConstBufferSlice::TConstBufferSlice(const TBuffer<unsigned char>& buffer, size_t offset,
                                     long long length) {
    const size_t used = buffer.getUsed();
    if (offset > used || (length >= 0 && static_cast<unsigned long long>(length) > used - offset) ||
        length < -1) {
        throw CInvalidArgError("TConstBufferSlice", "Slice outside the buffer",
                               CProps()
                                   .add("offset", String::numberUnsigned(offset))
                                   .add("length", String::number(length))
                                   .add("used", String::numberUnsigned(used)));
    }
    this->data = buffer.getData() + offset;
    this->length = length < 0 ? used - offset : static_cast<size_t>(length);
}

}  // namespace kz
