#include "foundation/kz/CIOError.h"
#include "foundation/kz/CInvalidArgError.h"
#include "foundation/kz/ISimpleCompressor.h"
#include "foundation/kz/P.h"
#include "foundation/pcu/CZLibCompressor.h"
#include "foundation/rcu/CMiniZCompressor.h"

#include "tests/support/SampleData.h"
#include <gtest/gtest.h>

#include <functional>

namespace {

using harltest::Bytes;
using Factory = std::function<kz::P<kz::ISimpleCompressor>()>;

const int kGrainSizeBytes = 65536;
const size_t kSectorSizeBytes = 512;

struct CEngine {
    const char* name;
    Factory make;
};

const CEngine kEngines[] = {
    {"zlib0", [] { return kz::P<kz::ISimpleCompressor>(new pcu::CZLibCompressor(0)); }},
    {"zlib1", [] { return kz::P<kz::ISimpleCompressor>(new pcu::CZLibCompressor(1)); }},
    {"libdeflate1", [] { return kz::P<kz::ISimpleCompressor>(new rcu::CMiniZCompressor(1)); }},
    {"libdeflate12", [] { return kz::P<kz::ISimpleCompressor>(new rcu::CMiniZCompressor(12)); }},
};

std::vector<Bytes> grains() {
    return {harltest::makeTextLikeData(kGrainSizeBytes, 1), Bytes(kGrainSizeBytes, 0),
            harltest::makeRandomData(kGrainSizeBytes, 2),
            harltest::makeFileSystemLikeData(kGrainSizeBytes, 3)};
}

// Compresses `data` and pads the output with zeros to whole sectors plus one, as a grain
// lies in its slot.
Bytes compressPadded(kz::ISimpleCompressor& engine, const Bytes& data) {
    Bytes out(static_cast<size_t>(engine.getCompressedSizeUpperBound(int(data.size()))));
    const int n =
        engine.compressSingleStep(data.data(), int(data.size()), out.data(), int(out.size()));
    EXPECT_GT(n, 0);
    out.resize((static_cast<size_t>(n) / kSectorSizeBytes + 2) * kSectorSizeBytes, 0);
    return out;
}

int decompressInto(kz::ISimpleCompressor& engine, const Bytes& source, size_t sourceSize,
                   Bytes& destination) {
    return engine.decompressSingleStep(source.data(), int(sourceSize), destination.data(),
                                       int(destination.size()));
}

void expectCorrupt(const std::function<void()>& call) {
    try {
        call();
        ADD_FAILURE() << "no error";
    } catch (const kz::CIOError& error) {
        EXPECT_EQ(error.getCode(), kz::CIOError::CorruptFormat) << error.what();
    }
}

void PrintTo(const CEngine& engine, std::ostream* out) {
    *out << engine.name;
}

class ISimpleCompressorTest : public testing::TestWithParam<CEngine> {};

TEST_P(ISimpleCompressorTest, EveryEngineReadsItsOutputPaddedWithZeros) {
    kz::P<kz::ISimpleCompressor> writer = GetParam().make();
    for (const Bytes& grain : grains()) {
        const Bytes stored = compressPadded(*writer, grain);
        for (const CEngine& engine : kEngines) {
            kz::P<kz::ISimpleCompressor> reader = engine.make();
            Bytes out(kGrainSizeBytes);
            ASSERT_EQ(decompressInto(*reader, stored, stored.size(), out), kGrainSizeBytes)
                << engine.name;
            EXPECT_EQ(out, grain) << engine.name;
        }
    }
}

TEST_P(ISimpleCompressorTest, StaysWithinTheBoundAndReportsWhatDoesNotFit) {
    kz::P<kz::ISimpleCompressor> engine = GetParam().make();
    const Bytes random = harltest::makeRandomData(kGrainSizeBytes, 4);
    const Bytes stored = compressPadded(*engine, random);
    EXPECT_LE(stored.size() - 2 * kSectorSizeBytes,
              size_t(engine->getCompressedSizeUpperBound(kGrainSizeBytes)));

    const Bytes text = harltest::makeTextLikeData(kGrainSizeBytes, 5);
    Bytes out(kGrainSizeBytes * 2);
    const int n =
        engine->compressSingleStep(text.data(), kGrainSizeBytes, out.data(), int(out.size()));
    EXPECT_EQ(engine->compressSingleStep(text.data(), kGrainSizeBytes, out.data(), n), n);
    EXPECT_EQ(engine->compressSingleStep(text.data(), kGrainSizeBytes, out.data(), n - 1), -1);
    EXPECT_EQ(engine->compressSingleStep(random.data(), kGrainSizeBytes, out.data(), 1000), -1);
    EXPECT_EQ(engine->compressSingleStep(text.data(), kGrainSizeBytes, out.data(), 0), -1);

    // Empty input makes a stream that reads back as nothing.
    const int empty = engine->compressSingleStep(nullptr, 0, out.data(), int(out.size()));
    ASSERT_GT(empty, 0);
    EXPECT_EQ(engine->decompressSingleStep(out.data(), empty, nullptr, 0), 0);
}

TEST_P(ISimpleCompressorTest, RefusesTruncatedCorruptAndOversizedStreams) {
    kz::P<kz::ISimpleCompressor> reader = GetParam().make();
    kz::P<kz::ISimpleCompressor> writer(new rcu::CMiniZCompressor(1));
    const Bytes grain = harltest::makeFileSystemLikeData(kGrainSizeBytes, 6);
    Bytes stored = compressPadded(*writer, grain);
    const int n = writer->compressSingleStep(grain.data(), kGrainSizeBytes, stored.data(),
                                             int(stored.size()));
    Bytes out(kGrainSizeBytes);
    for (size_t cut : {size_t(0), size_t(1), size_t(n) / 2, size_t(n) - 1}) {
        expectCorrupt([&] { decompressInto(*reader, stored, cut, out); });
    }
    Bytes small(kGrainSizeBytes - 1);
    expectCorrupt([&] { decompressInto(*reader, stored, stored.size(), small); });

    // A damaged byte is refused, unless it only held bits that the format ignores (as the
    // fill behind a stored block's header does): then the grain reads back unchanged.
    std::mt19937 random(7);
    for (int i = 0; i < 300; ++i) {
        Bytes damaged = stored;
        const size_t at = random() % size_t(n);
        damaged[at] ^= static_cast<unsigned char>(1 + random() % 255);
        try {
            EXPECT_EQ(decompressInto(*reader, damaged, damaged.size(), out), kGrainSizeBytes);
            EXPECT_EQ(out, grain) << "damage at " << at;
        } catch (const kz::CIOError& error) {
            EXPECT_EQ(error.getCode(), kz::CIOError::CorruptFormat);
        }
    }
}

TEST_P(ISimpleCompressorTest, RefusesBadArguments) {
    kz::P<kz::ISimpleCompressor> engine = GetParam().make();
    Bytes buffer(16);
    EXPECT_THROW(engine->compressSingleStep(buffer.data(), -1, buffer.data(), 16),
                 kz::CInvalidArgError);
    EXPECT_THROW(engine->decompressSingleStep(nullptr, 16, buffer.data(), 16),
                 kz::CInvalidArgError);
    EXPECT_THROW(engine->getCompressedSizeUpperBound(-1), kz::CInvalidArgError);
    EXPECT_THROW(engine->getCompressedSizeUpperBound(INT_MAX), kz::CInvalidArgError);
}

INSTANTIATE_TEST_SUITE_P(Engines, ISimpleCompressorTest, testing::ValuesIn(kEngines),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ISimpleCompressorTest, EnginesCheckAndNameTheirLevel) {
    EXPECT_THROW(kz::makeP<pcu::CZLibCompressor>(10), kz::CInvalidArgError);
    EXPECT_THROW(kz::makeP<pcu::CZLibCompressor>(-2), kz::CInvalidArgError);
    EXPECT_THROW(kz::makeP<rcu::CMiniZCompressor>(13), kz::CInvalidArgError);
    EXPECT_EQ(kz::P<pcu::CZLibCompressor>(new pcu::CZLibCompressor(0))->getInternalDesc(),
              "zlib(level=0)");
    EXPECT_EQ(kz::P<rcu::CMiniZCompressor>(new rcu::CMiniZCompressor(-1))->getInternalDesc(),
              "libdeflate(level=6)");
}

}  // namespace
