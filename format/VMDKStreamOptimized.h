#pragma once

#include "harl/format/CVMDKSparseExtentHeader.h"
#include "harl/foundation/kz/IIOStream.h"

#include <cstdint>

namespace harl {

// The published layout of a stream-optimized extent as other writers leave it: a file written
// front to back in one pass, so that the header cannot know where the grain directory will
// stand. Sectors of 512 bytes:
//
// | sectors               | content                                                         |
// |-----------------------|-----------------------------------------------------------------|
// | 0                     | sparse extent header (CVMDKSparseExtentHeader), flags           |
// |                       | compressed and metaMarkers; its grain directory offset is       |
// |                       | kVMDKGrainDirectoryAtEnd when the directory comes at the end    |
// | 1 to overhead - 1     | embedded descriptor and fill                                    |
// | overhead on, in file  | grains, each starting with a grain marker (below); grain tables |
// | order                 | and the grain directory, each behind a metadata marker          |
// |                       | (VMDKMarkers.h) whose value is its length in sectors            |
// | length - 3            | footer marker: VMDKMarkerFooter, value 1                        |
// | length - 2            | footer: a copy of the header with the real directory offset     |
// | length - 1            | end-of-stream marker                                            |
//
// Writers that know the layout in advance (qemu-img among them) put a real directory offset in
// the header, keep the directory and tables in front of the grains without markers, and end
// the file behind the last grain: no footer, no end-of-stream marker.
//
// Grain marker, at a grain's first sector, little-endian. It is the compressed grain of
// CVMDKGrain byte for byte; its size field, at the offset of a metadata marker's zero size
// word, tells the two kinds apart:
//
// | offset    | size      | field | meaning                                                 |
// |-----------|-----------|-------|---------------------------------------------------------|
// | 0         | 8         | lba   | first sector of the grain on the virtual disk           |
// | 8         | 4         | size  | compressed bytes that follow; never 0                   |
// | 12        | size      | data  | the deflate stream in zlib format (compressAlgorithm 1) |
// | 12 + size | to sector | fill  | to the next sector boundary                             |

// The header's grain directory offset of a file whose directory is told only by its footer.
constexpr uint64_t kVMDKGrainDirectoryAtEnd = ~0ULL;
constexpr uint16_t kVMDKCompressAlgorithmDeflate = 1;

// The footer marker, the footer and the end-of-stream marker.
constexpr int kVMDKStreamFooterSectors = 3;
constexpr int kVMDKGrainMarkerSizeBytes = 12;

struct VMDKGrainMarker {
    // First sector of the grain on the virtual disk.
    uint64_t lba = 0;
    // Compressed bytes behind the marker; 0 for a sector that is a metadata marker.
    uint32_t size = 0;
};

// Decodes the first 12 of the bytes at `bytes`: a grain marker, or the value and size word of a
// metadata marker (size 0).
VMDKGrainMarker decodeVMDKGrainMarker(const unsigned char* bytes);

// Loads the footer into `footer` when the last three sectors of `stream` are a footer marker, a
// header and an end-of-stream marker, and returns true; returns false, reading nothing into
// `footer`, when the file does not end so (a length off a sector boundary included). A footer
// whose markers stand but whose header does not load throws the header's CIOError code 5.
// Moves the stream's position.
bool readVMDKStreamFooter(kz::IIOStream& stream, CVMDKSparseExtentHeader& footer);

}  // namespace harl
