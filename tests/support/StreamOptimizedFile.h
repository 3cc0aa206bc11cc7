#pragma once

#include "harl/foundation/kz/TBuffer.h"

#include <string>
#include <vector>

namespace harltest {

// Where buildStreamOptimizedFile put the pieces, in sectors.
struct CStreamOptimizedLayout {
    kz::TBuffer<unsigned char> file;
    long long directorySector = 0;
    // By table index; 0 for a table left out because all its grains are zeros.
    std::vector<long long> tableSectors;
    // The grain marker of each stored grain, by grain index; 0 for a grain not stored.
    std::vector<long long> grainSectors;
};

// A stream-optimized extent as a streaming writer leaves it, built here from the published
// layout alone (zlib through pcu, fields written at their offsets), so that it owes nothing to
// the library's readers and writers: header with the directory offset all ones, a descriptor,
// the grains that are not all zero behind grain markers, each table that holds a grain behind
// a table marker, the directory behind its marker, then footer marker, footer (the header with
// the real directory offset) and end-of-stream marker. `raw` is the disk; its size is a
// multiple of 512. Grains of 128 sectors, `grainsPerTable` to a table (writers use 512), each
// grain's deflate data behind `emptyBlocks` empty stored blocks, which a writer may leave.
CStreamOptimizedLayout buildStreamOptimizedFile(const std::vector<unsigned char>& raw,
                                                const std::string& fileName,
                                                long long grainsPerTable = 512,
                                                int emptyBlocks = 0);

}  // namespace harltest
