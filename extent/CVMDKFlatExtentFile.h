#pragma once

#include "harl/extent/CVMDKReadOnlyExtentFile.h"
#include "harl/foundation/kz/IIOStream.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/TBuffer.h"

namespace harl {

// A flat extent of another writer, read only: raw disk bytes in a file, from the sector that
// the extent line names on (extent types FLAT and VMFS). Byte reads go straight to the file.
//
// The file has no grains of its own; the extent takes the disk's grain size and compression
// for prepared reads, which read a grain and prepare it (compressing it for a compressed disk).
// Every grain counts as written: a raw file does not say which of its bytes were.
class CVMDKFlatExtentFile : public CVMDKReadOnlyExtentFile {
public:
    // `stream` is the raw file; the extent's bytes are [offsetSectors x 512, + sizeSectors x
    // 512) of it. Throws a CIOError code 5 with "uri" when the file is too short to hold them
    // or `offsetSectors` is negative, and a CInvalidArgError for a geometry no extent can have.
    CVMDKFlatExtentFile(kz::IIOStream* stream, long long offsetSectors, long long startGrainIndex,
                        long long grainSizeSectors, long long sizeSectors, bool compressed,
                        int compressionLevel);

    // Reads from the file at the position; the stream's own errors pass through.
    void read(void* buffer, int size) override;
    // Reads the grain at the position and hands it out prepared.
    void readPreparedGrainData(kz::TBuffer<unsigned char>& data) override;

    bool isGrainWritten() override { return true; }

    // Every byte of the range is payload, in the file as it is.
    kz::P<CVMDKSpaceInfo> gatherSpaceInfo() override;

protected:
    void closeFile() override { stream->close(); }

private:
    kz::P<kz::IIOStream> stream;
    long long offsetBytes = 0;
    // For a compressed disk: the preparer and its two buffers, made on the first prepared read.
    kz::P<CVMDKDataPreparer> dataPreparer;
    kz::P<kz::TBuffer<unsigned char>> plainGrain;
    kz::P<kz::TBuffer<unsigned char>> preparedGrain;
};

}  // namespace harl
