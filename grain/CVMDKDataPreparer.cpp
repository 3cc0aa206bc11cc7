#include "harl/grain/CVMDKDataPreparer.h"

#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/grain/CVMDKCompressor.h"

#include <cstring>

namespace harl {

namespace {

constexpr long long kSectorSizeBytes = 512;
constexpr int kLbaOffsetBytes = 0;
constexpr int kSizeOffsetBytes = 8;

void putUInt64LE(unsigned char* bytes, unsigned long long value) {
    for (int i = 0; i < 8; ++i) {
        bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

void putUInt32LE(unsigned char* bytes, unsigned int value) {
    for (int i = 0; i < 4; ++i) {
        bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

}  // namespace

CVMDKDataPreparer::CVMDKDataPreparer(long long grainSizeSectors, bool compressed,
                                     int compressionLevel)
    : grainSizeSectors(grainSizeSectors),
      grainSizeBytes(grainSizeSectors * kSectorSizeBytes),
      worstCaseGrainSizeSectors(grainSizeSectors) {
    if (compressed) {
        compressor = kz::P<kz::ISimpleCompressor>(new CVMDKCompressor(compressionLevel));
        compressedSizeUpperBound =
            compressor->getCompressedSizeUpperBound(static_cast<int>(grainSizeBytes));
        // 12 header bytes, and 511 to round up to whole sectors.
        worstCaseGrainSizeSectors =
            (compressedSizeUpperBound + kHeaderSizeBytes + kSectorSizeBytes - 1) / kSectorSizeBytes;
    }
}

kz::P<kz::TBuffer<unsigned char>> CVMDKDataPreparer::prepareGrainData(
    kz::TBuffer<unsigned char>* source, long long grainIndex,
    kz::TBuffer<unsigned char>* auxBuffer) {
    const char* where = "CVMDKDataPreparer::prepareGrainData";
    if (source == nullptr) {
        throw kz::CInvalidArgError(where, "pSourceBuffer must not be NULL");
    }
    if (auxBuffer == nullptr) {
        throw kz::CInvalidArgError(where, "pAuxBuffer must not be NULL");
    }
    if (static_cast<long long>(source->getUsed()) > grainSizeBytes) {
        throw kz::CInvalidArgError(where, "source buffer is bigger than grain size (" +
                                              kz::String::numberUnsigned(source->getUsed()) + ").");
    }
    if (!compressor) {
        return kz::P<kz::TBuffer<unsigned char>>(source);
    }
    auxBuffer->setUsed(static_cast<size_t>(worstCaseGrainSizeSectors * kSectorSizeBytes));
    unsigned char* out = auxBuffer->getData();
    const int size = compressor->compressSingleStep(
        source->getData(), static_cast<int>(source->getUsed()), out + kHeaderSizeBytes,
        static_cast<int>(compressedSizeUpperBound));
    putUInt64LE(out + kLbaOffsetBytes,
                static_cast<unsigned long long>(grainSizeSectors * grainIndex));
    putUInt32LE(out + kSizeOffsetBytes, static_cast<unsigned int>(size));
    const long long used = kHeaderSizeBytes + size;
    const long long padded = (used + kSectorSizeBytes - 1) / kSectorSizeBytes * kSectorSizeBytes;
    std::memset(out + used, 0, static_cast<size_t>(padded - used));
    auxBuffer->setUsed(static_cast<size_t>(padded));
    return kz::P<kz::TBuffer<unsigned char>>(auxBuffer);
}

kz::P<kz::TBuffer<unsigned char>> CVMDKDataPreparer::unprepareGrainData(
    kz::TBuffer<unsigned char>* source, kz::TBuffer<unsigned char>* auxBuffer) {
    if (!compressor) {
        return kz::P<kz::TBuffer<unsigned char>>(source);
    }
    auxBuffer->setUsed(static_cast<size_t>(grainSizeBytes));
    // A prepared grain shorter than its header holds no stream: the decompressor reports it.
    const int compressedBytes = static_cast<int>(source->getUsed()) > kHeaderSizeBytes
                                    ? static_cast<int>(source->getUsed()) - kHeaderSizeBytes
                                    : 0;
    const int produced = compressor->decompressSingleStep(
        source->getData() + (compressedBytes > 0 ? kHeaderSizeBytes : 0), compressedBytes,
        auxBuffer->getData(), static_cast<int>(grainSizeBytes));
    if (produced < grainSizeBytes) {
        std::memset(auxBuffer->getData() + produced, 0,
                    static_cast<size_t>(grainSizeBytes - produced));
    }
    return kz::P<kz::TBuffer<unsigned char>>(auxBuffer);
}

void CVMDKDataPreparer::patchGrainIndexInPreparedGrainData(kz::TBuffer<unsigned char>& buffer,
                                                           long long grainIndex) const {
    if (compressor && buffer.getUsed() >= static_cast<size_t>(kHeaderSizeBytes)) {
        putUInt64LE(buffer.getData() + kLbaOffsetBytes,
                    static_cast<unsigned long long>(grainSizeSectors * grainIndex));
    }
}

}  // namespace harl
