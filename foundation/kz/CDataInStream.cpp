#include "harl/foundation/kz/CDataInStream.h"

namespace kz {

namespace {

template <class T>
T decodeLittleEndian(const unsigned char* bytes) {
    T value = 0;
    for (size_t i = sizeof(T); i-- > 0;) {
        value = static_cast<T>(value << 8 | bytes[i]);
    }
    return value;
}

}  // namespace

uint8_t CDataInStream::readUInt8() {
    unsigned char byte;
    stream->read(&byte, 1);
    return byte;
}

uint16_t CDataInStream::readUInt16() {
    unsigned char bytes[2];
    stream->read(bytes, sizeof(bytes));
    return decodeLittleEndian<uint16_t>(bytes);
}

uint32_t CDataInStream::readUInt32() {
    unsigned char bytes[4];
    stream->read(bytes, sizeof(bytes));
    return decodeLittleEndian<uint32_t>(bytes);
}

uint64_t CDataInStream::readUInt64() {
    unsigned char bytes[8];
    stream->read(bytes, sizeof(bytes));
    return decodeLittleEndian<uint64_t>(bytes);
}

}  // namespace kz
