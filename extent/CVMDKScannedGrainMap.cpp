#include "harl/extent/CVMDKScannedGrainMap.h"

#include "harl/format/VMDKFormatError.h"
#include "harl/format/VMDKMarkers.h"
#include "harl/format/VMDKStreamOptimized.h"

#include <algorithm>

namespace harl {

namespace {

// No engine makes more than twice a grain out of one; the same ceiling as the grain reader's.
constexpr long long kMaxCompressedGrainsPerGrain = 2;

constexpr VMDKMarkerID kMetadataMarkers[] = {VMDKMarkerGrainTable, VMDKMarkerGrainDirectory,
                                             VMDKMarkerFooter, VMDKMarkerSlotSizeTable,
                                             VMDKMarkerSlotSizeDirectory};

}  // namespace

CVMDKScannedGrainMap::CVMDKScannedGrainMap(kz::IIOStream* stream, long long firstSector,
                                           long long grainSizeSectors, long long extentGrainCount,
                                           long long startGrainIndex)
    : stream(stream),
      fileSectors(stream->getLength() / kSectorSizeBytes),
      grainSizeSectors(grainSizeSectors),
      extentGrainCount(extentGrainCount),
      startGrainIndex(startGrainIndex) {
    if (firstSector < 1 || firstSector > fileSectors) {
        corrupt("VMDK stream-optimized extent has no room for its grains.", firstSector);
    }
    unsigned char bytes[kSectorSizeBytes];
    for (long long sector = firstSector; sector != -1;) {
        if (sector >= fileSectors) {
            corrupt("VMDK stream-optimized extent ends before its end-of-stream marker.", sector);
        }
        this->stream->seek(sector * kSectorSizeBytes);
        this->stream->read(bytes, kSectorSizeBytes);
        sector = scanAt(sector, bytes);
    }
    sortAndCheck();
}

long long CVMDKScannedGrainMap::scanAt(long long sector, const unsigned char* bytes) {
    const VMDKGrainMarker marker = decodeVMDKGrainMarker(bytes);
    if (marker.size != 0) {
        if (marker.size > kMaxCompressedGrainsPerGrain * grainSizeSectors * kSectorSizeBytes) {
            corrupt("VMDK grain marker has an invalid compressed size.", sector);
        }
        const long long slotSectors =
            (kVMDKGrainMarkerSizeBytes + marker.size + kSectorSizeBytes - 1) / kSectorSizeBytes;
        if (slotSectors > fileSectors - sector) {
            corrupt("VMDK grain runs past the end of the file.", sector);
        }
        addGrain(sector, marker.lba);
        return sector + slotSectors;
    }
    if (isVMDKMarker(bytes, VMDKMarkerEndOfStream, nullptr)) {
        return -1;
    }
    for (VMDKMarkerID id : kMetadataMarkers) {
        long long valueSectors = 0;
        if (isVMDKMarker(bytes, id, &valueSectors)) {
            if (valueSectors < 0 || valueSectors >= fileSectors - sector) {
                corrupt("VMDK metadata marker runs past the end of the file.", sector);
            }
            return sector + 1 + valueSectors;
        }
    }
    corrupt("Unknown VMDK marker in stream-optimized extent.", sector);
}

void CVMDKScannedGrainMap::addGrain(long long sector, unsigned long long lba) {
    const unsigned long long grainSectors = static_cast<unsigned long long>(grainSizeSectors);
    const unsigned long long diskGrainIndex = lba / grainSectors;
    if (lba % grainSectors != 0 ||
        diskGrainIndex < static_cast<unsigned long long>(startGrainIndex) ||
        diskGrainIndex - startGrainIndex >= static_cast<unsigned long long>(extentGrainCount)) {
        corrupt("VMDK grain marker names no grain of the extent.", sector);
    }
    // Each grain once: more grains than the extent has cannot be a valid stream.
    if (static_cast<long long>(grains.size()) >= extentGrainCount) {
        corrupt("VMDK stream-optimized extent holds more grains than it has.", sector);
    }
    grains.push_back({static_cast<long long>(diskGrainIndex) - startGrainIndex, sector});
}

void CVMDKScannedGrainMap::sortAndCheck() {
    const auto byIndex = [](const CStoredGrain& a, const CStoredGrain& b) {
        return a.grainIndex < b.grainIndex;
    };
    // Writers stream grains in disk order, so the sort is usually a single pass of checks.
    if (!std::is_sorted(grains.begin(), grains.end(), byIndex)) {
        std::stable_sort(grains.begin(), grains.end(), byIndex);
    }
    const auto twice = std::adjacent_find(
        grains.begin(), grains.end(),
        [](const CStoredGrain& a, const CStoredGrain& b) { return a.grainIndex == b.grainIndex; });
    if (twice != grains.end()) {
        corrupt("VMDK stream-optimized extent holds a grain twice.", (twice + 1)->posSectors);
    }
}

long long CVMDKScannedGrainMap::getGrainPosSectors(long long grainIndex) const {
    const auto found = std::lower_bound(
        grains.begin(), grains.end(), grainIndex,
        [](const CStoredGrain& entry, long long index) { return entry.grainIndex < index; });
    return found != grains.end() && found->grainIndex == grainIndex ? found->posSectors : 0;
}

void CVMDKScannedGrainMap::corrupt(const kz::String& message, long long sector) const {
    throwVMDKFormatError(stream->getURI(), message, kz::CProps().add("sector", sector));
}

}  // namespace harl
