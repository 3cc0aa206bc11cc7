// Opens a stream-optimized extent on arbitrary bytes, as a file of another writer, and reads
// its first grains byte by byte and prepared. Any input must end in the system's errors: no
// crash, no undefined behaviour, no allocation or loop sized by an unchecked length.
//
// Input: the extent file's bytes.
#include "harl/extent/CVMDKStreamOptimizedExtentFile.h"
#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CError.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace {

// Enough grains to cross tables and the end of a small extent, few enough to stay quick.
constexpr long long kMaxGrainsVisited = 16;

void readGrains(harl::CVMDKStreamOptimizedExtentFile& extent) {
    const long long grainBytes = extent.getGrainSizeSectors() * 512;
    const long long end = std::min(extent.getSizeBytes(), kMaxGrainsVisited * grainBytes);
    std::vector<unsigned char> bytes(static_cast<size_t>(grainBytes));
    kz::TBuffer<unsigned char> prepared;
    for (long long at = 0; at < end; at += grainBytes) {
        try {
            extent.seek(at);
            extent.isGrainWritten();
            extent.read(bytes.data(), static_cast<int>(std::min(grainBytes, end - at)));
            extent.seek(at);
            extent.readPreparedGrainData(prepared);
        } catch (const kz::CError&) {
            // A damaged grain; the next one goes on.
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kz::TBuffer<unsigned char> file;
    file.assign(data, size);
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream(file, kz::CURI("file:///fuzz.vmdk")));
    try {
        kz::P<harl::CVMDKStreamOptimizedExtentFile> extent(
            new harl::CVMDKStreamOptimizedExtentFile(stream.get(), 0, 1));
        readGrains(*extent);
        extent->gatherSpaceInfo();
    } catch (const kz::CError&) {
        // Refused at opening, or while the space was counted.
    }
    return 0;
}
