#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/ISimpleCompressor.h"
#include "harl/foundation/kz/P.h"

namespace harl {

// The compressor of grain data. It picks the engine from a level and makes sure that a write
// never fails for compression's sake: whatever the fast engine cannot do, or does badly, is
// done again by the fallback, zlib at level 0, which stores the data without shrinking it.
//
// Decompression has no fallback: every engine reads what any engine wrote, so a disk may be
// read with another level than the one it was written with.
class CVMDKCompressor : public kz::CBase, public virtual kz::ISimpleCompressor {
public:
    // Level -1 means 1. Level 0 uses the fallback engine for both roles.
    explicit CVMDKCompressor(int compressionLevel);

    // "smart-" and the primary engine's description.
    kz::String getInternalDesc() const override;

    // The fallback's bound b, or b rounded up to whole sectors less the 12 header bytes of a
    // stored grain if that is more, so that a prepared grain never needs a sector more than
    // the worst case allows.
    int getCompressedSizeUpperBound(int sourceSize) const override;

    // Compresses with the primary engine; goes to the fallback when the primary throws a
    // kz::CError, does not fit, or gives more than both the source size and the bound.
    int compressSingleStep(const void* source, int sourceSize, void* destination,
                           int destinationSize) override;

    int decompressSingleStep(const void* source, int sourceSize, void* destination,
                             int destinationSize) override;

    // How many compressions went to the fallback.
    long long getCompressFallbackCount() const { return compressFallbackCount; }

private:
    int compressionLevel;
    kz::P<kz::ISimpleCompressor> primaryCompressor;
    kz::P<kz::ISimpleCompressor> fallbackCompressor;
    long long compressFallbackCount = 0;
};

}  // namespace harl
