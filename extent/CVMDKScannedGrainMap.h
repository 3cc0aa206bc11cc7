#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/IIOStream.h"

#include <vector>

namespace harl {

// Where the grains of a stream-optimized extent lie, found by one sequential walk over its
// markers (layout: VMDKStreamOptimized.h): for a file whose header has no usable grain
// directory and which has no footer that names one. The walk starts at the first sector behind
// the header's metadata, steps over each grain by the size in its marker and over each
// metadata marker by its value, and ends at the end-of-stream marker.
//
// Everything the walk meets is checked before it moves on: a grain marker must lie within the
// file with its data, name the first sector of a grain of this extent (counted over the whole
// disk) and hold at most twice a grain of compressed bytes; a metadata marker must be of a
// known type and its value must stay within the file. A stream holds each grain once, so the
// map holds at most one entry per grain of the extent: 16 bytes per stored grain.
class CVMDKScannedGrainMap : public kz::CBase {
public:
    struct CStoredGrain {
        // Counted from the extent's first grain.
        long long grainIndex;
        // The sector of the grain's marker.
        long long posSectors;
    };

    // Walks `stream` from `firstSector`. Throws a kz::CIOError code 5 with "uri" for anything a
    // stream cannot hold, and for a file that ends before its end-of-stream marker (a stream cut
    // short). Stream errors pass through. Moves the stream's position.
    CVMDKScannedGrainMap(kz::IIOStream* stream, long long firstSector, long long grainSizeSectors,
                         long long extentGrainCount, long long startGrainIndex);

    // The sector of the grain's marker, or 0 when the stream holds no such grain. `grainIndex`
    // counts from the extent's first grain.
    long long getGrainPosSectors(long long grainIndex) const;

    // The grains that the stream holds, in ascending grain index.
    const std::vector<CStoredGrain>& getStoredGrains() const { return grains; }

private:
    // One step of the walk at `sector`: returns the sector behind what stands there, or -1 at
    // the end-of-stream marker.
    long long scanAt(long long sector, const unsigned char* bytes);
    void addGrain(long long sector, unsigned long long lba);
    void sortAndCheck();
    [[noreturn]] void corrupt(const kz::String& message, long long sector) const;

    kz::P<kz::IIOStream> stream;
    long long fileSectors;
    long long grainSizeSectors;
    long long extentGrainCount;
    long long startGrainIndex;
    // Sorted by grainIndex once the walk is done.
    std::vector<CStoredGrain> grains;
};

}  // namespace harl
