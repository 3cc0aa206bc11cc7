#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/ISimpleCompressor.h"

#include <memory>

namespace pcu {

// The zlib engine behind kz::ISimpleCompressor. Level 0 stores the data in uncompressed
// deflate blocks, which never fails for want of compression and grows the data by a few
// bytes only; levels 1 to 9 trade speed for size, and -1 is zlib's default, 6.
//
// Each object keeps one deflate and one inflate stream, made on first use and reset for
// every later call, so compressing or decompressing a grain allocates nothing after the
// first call. Not copyable: the streams are the object's own.
class CZLibCompressor : public kz::CBase, public virtual kz::ISimpleCompressor {
public:
    // A level outside -1..9 throws CInvalidArgError.
    explicit CZLibCompressor(int level);
    CZLibCompressor(const CZLibCompressor&) = delete;
    CZLibCompressor& operator=(const CZLibCompressor&) = delete;

    kz::String getInternalDesc() const override;
    int getCompressedSizeUpperBound(int sourceSize) const override;
    int compressSingleStep(const void* source, int sourceSize, void* destination,
                           int destinationSize) override;
    int decompressSingleStep(const void* source, int sourceSize, void* destination,
                             int destinationSize) override;

    int getLevel() const { return level; }

protected:
    ~CZLibCompressor() override;

private:
    struct CStreams;

    int level;
    std::unique_ptr<CStreams> streams;
};

}  // namespace pcu
