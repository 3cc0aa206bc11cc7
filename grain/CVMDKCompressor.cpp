#include "harl/grain/CVMDKCompressor.h"

#include "harl/foundation/kz/CError.h"
#include "harl/foundation/pcu/CZLibCompressor.h"
#include "harl/foundation/rcu/CMiniZCompressor.h"

#include <algorithm>

namespace harl {

namespace {

constexpr int kSectorSizeBytes = 512;
constexpr int kPreparedGrainHeaderSizeBytes = 12;

}  // namespace

CVMDKCompressor::CVMDKCompressor(int compressionLevel)
    : compressionLevel(compressionLevel == -1 ? 1 : compressionLevel),
      fallbackCompressor(new pcu::CZLibCompressor(0)) {
    if (this->compressionLevel == 0) {
        primaryCompressor = fallbackCompressor;
    } else {
        primaryCompressor =
            kz::P<kz::ISimpleCompressor>(new rcu::CMiniZCompressor(this->compressionLevel));
    }
}

kz::String CVMDKCompressor::getInternalDesc() const {
    return "smart-" + primaryCompressor->getInternalDesc();
}

int CVMDKCompressor::getCompressedSizeUpperBound(int sourceSize) const {
    const int bound = fallbackCompressor->getCompressedSizeUpperBound(sourceSize);
    const int sectorRounded = (bound + kSectorSizeBytes - 1) / kSectorSizeBytes * kSectorSizeBytes;
    return std::max(bound, sectorRounded - kPreparedGrainHeaderSizeBytes);
}

int CVMDKCompressor::compressSingleStep(const void* source, int sourceSize, void* destination,
                                        int destinationSize) {
    try {
        const int size =
            primaryCompressor->compressSingleStep(source, sourceSize, destination, destinationSize);
        if (size != -1 && (size <= sourceSize || size <= getCompressedSizeUpperBound(sourceSize))) {
            return size;
        }
    } catch (const kz::CError&) {
        if (compressionLevel == 0) {
            throw;
        }
    }
    ++compressFallbackCount;
    return fallbackCompressor->compressSingleStep(source, sourceSize, destination, destinationSize);
}

int CVMDKCompressor::decompressSingleStep(const void* source, int sourceSize, void* destination,
                                          int destinationSize) {
    return primaryCompressor->decompressSingleStep(source, sourceSize, destination,
                                                   destinationSize);
}

}  // namespace harl
