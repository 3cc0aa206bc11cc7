#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/ISimpleCompressor.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/pcu/CZLibCompressor.h"
#include "harl/foundation/rcu/CMiniZCompressor.h"

#include "tests/support/SampleData.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <functional>

namespace {

using harltest::Bytes;
using Engine = kz::P<kz::ISimpleCompressor>;

const int kGrainSizeBytes = 65536;
const size_t kSectorSizeBytes = 512;

struct CEngine {
    const char* name;
    std::function<Engine()> make;
};

void PrintTo(const CEngine& engine, std::ostream* out) {
    *out << engine.name;
}

const CEngine kEngines[] = {
    {"zlib0", [] { return Engine(new pcu::CZLibCompressor(0)); }},
    {"zlib1", [] { return Engine(new pcu::CZLibCompressor(1)); }},
    {"libdeflate1", [] { return Engine(new rcu::CMiniZCompressor(1)); }},
    {"libdeflate12", [] { return Engine(new rcu::CMiniZCompressor(12)); }},
};

// Compresses `data` and pads the output with zeros to whole sectors and one more, as a
// grain lies in its slot.
Bytes compressPadded(kz::ISimpleCompressor& engine, const Bytes& data, int* size = nullptr) {
    Bytes out(size_t(engine.getCompressedSizeUpperBound(int(data.size()))));
    const int n =
        engine.compressSingleStep(data.data(), int(data.size()), out.data(), int(out.size()));
    EXPECT_GT(n, 0);
    out.resize((size_t(n) / kSectorSizeBytes + 2) * kSectorSizeBytes, 0);
    if (size != nullptr) {
        *size = n;
    }
    return out;
}

void expectCorrupt(kz::ISimpleCompressor& engine, const Bytes& source, size_t sourceSize,
                   size_t destinationSize) {
    Bytes out(destinationSize);
    try {
        engine.decompressSingleStep(source.data(), int(sourceSize), out.data(), int(out.size()));
        ADD_FAILURE() << "no error for " << sourceSize << " bytes";
    } catch (const kz::CIOError& error) {
        EXPECT_EQ(error.getCode(), kz::CIOError::CorruptFormat) << error.what();
    }
}

class ISimpleCompressorTest : public testing::TestWithParam<CEngine> {};

TEST_P(ISimpleCompressorTest, EveryEngineReadsItsOutputPaddedWithZeros) {
    Engine writer = GetParam().make();
    for (const Bytes& grain :
         {harltest::makeTextLikeData(kGrainSizeBytes, 1), Bytes(kGrainSizeBytes, 0),
          harltest::makeRandomData(kGrainSizeBytes, 2),
          harltest::makeFileSystemLikeData(kGrainSizeBytes, 3)}) {
        const Bytes stored = compressPadded(*writer, grain);
        for (const CEngine& reader : kEngines) {
            Bytes out(kGrainSizeBytes);
            ASSERT_EQ(reader.make()->decompressSingleStep(stored.data(), int(stored.size()),
                                                          out.data(), kGrainSizeBytes),
                      kGrainSizeBytes);
            EXPECT_EQ(out, grain) << reader.name;
        }
    }
}

TEST_P(ISimpleCompressorTest, StaysWithinTheBoundAndReportsWhatDoesNotFit) {
    Engine engine = GetParam().make();
    const Bytes random = harltest::makeRandomData(kGrainSizeBytes, 4);
    int n = 0;
    compressPadded(*engine, random, &n);
    EXPECT_LE(n, engine->getCompressedSizeUpperBound(kGrainSizeBytes));
    EXPECT_EQ(engine->compressSingleStep(random.data(), kGrainSizeBytes, nullptr, 0), -1);

    // Output that fits exactly is given; one byte less is not.
    const Bytes text = harltest::makeTextLikeData(kGrainSizeBytes, 5);
    Bytes out(kGrainSizeBytes * 2);
    n = engine->compressSingleStep(text.data(), kGrainSizeBytes, out.data(), int(out.size()));
    EXPECT_EQ(engine->compressSingleStep(text.data(), kGrainSizeBytes, out.data(), n), n);
    EXPECT_EQ(engine->compressSingleStep(text.data(), kGrainSizeBytes, out.data(), n - 1), -1);

    // Empty input has a bound and makes a stream that reads back as nothing.
    EXPECT_GT(engine->getCompressedSizeUpperBound(0), 0);
    n = engine->compressSingleStep(nullptr, 0, out.data(), int(out.size()));
    EXPECT_EQ(engine->decompressSingleStep(out.data(), n, nullptr, 0), 0);

    EXPECT_THROW(engine->compressSingleStep(out.data(), -1, out.data(), 16), kz::CInvalidArgError);
    EXPECT_THROW(engine->decompressSingleStep(nullptr, 16, out.data(), 16), kz::CInvalidArgError);
    EXPECT_THROW(engine->getCompressedSizeUpperBound(INT_MAX), kz::CInvalidArgError);
}

TEST_P(ISimpleCompressorTest, RefusesTruncatedCorruptAndOversizedStreams) {
    Engine reader = GetParam().make();
    const Bytes grain = harltest::makeFileSystemLikeData(kGrainSizeBytes, 6);
    int n = 0;
    const Bytes stored = compressPadded(*kz::makeP<rcu::CMiniZCompressor>(1), grain, &n);
    for (size_t cut : {0, 1, n / 2, n - 1}) {
        expectCorrupt(*reader, stored, cut, kGrainSizeBytes);
    }
    expectCorrupt(*reader, stored, stored.size(), kGrainSizeBytes - 1);

    // A damaged byte is refused, unless it only held bits that the format ignores (as the
    // fill behind a stored block's header does): then the grain reads back unchanged.
    std::mt19937 random(7);
    Bytes out(kGrainSizeBytes);
    for (int i = 0; i < 300; ++i) {
        Bytes damaged = stored;
        damaged[random() % size_t(n)] ^= static_cast<unsigned char>(1 + random() % 255);
        try {
            reader->decompressSingleStep(damaged.data(), n, out.data(), kGrainSizeBytes);
            EXPECT_EQ(out, grain);
        } catch (const kz::CIOError& error) {
            EXPECT_EQ(error.getCode(), kz::CIOError::CorruptFormat);
        }
    }
}

// Content that does not shrink goes into stored blocks, as level 0 writes them (which is what
// the engine's own work would give, only slower: the benchmarks show the difference); random
// bytes that repeat, or that zeros surround, are still compressed.
TEST(ISimpleCompressorTest, LibdeflateStoresWhatItCannotShrink) {
    const Bytes random = harltest::makeRandomData(kGrainSizeBytes, 6);
    Bytes repeated(kGrainSizeBytes);
    Bytes surrounded(kGrainSizeBytes, 0);
    for (size_t i = 0; i < repeated.size(); ++i) {
        repeated[i] = random[i % 4096];
        surrounded[i] = i >= 16384 && i < 49152 ? random[i] : 0;
    }
    const auto size = [](int level, const Bytes& data) {
        int n = 0;
        compressPadded(*Engine(new rcu::CMiniZCompressor(level)), data, &n);
        return n;
    };
    EXPECT_EQ(size(1, random), size(0, random));
    EXPECT_LT(size(1, repeated), kGrainSizeBytes / 8);
    EXPECT_LT(size(1, surrounded), kGrainSizeBytes * 6 / 10);
}

INSTANTIATE_TEST_SUITE_P(Engines, ISimpleCompressorTest, testing::ValuesIn(kEngines),
                         [](const auto& info) { return std::string(info.param.name); });

// A stream that needs a preset dictionary, which zlib reports without a message of its own.
TEST(ISimpleCompressorTest, ZlibNamesAStreamThatNeedsADictionary) {
    const unsigned char stream[] = {0x78, 0xbb, 0, 0, 0, 1, 0x03, 0x00};
    unsigned char out[16];
    const std::string text = harltest::thrownText<kz::CIOError>(
        [&] { kz::makeP<pcu::CZLibCompressor>(6)->decompressSingleStep(stream, 8, out, 16); });
    EXPECT_NE(text.find("preset dictionary"), std::string::npos) << text;
}

TEST(ISimpleCompressorTest, EnginesCheckAndNameTheirLevel) {
    EXPECT_THROW(kz::makeP<pcu::CZLibCompressor>(10), kz::CInvalidArgError);
    EXPECT_THROW(kz::makeP<rcu::CMiniZCompressor>(13), kz::CInvalidArgError);
    EXPECT_EQ(kz::makeP<pcu::CZLibCompressor>(-1)->getInternalDesc(), "zlib(level=6)");
    EXPECT_EQ(kz::makeP<rcu::CMiniZCompressor>(-1)->getInternalDesc(), "libdeflate(level=6)");
}

}  // namespace
