#include "harl/format/VMDKMarkers.h"

#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CInvalidArgError.h"

#include <algorithm>

namespace harl {

namespace {

unsigned int readUInt32LE(const unsigned char* bytes) {
    return static_cast<unsigned int>(bytes[0]) | static_cast<unsigned int>(bytes[1]) << 8 |
           static_cast<unsigned int>(bytes[2]) << 16 | static_cast<unsigned int>(bytes[3]) << 24;
}

}  // namespace

void writeVMDKMarker(kz::CDataOutStream& out, VMDKMarkerID id, long long value,
                     const kz::TBuffer<unsigned char>& zeroBuffer) {
    if (zeroBuffer.getUsed() < static_cast<size_t>(kMarkerFillSizeBytes)) {
        throw kz::CInvalidArgError(
            "harl::writeVMDKMarker", "Zero buffer too small",
            kz::CProps().add("size", static_cast<long long>(zeroBuffer.getUsed())));
    }
    out.writeInt64(value);
    out.writeUInt32(0);
    out.writeUInt32(id);
    out.write(zeroBuffer.getData(), kMarkerFillSizeBytes);
}

bool isVMDKMarker(const unsigned char* sector, VMDKMarkerID id, long long* value) {
    if (value != nullptr) {
        *value = 0;
    }
    if (readUInt32LE(sector + kMarkerSizeOffsetBytes) != 0 ||
        readUInt32LE(sector + kMarkerTypeOffsetBytes) != id) {
        return false;
    }
    const unsigned char* fill = sector + kMarkerFillOffsetBytes;
    if (std::any_of(fill, fill + kMarkerFillSizeBytes, [](unsigned char b) { return b != 0; })) {
        return false;
    }
    if (value != nullptr) {
        unsigned long long raw = 0;
        for (int i = 7; i >= 0; --i) {
            raw = raw << 8 | sector[kMarkerValueOffsetBytes + i];
        }
        *value = static_cast<long long>(raw);
    }
    return true;
}

void vmdkWritePadding(kz::IOutStream& out, int byteCount,
                      const kz::TBuffer<unsigned char>& padBuffer) {
    if (byteCount > 0 && padBuffer.getUsed() == 0) {
        throw kz::CInvalidArgError("harl::vmdkWritePadding", "Empty pad buffer",
                                   kz::CProps().add("byteCount", byteCount));
    }
    while (byteCount > 0) {
        const int chunk =
            static_cast<int>(std::min(static_cast<size_t>(byteCount), padBuffer.getUsed()));
        out.write(padBuffer.getData(), chunk, nullptr);
        byteCount -= chunk;
    }
}

long long getStreamPositionVMDKSectors(kz::IStreamBase& stream) {
    const long long position = stream.getPosition();
    if (position % kSectorSizeBytes != 0) {
        throw kz::CError(
            "Internal error in harl::getStreamPositionVMDKSectors. Stream position should be a "
            "multiple of 512 but it is not.",
            kz::String(), -1,
            kz::CProps().add("uri", stream.getURI().toString(true)).add("position", position));
    }
    return position / kSectorSizeBytes;
}

}  // namespace harl
