#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/IIOStream.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/TBuffer.h"
#include "harl/grain/IVMDKGrainAllocator.h"

namespace harl {

class CVMDKGrainDirectory;

// The allocation policy of an extent: a new slot always goes to the end of the data, and
// nothing is ever given back. There is no free list.
//
// A compressed extent ends with trail data behind the last grain (footer marker, header copy,
// end-of-stream marker). New grains go where the trail stands, so an allocation overwrites
// it and the next flush writes it again at the new end. Between the two the file has no
// valid trail; an opening that finds none keeps the end of the file as data and appends a
// new trail at its next flush.
//
// A file whose directory knows of a table or a grain entry behind the end of the data gets no
// new grain: it would lie where that table or entry points (kz::CIOError code 5).
//
// Every operation seeks first and leaves the stream behind what it wrote.
class CVMDKGrainAllocator : public kz::CBase, public virtual IVMDKGrainAllocator {
public:
    // Finds the end of the data: the file's end, less the trail when the file ends with
    // exactly `trailData` (empty for an extent without a trail). The stream's position is
    // kept.
    CVMDKGrainAllocator(kz::IIOStream* stream, kz::IIOStream::Access access,
                        long long grainSizeSectors, long long grainAlignmentSectors,
                        CVMDKGrainDirectory* directory,
                        const kz::TBuffer<unsigned char>& trailData);

    void flushChangesToStream() override;
    long long allocNewGrain(long long extentGrainIndex, const void* data, int size,
                            int slotSizeSectors) override;
    long long allocNewGrainKeepBuffer(long long extentGrainIndex,
                                      const kz::TConstBufferSlice<unsigned char>& data,
                                      int slotSizeSectors) override;

    // Where the next slot starts, before alignment, and where the trail belongs.
    long long getNextPosBytes() const { return nextPosBytes; }

    bool isTrailDirty() const { return trailDirty; }

    long long getGrainSizeSectors() const { return grainSizeSectors; }

    // Where new slots start: every multiple of this, in sectors.
    long long getGrainAlignmentSectors() const { return grainAlignmentSectors; }

protected:
    ~CVMDKGrainAllocator() override;

private:
    long long allocate(long long extentGrainIndex, const unsigned char* data, int size,
                       int slotSizeSectors, bool keepBuffer);
    void writeZeros(long long byteCount);

    kz::P<kz::IIOStream> stream;
    kz::IIOStream::Access access;
    kz::P<CVMDKGrainDirectory> directory;
    long long grainSizeSectors;
    long long grainSizeBytes;
    long long grainAlignmentSectors;
    long long grainAlignmentBytes;
    kz::TBuffer<unsigned char> zeroBuffer;
    bool trailDirty = false;
    kz::TBuffer<unsigned char> trailData;
    long long nextPosBytes = 0;
};

}  // namespace harl
