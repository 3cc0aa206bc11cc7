#include "harl/foundation/kz/CDataOutStream.h"

namespace kz {

namespace {

template <class T>
void encodeLittleEndian(T value, unsigned char* bytes) {
    for (size_t i = 0; i < sizeof(T); ++i) {
        bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

}  // namespace

void CDataOutStream::writeUInt8(uint8_t value) {
    stream->write(&value, 1, nullptr);
}

void CDataOutStream::writeUInt16(uint16_t value) {
    unsigned char bytes[2];
    encodeLittleEndian(value, bytes);
    stream->write(bytes, sizeof(bytes), nullptr);
}

void CDataOutStream::writeUInt32(uint32_t value) {
    unsigned char bytes[4];
    encodeLittleEndian(value, bytes);
    stream->write(bytes, sizeof(bytes), nullptr);
}

void CDataOutStream::writeUInt64(uint64_t value) {
    unsigned char bytes[8];
    encodeLittleEndian(value, bytes);
    stream->write(bytes, sizeof(bytes), nullptr);
}

}  // namespace kz
