#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/ISimpleCompressor.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/TBuffer.h"

namespace harl {

// Turns plain grain data into the prepared form, in which a grain passes from disk to disk
// without being decompressed, and back. A preparer belongs to no file: it knows a grain size
// and whether grains are compressed. Preparing never encrypts; prepared data is in the clear.
//
// Prepared grain of a preparer with compression, little-endian, 512-byte sectors:
//
// | offset    | size      | field | meaning                                                 |
// |-----------|-----------|-------|---------------------------------------------------------|
// | 0         | 8         | lba   | first sector of the grain on the virtual disk: grain    |
// |           |           |       | size in sectors x the disk grain index; unsigned        |
// | 8         | 4         | size  | number of compressed bytes that follow; unsigned        |
// | 12        | size      | data  | the compressor's output (zlib format)                   |
// | 12 + size | as needed | fill  | zero bytes up to the next multiple of 512; none when    |
// |           |           |       | 12 + size already is one                                |
//
// A compressed grain is stored on disk in exactly this form (see CVMDKGrain). One read back
// from an encrypted extent has the same header but ends at 12 + size, without the fill.
//
// Without compression the prepared form is the plain bytes: a full grain has grainSizeBytes.
class CVMDKDataPreparer : public kz::CBase {
public:
    static constexpr int kHeaderSizeBytes = 12;

    CVMDKDataPreparer(long long grainSizeSectors, bool compressed, int compressionLevel);

    // True when prepared data differs from plain data, that is with compression.
    bool doesAnything() const { return compressor != nullptr; }

    // The longest prepared grain in sectors: the grain size without compression, else the
    // compressor's bound plus the header, in whole sectors.
    long long getWorstCaseGrainSizeSectors() const { return worstCaseGrainSizeSectors; }

    // Returns the buffer that holds the prepared grain: `source` itself without compression,
    // `auxBuffer` with it. `grainIndex` counts grains of the whole disk. A source shorter
    // than a grain is compressed as it is; unpreparing fills the rest with zeros. Both
    // buffers must be held through P by the caller, since one of them is handed back.
    kz::P<kz::TBuffer<unsigned char>> prepareGrainData(kz::TBuffer<unsigned char>* source,
                                                       long long grainIndex,
                                                       kz::TBuffer<unsigned char>* auxBuffer);

    // Returns the buffer that holds the whole plain grain: `source` itself without
    // compression, `auxBuffer` with it. Corrupt data throws the decompressor's CIOError.
    kz::P<kz::TBuffer<unsigned char>> unprepareGrainData(kz::TBuffer<unsigned char>* source,
                                                         kz::TBuffer<unsigned char>* auxBuffer);

    // With compression, rewrites `lba` for `grainIndex` and touches nothing else, so one
    // prepared all-zero grain serves every index.
    void patchGrainIndexInPreparedGrainData(kz::TBuffer<unsigned char>& buffer,
                                            long long grainIndex) const;

private:
    long long grainSizeSectors;
    long long grainSizeBytes;
    kz::P<kz::ISimpleCompressor> compressor;
    long long compressedSizeUpperBound = -1;
    long long worstCaseGrainSizeSectors;
};

}  // namespace harl
