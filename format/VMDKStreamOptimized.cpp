#include "harl/format/VMDKStreamOptimized.h"

#include "harl/format/VMDKMarkers.h"
#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CDataInStream.h"

namespace harl {

namespace {

constexpr int kFooterBytes = kVMDKStreamFooterSectors * kSectorSizeBytes;
constexpr int kFooterMarkerOffsetBytes = 0;
constexpr int kFooterHeaderOffsetBytes = kSectorSizeBytes;
constexpr int kEndOfStreamOffsetBytes = 2 * kSectorSizeBytes;
static_assert(kVMDKSparseHeaderSizeBytes == kSectorSizeBytes);
constexpr int kLbaOffsetBytes = 0;
constexpr int kSizeOffsetBytes = 8;
static_assert(kSizeOffsetBytes == kMarkerSizeOffsetBytes);

}  // namespace

VMDKGrainMarker decodeVMDKGrainMarker(const unsigned char* bytes) {
    VMDKGrainMarker marker;
    for (int i = 7; i >= 0; --i) {
        marker.lba = marker.lba << 8 | bytes[kLbaOffsetBytes + i];
    }
    for (int i = 3; i >= 0; --i) {
        marker.size = marker.size << 8 | bytes[kSizeOffsetBytes + i];
    }
    return marker;
}

bool readVMDKStreamFooter(kz::IIOStream& stream, CVMDKSparseExtentHeader& footer) {
    const long long length = stream.getLength();
    // The header sector in front of the footer comes first, so a file must hold four sectors.
    if (length % kSectorSizeBytes != 0 || length < kFooterBytes + kSectorSizeBytes) {
        return false;
    }
    kz::TBuffer<unsigned char> bytes(kFooterBytes);
    stream.seek(length - kFooterBytes);
    stream.read(bytes.getData(), kFooterBytes);
    if (!isVMDKMarker(bytes.getData() + kFooterMarkerOffsetBytes, VMDKMarkerFooter, nullptr) ||
        !isVMDKMarker(bytes.getData() + kEndOfStreamOffsetBytes, VMDKMarkerEndOfStream, nullptr)) {
        return false;
    }
    kz::TBuffer<unsigned char> header;
    header.assign(bytes.getData() + kFooterHeaderOffsetBytes, kVMDKSparseHeaderSizeBytes);
    kz::P<kz::CBufferStream> headerStream(new kz::CBufferStream(header, stream.getURI()));
    kz::CDataInStream in(headerStream.get());
    footer.load(in);
    return true;
}

}  // namespace harl
