#include "harl/extent/CVMDKNullExtentFile.h"

#include "harl/extent/PreparedGrainRange.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"

#include <cstring>
#include <limits>

namespace harl {

namespace {

constexpr long long kMaxPosition = std::numeric_limits<long long>::max();

// Both factors non-negative and their product within the range of positions.
bool productFits(long long a, long long b) {
    return a >= 0 && b >= 0 && (b == 0 || a <= kMaxPosition / b);
}

}  // namespace

CVMDKNullExtentFile::CVMDKNullExtentFile(const kz::CURI& uri, long long startGrainIndex,
                                         long long grainSizeSectors, long long sizeSectors,
                                         long long sectorSize, bool compressed,
                                         int compressionLevel,
                                         IVMDKDataProvider* fallbackDataProvider)
    : uri(uri),
      startGrainIndex(startGrainIndex),
      grainSizeSectors(grainSizeSectors),
      sizeSectors(sizeSectors),
      sectorSize(sectorSize),
      compressed(compressed),
      compressionLevel(compressionLevel),
      grainSizeBytes(0),
      sizeBytes(0),
      fallbackDataProvider(fallbackDataProvider) {
    // A grain must fit an int, for the provider takes its size as one, and every disk position
    // this extent can hand its provider must be a valid position, so that the arithmetic of
    // reads and grain queries cannot overflow.
    const bool valid =
        grainSizeSectors > 0 && sectorSize > 0 && productFits(grainSizeSectors, sectorSize) &&
        grainSizeSectors * sectorSize <= std::numeric_limits<int>::max() &&
        productFits(sizeSectors, sectorSize) &&
        productFits(startGrainIndex, grainSizeSectors * sectorSize) &&
        startGrainIndex * grainSizeSectors * sectorSize <= kMaxPosition - sizeSectors * sectorSize;
    if (!valid) {
        throw kz::CInvalidArgError("CVMDKNullExtentFile::CVMDKNullExtentFile",
                                   "Invalid VMDK null extent geometry.",
                                   kz::CProps()
                                       .add("uri", uri.toString(true))
                                       .add("startGrainIndex", startGrainIndex)
                                       .add("grainSizeSectors", grainSizeSectors)
                                       .add("sizeSectors", sizeSectors)
                                       .add("sectorSize", sectorSize));
    }
    grainSizeBytes = this->grainSizeSectors * this->sectorSize;
    sizeBytes = this->sizeSectors * this->sectorSize;
}

void CVMDKNullExtentFile::setFallbackDataProvider(IVMDKDataProvider* provider) {
    fallbackDataProvider = provider;
}

void CVMDKNullExtentFile::seek(long long newPosition) {
    if (newPosition < 0 || newPosition > sizeBytes) {
        throw kz::CInvalidArgError("CVMDKNullExtentFile::seek",
                                   "Invalid position: " + kz::String::number(newPosition),
                                   uriProps());
    }
    position = newPosition;
}

void CVMDKNullExtentFile::read(void* buffer, int size) {
    if (size < 0) {
        throw kz::CInvalidArgError("CVMDKNullExtentFile::read",
                                   "Invalid size: " + kz::String::number(size), uriProps());
    }
    if (size > sizeBytes - position) {
        throw kz::CIOError(kz::CIOError::EndOfData,
                           "Unexpected end of data reading from VMDK null extent file.",
                           uriProps().add("position", position).add("bytesToRead", size));
    }
    if (fallbackDataProvider) {
        fallbackDataProvider->getData(toDiskPosition(position), buffer, size);
    } else if (size > 0) {
        std::memset(buffer, 0, static_cast<size_t>(size));
    }
    position += size;
}

void CVMDKNullExtentFile::write(const void*, int) {
    throw kz::CError("Internal error: write method called on VMDK null extent file.", kz::String(),
                     -1, uriProps());
}

kz::P<CVMDKDataPreparer> CVMDKNullExtentFile::createDataPreparer() {
    return kz::makeP<CVMDKDataPreparer>(grainSizeSectors, compressed, compressionLevel);
}

void CVMDKNullExtentFile::writePreparedGrainData(const kz::TBuffer<unsigned char>&) {
    throw kz::CError(
        "Internal error: writePreparedGrainData method called on VMDK null extent file.",
        kz::String(), -1, uriProps());
}

void CVMDKNullExtentFile::readPreparedGrainData(kz::TBuffer<unsigned char>& data) {
    checkPreparedGrainRange("read", position, grainSizeBytes, sizeBytes, uriProps());
    const long long grainIndex = position / grainSizeBytes + startGrainIndex;
    if (fallbackDataProvider) {
        // The constructor keeps the grain size within an int.
        fallbackDataProvider->getPreparedGrainData(grainSizeBytes * grainIndex, data,
                                                   static_cast<int>(grainSizeBytes), compressed);
    } else {
        readPreparedZeroGrain(data, grainIndex);
    }
    position += grainSizeBytes;
}

// A hole without a provider answers with the prepared form of an all-zero grain. Preparing
// may mean compressing a whole grain, so it is done once and only the index is patched.
void CVMDKNullExtentFile::readPreparedZeroGrain(kz::TBuffer<unsigned char>& data,
                                                long long grainIndex) {
    if (!dataPreparer) {
        dataPreparer = createDataPreparer();
    }
    if (!preparedZeroGrain) {
        kz::P<kz::TBuffer<unsigned char>> zeros(
            new kz::TBuffer<unsigned char>(static_cast<size_t>(grainSizeBytes)));
        zeros->fill(0);
        kz::P<kz::TBuffer<unsigned char>> aux(new kz::TBuffer<unsigned char>);
        preparedZeroGrain = dataPreparer->prepareGrainData(zeros.get(), 0, aux.get());
    }
    data = *preparedZeroGrain;
    dataPreparer->patchGrainIndexInPreparedGrainData(data, grainIndex);
}

long long CVMDKNullExtentFile::makeGrainIndependentOfParent(long long) {
    throw kz::CError(
        "Internal error: makeGrainIndependentOfParent method called on VMDK null extent file.",
        kz::String(), -1, uriProps());
}

bool CVMDKNullExtentFile::isGrainWritten() {
    if (!fallbackDataProvider) {
        return false;
    }
    return fallbackDataProvider->isGrainWritten(grainSizeBytes *
                                                (position / grainSizeBytes + startGrainIndex));
}

kz::P<CVMDKSpaceInfo> CVMDKNullExtentFile::gatherSpaceInfo() {
    return kz::makeP<CVMDKSpaceInfo>();
}

long long CVMDKNullExtentFile::toDiskPosition(long long extentPosition) const {
    return startGrainIndex * grainSizeBytes + extentPosition;
}

kz::CProps CVMDKNullExtentFile::uriProps() const {
    return kz::CProps().add("uri", uri.toString(true));
}

}  // namespace harl
