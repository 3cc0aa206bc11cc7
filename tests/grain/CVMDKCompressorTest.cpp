#include "harl/foundation/kz/CError.h"
#include "harl/grain/CVMDKCompressor.h"

#include "tests/support/SampleData.h"
#include <gtest/gtest.h>

namespace {

using harl::CVMDKCompressor;

constexpr int kGrainBytes = 65536;

TEST(CVMDKCompressorTest, LevelPicksTheEngineButNotTheBound) {
    kz::P<CVMDKCompressor> byDefault(new CVMDKCompressor(-1));
    kz::P<CVMDKCompressor> levelOne(new CVMDKCompressor(1));
    kz::P<CVMDKCompressor> stored(new CVMDKCompressor(0));
    EXPECT_EQ(byDefault->getInternalDesc(), levelOne->getInternalDesc());
    EXPECT_EQ(byDefault->getInternalDesc(), "smart-libdeflate(level=1)");
    EXPECT_EQ(stored->getInternalDesc(), "smart-zlib(level=0)");  // the fallback itself
    const int bound = levelOne->getCompressedSizeUpperBound(kGrainBytes);
    EXPECT_EQ(stored->getCompressedSizeUpperBound(kGrainBytes), bound);
    EXPECT_EQ(
        kz::P<CVMDKCompressor>(new CVMDKCompressor(9))->getCompressedSizeUpperBound(kGrainBytes),
        bound);
    // The bound leaves room for the 12-byte header within whole sectors.
    EXPECT_GE(bound, kGrainBytes);
    EXPECT_EQ((bound + 12) % 512, 0);
}

TEST(CVMDKCompressorTest, EveryLevelReadsEveryOther) {
    const auto grain = harltest::makeFileSystemLikeData(kGrainBytes, 3);
    std::vector<unsigned char> packed(kGrainBytes * 2);
    std::vector<unsigned char> plain(kGrainBytes);
    for (int writer : {0, 1, 6}) {
        kz::P<CVMDKCompressor> out(new CVMDKCompressor(writer));
        const int size = out->compressSingleStep(grain.data(), kGrainBytes, packed.data(),
                                                 out->getCompressedSizeUpperBound(kGrainBytes));
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
