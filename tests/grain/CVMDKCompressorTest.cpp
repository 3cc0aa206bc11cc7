#include "harl/foundation/kz/CError.h"
#include "harl/grain/CVMDKCompressor.h"

#include "tests/support/SampleData.h"
#include <gtest/gtest.h>

namespace {

using harl::CVMDKCompressor;

constexpr int kGrainBytes = 65536;

// The level picks the engine (the default is level 1; 0 is the fallback itself) but not the
// bound, which leaves room for the 12-byte header within whole sectors.
TEST(CVMDKCompressorTest, EveryLevelReadsEveryOtherWithinOneBound) {
    const auto grain = harltest::makeFileSystemLikeData(kGrainBytes, 3);
    std::vector<unsigned char> packed(kGrainBytes * 2);
    std::vector<unsigned char> plain(kGrainBytes);
    const int bound =
        kz::P<CVMDKCompressor>(new CVMDKCompressor(1))->getCompressedSizeUpperBound(kGrainBytes);
    EXPECT_GE(bound, kGrainBytes);
    EXPECT_EQ((bound + 12) % 512, 0);
    for (auto [writer, engine] :
         {std::pair{-1, "smart-libdeflate(level=1)"}, std::pair{0, "smart-zlib(level=0)"},
          std::pair{1, "smart-libdeflate(level=1)"}, std::pair{9, "smart-libdeflate(level=9)"}}) {
        kz::P<CVMDKCompressor> out(new CVMDKCompressor(writer));
        EXPECT_EQ(out->getInternalDesc(), engine);
        EXPECT_EQ(out->getCompressedSizeUpperBound(kGrainBytes), bound);
        const int size = out->compressSingleStep(grain.data(), kGrainBytes, packed.data(), bound);
        ASSERT_GT(size, 0);
        for (int reader : {0, 1, 12}) {
            kz::P<CVMDKCompressor> in(new CVMDKCompressor(reader));
            EXPECT_EQ(in->decompressSingleStep(packed.data(), size, plain.data(), kGrainBytes),
                      kGrainBytes);
            EXPECT_EQ(plain, grain) << writer << " read by " << reader;
        }
        EXPECT_EQ(out->getCompressFallbackCount(), 0);
    }
}

TEST(CVMDKCompressorTest, IncompressibleDataWithinTheBoundIsAcceptedElseFallsBack) {
    const auto noise = harltest::makeRandomData(kGrainBytes, 9);
    kz::P<CVMDKCompressor> compressor(new CVMDKCompressor(1));
    std::vector<unsigned char> packed(kGrainBytes * 2);
    const int bound = compressor->getCompressedSizeUpperBound(kGrainBytes);
    const int size =
        compressor->compressSingleStep(noise.data(), kGrainBytes, packed.data(), bound);
    EXPECT_GT(size, kGrainBytes);
    EXPECT_LE(size, bound);
    EXPECT_EQ(compressor->getCompressFallbackCount(), 0);

    // Too little room for either engine: the fallback is asked, counted, and says so.
    EXPECT_EQ(compressor->compressSingleStep(noise.data(), kGrainBytes, packed.data(), 1000), -1);
    EXPECT_EQ(compressor->getCompressFallbackCount(), 1);
}

TEST(CVMDKCompressorTest, LevelZeroLetsEngineErrorsThrough) {
    kz::P<CVMDKCompressor> stored(new CVMDKCompressor(0));
    unsigned char out[16];
    EXPECT_THROW(stored->compressSingleStep(nullptr, 10, out, sizeof(out)), kz::CError);
    EXPECT_EQ(stored->getCompressFallbackCount(), 0);
}

}  // namespace
