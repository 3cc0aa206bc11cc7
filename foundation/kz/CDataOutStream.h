#pragma once

#include "harl/foundation/kz/IOutStream.h"
#include "harl/foundation/kz/P.h"

#include <cstdint>

namespace kz {

// Little-endian field writes on a stream, at its current position, without a write barrier.
// Every on-disk integer is written through here.
class CDataOutStream {
public:
    explicit CDataOutStream(IOutStream* stream) : stream(stream) {}

    IOutStream& getStream() const { return *stream; }

    void writeUInt8(uint8_t value);
    void writeUInt16(uint16_t value);
    void writeUInt32(uint32_t value);
    void writeUInt64(uint64_t value);

    void writeInt64(int64_t value) { writeUInt64(static_cast<uint64_t>(value)); }

    void write(const void* data, int size) { stream->write(data, size, nullptr); }

private:
    P<IOutStream> stream;
};

}  // namespace kz
