#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/ISimpleCompressor.h"
#include "harl/foundation/kz/TBuffer.h"

struct libdeflate_compressor;
struct libdeflate_decompressor;

namespace rcu {

// The fast engine behind kz::ISimpleCompressor, for levels 1 and up. It writes and reads the
// same zlib format as pcu::CZLibCompressor. Levels run from 0 (stored blocks) to 12 (the
// slowest); -1 is the engine's default, 6.
//
// Each object keeps one compressor and one decompressor, made on first use, so that a call
// per grain allocates nothing after the first. The engine needs a few bytes of room behind
// its output; a destination smaller than the bound is therefore served through a scratch
// buffer, so that output that fits exactly is not refused. Not copyable: the engines are the
// object's own.
//
// Input that deflate cannot shrink (random, encrypted or already compressed content) costs the
// engine more time than any other, for nothing. At levels 1 and up, an input of at least
// kSampleMinBytes that looks like such content (byte values spread near evenly at its start,
// middle and end, and a sample of its middle that does not shrink) goes into deflate's stored
// blocks instead, as level 0 writes them: the same format, a few bytes longer than the input.
class CMiniZCompressor : public kz::CBase, public virtual kz::ISimpleCompressor {
public:
    // A level outside -1..12 throws CInvalidArgError.
    explicit CMiniZCompressor(int level);
    CMiniZCompressor(const CMiniZCompressor&) = delete;
    CMiniZCompressor& operator=(const CMiniZCompressor&) = delete;

    kz::String getInternalDesc() const override;
    int getCompressedSizeUpperBound(int sourceSize) const override;
    int compressSingleStep(const void* source, int sourceSize, void* destination,
                           int destinationSize) override;
    int decompressSingleStep(const void* source, int sourceSize, void* destination,
                             int destinationSize) override;

    int getLevel() const { return level; }

    static constexpr int kSampleMinBytes = 16384;

protected:
    ~CMiniZCompressor() override;

private:
    // True when the input looks as if deflate cannot shrink it (see above).
    bool looksIncompressible(const unsigned char* source, int sourceSize);
    static libdeflate_compressor* allocCompressor(int level);

    int level;
    libdeflate_compressor* compressor = nullptr;
    libdeflate_compressor* storingCompressor = nullptr;
    libdeflate_decompressor* decompressor = nullptr;
    kz::TBuffer<unsigned char> scratch;
};

}  // namespace rcu
