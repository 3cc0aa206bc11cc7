#pragma once

#include "harl/foundation/kz/IBase.h"
#include "harl/foundation/kz/TBuffer.h"

namespace harl {

// The fallback source of data that an extent or a grain does not hold itself: for a
// differencing disk, the parent disk.
//
// Positions are byte positions in the whole disk, never in an extent, so one provider serves
// every extent of a disk. Errors of the source pass through to the caller unchanged.
class IVMDKDataProvider : public virtual kz::IBase {
public:
    IVMDKDataProvider() = default;
    IVMDKDataProvider(const IVMDKDataProvider&) = default;
    IVMDKDataProvider(IVMDKDataProvider&&) = default;
    IVMDKDataProvider& operator=(const IVMDKDataProvider&) = default;
    IVMDKDataProvider& operator=(IVMDKDataProvider&&) = default;

    // Fills `buffer` with `size` bytes of disk content from disk byte `position`. A size of 0
    // is a valid call.
    virtual void getData(long long position, void* buffer, int size) = 0;

    // Fills `data` with the prepared form of the grain that starts at disk byte `position`.
    // `grainSize` (bytes) and `compressed` describe the asker; a provider whose source differs
    // from them refuses.
    virtual void getPreparedGrainData(long long position, kz::TBuffer<unsigned char>& data,
                                      int grainSize, bool compressed) = 0;

    // Whether the grain at disk byte `position` is written in the provider's disk or further
    // up its chain.
    virtual bool isGrainWritten(long long position) = 0;

protected:
    ~IVMDKDataProvider() override = default;
};

}  // namespace harl
