#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/grain/CVMDKDataPreparer.h"

#include "tests/support/SampleData.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

namespace {

using harl::CVMDKDataPreparer;
using Buffer = kz::TBuffer<unsigned char>;

constexpr long long kGrainSectors = 128;
constexpr size_t kGrainBytes = 65536;

kz::P<Buffer> bufferOf(const std::vector<unsigned char>& bytes) {
    kz::P<Buffer> buffer(new Buffer);
    buffer->assign(bytes.data(), bytes.size());
    return buffer;
}

unsigned long long readLE(const unsigned char* bytes, int count) {
    unsigned long long value = 0;
    for (int i = count - 1; i >= 0; --i) {
        value = value << 8 | bytes[i];
    }
    return value;
}

TEST(CVMDKDataPreparerTest, RefusesMissingBuffersAndOversizedSources) {
    kz::P<CVMDKDataPreparer> preparer(new CVMDKDataPreparer(kGrainSectors, true, 1));
    kz::P<Buffer> aux(new Buffer);
    kz::P<Buffer> exact(new Buffer(kGrainBytes));
    exact->fill(0);
    EXPECT_NO_THROW(preparer->prepareGrainData(exact.get(), 0, aux.get()));
    kz::P<Buffer> tooLong(new Buffer(kGrainBytes + 1));
    kz::P<CVMDKDataPreparer> plain(new CVMDKDataPreparer(kGrainSectors, false, 1));
    const std::string where = "-1 CVMDKDataPreparer::prepareGrainData: ";
    for (const auto& [call, message] : std::vector<std::pair<std::function<void()>, std::string>>{
             {[&] { preparer->prepareGrainData(tooLong.get(), 0, aux.get()); },
              "source buffer is bigger than grain size (65537)."},
             {[&] { preparer->prepareGrainData(nullptr, 0, nullptr); },
              "pSourceBuffer must not be NULL"},
             {[&] { plain->prepareGrainData(exact.get(), 0, nullptr); },
              "pAuxBuffer must not be NULL"}}) {
        EXPECT_EQ(harltest::thrownText<kz::CInvalidArgError>(call), where + message);
    }
}

// A prepared grain is its index, the size of its compressed data, the data and zeros to the
// end of the sector; it unprepares to the whole grain, zeros behind a short source. Cut short,
// it is a format error.
TEST(CVMDKDataPreparerTest, PreparedGrainHasHeaderDataAndSectorFill) {
    kz::P<CVMDKDataPreparer> preparer(new CVMDKDataPreparer(kGrainSectors, true, -1));
    EXPECT_TRUE(preparer->doesAnything());
    EXPECT_GT(preparer->getWorstCaseGrainSizeSectors(), kGrainSectors);
    const auto grain = harltest::makeFileSystemLikeData(kGrainBytes, 4);
    kz::P<Buffer> source = bufferOf(grain);
    kz::P<Buffer> prepared(new Buffer);
    ASSERT_EQ(preparer->prepareGrainData(source.get(), 1, prepared.get()), prepared);

    const unsigned char* bytes = prepared->getData();
    EXPECT_EQ(readLE(bytes, 8), static_cast<unsigned long long>(kGrainSectors));
    const size_t size = readLE(bytes + 8, 4);
    const size_t padded = (12 + size + 511) / 512 * 512;
    EXPECT_EQ(prepared->getUsed(), padded);
    for (size_t i = 12 + size; i < padded; ++i) {
        ASSERT_EQ(bytes[i], 0) << i;
    }

    kz::P<Buffer> plain(new Buffer(kGrainBytes));
    plain->fill(0xee);
    ASSERT_EQ(preparer->unprepareGrainData(prepared.get(), plain.get()), plain);
    EXPECT_EQ(std::vector<unsigned char>(plain->getData(), plain->getData() + plain->getUsed()),
              grain);
    for (size_t cut : {200, 5}) {  // inside the compressed stream, inside the header
        prepared->setUsed(cut);
        EXPECT_EQ(harltest::thrownText<kz::CIOError>(
                      [&] { preparer->unprepareGrainData(prepared.get(), plain.get()); })[0],
                  '5');
    }

    source->setUsed(1000);
    preparer->prepareGrainData(source.get(), 1, prepared.get());
    plain->fill(0xee);
    preparer->unprepareGrainData(prepared.get(), plain.get());
    EXPECT_EQ(plain->getUsed(), kGrainBytes);
    EXPECT_EQ((*plain)[999], grain[999]);
    EXPECT_EQ((*plain)[1000] | (*plain)[kGrainBytes - 1], 0);
}

}  // namespace
