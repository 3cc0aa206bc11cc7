// Opens a grain directory on arbitrary bytes with an arbitrary geometry, looks up and records
// grains, and lets the directory flush and go. Any input must end in the system's errors:
// no crash, no undefined behaviour, no allocation sized by an unchecked count.
//
// The work per input is kept small, so that a campaign explores: parameters are as wide as
// they need to be to reach every check (a table larger than the ceiling, positions behind any
// file, negative values), inputs are at most a few KiB, and at most 32 grains spread over the
// extent are visited.
//
// Input: 17 bytes of parameters, little-endian and signed, then the extent file's bytes.
// | offset | size | parameter                                  |
// |--------|------|--------------------------------------------|
// | 0      | 4    | posSectors                                 |
// | 4      | 4    | redundantPosSectors                        |
// | 8      | 4    | capacitySectors                            |
// | 12     | 2    | grainSizeSectors                           |
// | 14     | 2    | grainsPerTable                             |
// | 16     | 1    | bit 0: compressed; bit 1: opened writable  |
#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CDataInStream.h"
#include "harl/foundation/kz/CError.h"
#include "harl/grain/CVMDKGrainDirectory.h"
#include "harl/grain/CVMDKGrainTableCache.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

constexpr size_t kParameterBytes = 17;
// Spread over the extent, so that they reach several tables and batches.
constexpr long long kMaxGrainsVisited = 32;

void visitGrains(harl::CVMDKGrainDirectory& directory, bool writable) {
    const long long grains = directory.getExtentGrainCount();
    const long long count = std::min(grains, kMaxGrainsVisited);
    for (long long visit = 0; visit < count; ++visit) {
        const long long grain = visit * (grains / count);
        try {
            long long pos = 0, slot = 0;
            directory.getGrainInfo(grain, pos, slot);
            if (writable) {
                const bool tracking = directory.getHaveSlotSizeInfo();
                directory.setGrainInfo(grain, 1000 + grain,
                                       tracking ? 1 + grain % 7 : directory.getGrainSizeSectors());
            }
        } catch (const kz::CError&) {
            // A table that cannot be read or a value it refused; the errors of the grains
            // behind it would cost more than they find.
            return;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < kParameterBytes) {
        return 0;
    }
    kz::TBuffer<unsigned char> parameters(kParameterBytes);
    std::memcpy(parameters.getData(), data, kParameterBytes);
    kz::P<kz::CBufferStream> parameterStream(new kz::CBufferStream(parameters));
    kz::CDataInStream in(parameterStream.get());
    const long long posSectors = static_cast<int32_t>(in.readUInt32());
    const long long redundantPosSectors = static_cast<int32_t>(in.readUInt32());
    const long long capacitySectors = static_cast<int32_t>(in.readUInt32());
    const long long grainSizeSectors = static_cast<int16_t>(in.readUInt16());
    const int grainsPerTable = static_cast<int16_t>(in.readUInt16());
    const unsigned flags = in.readUInt8();

    kz::TBuffer<unsigned char> file(size - kParameterBytes);
    if (file.getUsed() > 0) {
        std::memcpy(file.getData(), data + kParameterBytes, file.getUsed());
    }
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream(file));
    kz::P<harl::CVMDKGrainTableCache> cache(new harl::CVMDKGrainTableCache(8));
    const bool writable = (flags & 2) != 0;
    try {
        kz::P<harl::CVMDKGrainDirectory> directory(new harl::CVMDKGrainDirectory(
            stream.get(), writable ? kz::IIOStream::AccessReadWrite : kz::IIOStream::AccessRead,
            posSectors, redundantPosSectors, capacitySectors, grainSizeSectors, grainsPerTable,
            (flags & 1) != 0, cache.get()));
        visitGrains(*directory, writable);
        directory->flushChangesToStream();
    } catch (const kz::CError&) {
        return 0;
    }
    return 0;
}
