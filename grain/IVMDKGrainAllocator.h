#pragma once

#include "harl/foundation/kz/IBase.h"
#include "harl/foundation/kz/TConstBufferSlice.h"

namespace harl {

// Decides where new grains go in an extent file, writes them there and records them in the
// grain directory, so that allocation and first write are one operation.
class IVMDKGrainAllocator : public virtual kz::IBase {
public:
    // Writes the trail data behind the data if the file needs it.
    virtual void flushChangesToStream() = 0;

    // Allocates a slot of `slotSizeSectors` sectors at the end of the data, stores `size`
    // bytes of `data` at its start, fills the rest of the slot with zeros and records the
    // grain. Returns the slot's sector position.
    virtual long long allocNewGrain(long long extentGrainIndex, const void* data, int size,
                                    int slotSizeSectors) = 0;

    // As allocNewGrain, with the data written through writeKeepBuffer so that the stream
    // need not copy it.
    virtual long long allocNewGrainKeepBuffer(long long extentGrainIndex,
                                              const kz::TConstBufferSlice<unsigned char>& data,
                                              int slotSizeSectors) = 0;
};

}  // namespace harl
