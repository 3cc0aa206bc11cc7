#include "harl/extent/CVMDKReadOnlyExtentFile.h"

#include "harl/extent/PreparedGrainRange.h"
#include "harl/format/VMDKMarkers.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"

#include <limits>

namespace harl {

CVMDKReadOnlyExtentFile::CVMDKReadOnlyExtentFile(const kz::CURI& uri, long long startGrainIndex,
                                                 int compressionLevel)
    : uri(uri), startGrainIndex(startGrainIndex), compressionLevel(compressionLevel) {
}

void CVMDKReadOnlyExtentFile::setGeometry(long long grainSizeSectors, long long sizeSectors,
                                          bool compressed) {
    constexpr long long kMaxGrainSizeSectors = std::numeric_limits<int>::max() / kSectorSizeBytes;
    constexpr long long kMaxSizeSectors = std::numeric_limits<long long>::max() / kSectorSizeBytes;
    if (grainSizeSectors < 1 || grainSizeSectors > kMaxGrainSizeSectors || sizeSectors < 0 ||
        sizeSectors > kMaxSizeSectors) {
        throw kz::CInvalidArgError(
            "CVMDKReadOnlyExtentFile::setGeometry", "Invalid VMDK extent geometry.",
            uriProps().add("grainSizeSectors", grainSizeSectors).add("sizeSectors", sizeSectors));
    }
    this->grainSizeSectors = grainSizeSectors;
    grainSizeBytes = grainSizeSectors * kSectorSizeBytes;
    sizeBytes = sizeSectors * kSectorSizeBytes;
    this->compressed = compressed;
}

void CVMDKReadOnlyExtentFile::setFallbackDataProvider(IVMDKDataProvider* provider) {
    if (provider != nullptr) {
        refuseChange("setFallbackDataProvider");
    }
}

void CVMDKReadOnlyExtentFile::seek(long long newPosition) {
    if (newPosition < 0 || newPosition > sizeBytes) {
        throw kz::CInvalidArgError("CVMDKReadOnlyExtentFile::seek",
                                   "Invalid position: " + kz::String::number(newPosition),
                                   uriProps());
    }
    position = newPosition;
}

void CVMDKReadOnlyExtentFile::checkReadRange(int size) const {
    if (size < 0) {
        throw kz::CInvalidArgError("CVMDKReadOnlyExtentFile::read",
                                   "Invalid size: " + kz::String::number(size), uriProps());
    }
    if (size > sizeBytes - position) {
        throw kz::CIOError(kz::CIOError::EndOfData,
                           "Unexpected end of data reading from VMDK extent file.",
                           uriProps().add("position", position).add("bytesToRead", size));
    }
}

void CVMDKReadOnlyExtentFile::checkPreparedGrainRead() const {
    checkPreparedGrainRange("read", position, grainSizeBytes, sizeBytes, uriProps());
}

void CVMDKReadOnlyExtentFile::write(const void*, int) {
    refuseChange("write");
}

kz::P<CVMDKDataPreparer> CVMDKReadOnlyExtentFile::createDataPreparer() {
    return kz::makeP<CVMDKDataPreparer>(grainSizeSectors, compressed, compressionLevel);
}

void CVMDKReadOnlyExtentFile::writePreparedGrainData(const kz::TBuffer<unsigned char>&) {
    refuseChange("writePreparedGrainData");
}

long long CVMDKReadOnlyExtentFile::makeGrainIndependentOfParent(long long) {
    refuseChange("makeGrainIndependentOfParent");
}

void CVMDKReadOnlyExtentFile::refuseChange(const char* operation) const {
    throw kz::CError(kz::String("Internal error: ") + operation +
                         " method called on read-only VMDK extent file.",
                     kz::String(), -1, uriProps());
}

kz::CProps CVMDKReadOnlyExtentFile::uriProps() const {
    return kz::CProps().add("uri", uri.toString(true));
}

}  // namespace harl
