// Opens a grain directory on arbitrary bytes with an arbitrary geometry, looks up and records
// grains, and lets the directory flush and go. Any input must end in the system's errors:
// no crash, no undefined behaviour, no allocation sized by an unchecked count.
//
// Input: 33 bytes of parameters, little-endian, then the extent file's bytes.
// | offset | size | parameter                                  |
// |--------|------|--------------------------------------------|
// | 0      | 8    | posSectors                                 |
// | 8      | 8    | redundantPosSectors                        |
// | 16     | 8    | capacitySectors                            |
// | 24     | 4    | grainSizeSectors                           |
// | 28     | 4    | grainsPerTable                             |
// | 32     | 1    | bit 0: compressed; bit 1: opened writable  |
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

constexpr size_t kParameterBytes = 33;
// Enough grains to cross a batch of tables with small tables, few enough to stay quick.
constexpr long long kMaxGrainsVisited = 256;

void visitGrains(harl::CVMDKGrainDirectory& directory, bool writable) {
    const long long count = std::min(directory.getExtentGrainCount(), kMaxGrainsVisited);
    for (long long grain = 0; grain < count; ++grain) {
        try {
            long long pos = 0, slot = 0;
            directory.getGrainInfo(grain, pos, slot);
            if (writable) {
                const bool tracking = directory.getHaveSlotSizeInfo();
                directory.setGrainInfo(grain, 1000 + grain,
                                       tracking ? 1 + grain % 7 : directory.getGrainSizeSectors());
            }
        } catch (const kz::CError&) {
            // A table that cannot be read or a value it refuses; the next grain goes on.
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
    const long long posSectors = in.readInt64();
    const long long redundantPosSectors = in.readInt64();
    const long long capacitySectors = in.readInt64();
    const long long grainSizeSectors = static_cast<int32_t>(in.readUInt32());
    const int grainsPerTable = static_cast<int32_t>(in.readUInt32());
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
