#pragma once

#include "harl/foundation/kz/IInStream.h"
#include "harl/foundation/kz/P.h"

#include <cstdint>

namespace kz {

// Little-endian field reads on a stream, at its current position. Every on-disk integer is
// read through here. A short read throws what the stream's read() throws (CIOError code 4).
class CDataInStream {
public:
    explicit CDataInStream(IInStream* stream) : stream(stream) {}

    IInStream& getStream() const { return *stream; }

    uint8_t readUInt8();
    uint16_t readUInt16();
    uint32_t readUInt32();
    uint64_t readUInt64();

    int64_t readInt64() { return static_cast<int64_t>(readUInt64()); }

    void read(void* data, int size) { stream->read(data, size); }

private:
    P<IInStream> stream;
};

}  // namespace kz
