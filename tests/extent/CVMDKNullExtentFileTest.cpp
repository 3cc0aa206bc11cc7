#include "harl/extent/CVMDKNullExtentFile.h"
#include "harl/foundation/kz/CInvalidArgError.h"

#include "tests/support/CRecordingDataProvider.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <tuple>

namespace {

using harl::CVMDKNullExtentFile;
using harltest::CRecordingDataProvider;
using harltest::thrownText;
using Calls = std::vector<std::string>;

// Grains of 1024 bytes; 2560 bytes from disk grain 3, so the last grain is cut and the extent
// covers disk bytes 3072 to 5631.
class CVMDKNullExtentFileTest : public ::testing::Test {
protected:
    kz::P<CRecordingDataProvider> provider{new CRecordingDataProvider};
    kz::P<CVMDKNullExtentFile> extent{new CVMDKNullExtentFile(
        kz::CURI("file:///d/a%20hole.vmdk"), 3, 2, 5, 512, true, 6, provider.get())};
    const std::string uri = "[uri=file:///d/a hole.vmdk";
};

// Reads, plain and prepared, ask the provider at disk positions; without one the extent is an
// empty hole whose prepared grains are the zero grain of each index.
TEST_F(CVMDKNullExtentFileTest, AsksTheProviderAtDiskPositionsOrAnswersAsAnEmptyHole) {
    unsigned char buffer[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    provider->writtenGrains = {4096};
    extent->seek(1500);
    extent->read(buffer, 4);
    extent->read(buffer, 0);
    EXPECT_TRUE(extent->isGrainWritten());
    extent->seek(1023);
    EXPECT_FALSE(extent->isGrainWritten());
    EXPECT_FALSE(extent->isGrainWrittenAndIndependentOfParent());
    kz::TBuffer<unsigned char> first, second, again;
    extent->seek(1024);
    extent->readPreparedGrainData(first);
    EXPECT_EQ(extent->getPosition(), 2048);
    EXPECT_EQ(provider->calls, (Calls{"getData 4572 4", "getData 4576 0", "isGrainWritten 4096",
                                      "isGrainWritten 3072", "getPrepared 4096 1024 compressed"}));

    extent->setFallbackDataProvider(nullptr);
    extent->seek(1023);
    extent->read(buffer, 0);
    EXPECT_EQ(buffer[0], CRecordingDataProvider::patternAt(4572));
    extent->read(buffer, 8);
    EXPECT_EQ(buffer[0] | buffer[7], 0);
    EXPECT_EQ(extent->getPosition(), 1031);
    EXPECT_FALSE(extent->isGrainWritten());
    const auto space = extent->gatherSpaceInfo();
    EXPECT_EQ(space->getPayloadSize() | space->getPayloadSizeInFile() | space->getHeaderSize() |
                  space->getDeadSpaceSize(),
              0);
    extent->seek(0);
    extent->readPreparedGrainData(first);
    extent->readPreparedGrainData(second);
    extent->seek(0);
    extent->readPreparedGrainData(again);
    EXPECT_EQ(first, again);
    EXPECT_EQ(first[0], 6);  // lba: 2 sectors x disk grain 3
    EXPECT_EQ(second[0], 8);
    EXPECT_EQ(std::memcmp(first.getData() + 1, second.getData() + 1, first.getUsed() - 1), 0);
    EXPECT_TRUE(extent->createDataPreparer()->doesAnything());
    kz::P<kz::TBuffer<unsigned char>> held(new kz::TBuffer<unsigned char>(second));
    kz::P<kz::TBuffer<unsigned char>> plain(new kz::TBuffer<unsigned char>);
    extent->createDataPreparer()->unprepareGrainData(held.get(), plain.get());
    ASSERT_EQ(plain->getUsed(), 1024u);
    EXPECT_TRUE(std::all_of(plain->getData(), plain->getData() + 1024, [](int b) { return !b; }));
    EXPECT_EQ(provider->calls.size(), 5u);

    kz::P<CVMDKNullExtentFile> uncompressed(
        new CVMDKNullExtentFile(kz::CURI(), 0, 2, 4, 512, false, 6, nullptr));
    uncompressed->readPreparedGrainData(first);
    EXPECT_EQ(first.getUsed(), 1024u);
    EXPECT_EQ(first[0] | first[1023], 0);
}

// Reads past the end, prepared reads of the cut last grain, off a boundary or from a failing
// provider (the size test first, the position kept), changes and bad geometries: each fails
// with its own error.
TEST_F(CVMDKNullExtentFileTest, BoundsAndChangesFailWithTheirErrors) {
    unsigned char byte = 0;
    kz::TBuffer<unsigned char> data;
    extent->seek(2560);
    extent->read(&byte, 0);
    EXPECT_EQ(thrownText<kz::CIOError>([&] { extent->read(&byte, 1); }),
              "4 Unexpected end of data reading from VMDK null extent file. " + uri +
                  ", position=2560, bytesToRead=1]");
    EXPECT_EQ(thrownText<kz::CInvalidArgError>([&] { extent->seek(2561); }),
              "-1 CVMDKNullExtentFile::seek: Invalid position: 2561 " + uri + "]");
    EXPECT_EQ(extent->getPosition(), 2560);
    for (long long at : {2048LL, 2560LL}) {
        extent->seek(at);
        EXPECT_EQ(thrownText<kz::CIOError>([&] { extent->readPreparedGrainData(data); }),
                  "3 Prepared grain read exceeds VMDK extent size. " + uri +
                      ", position=" + std::to_string(at) + ", grainSize=1024, extentSize=2560]");
    }
    extent->seek(512);
    EXPECT_EQ(thrownText<kz::CIOError>([&] { extent->readPreparedGrainData(data); }),
              "11 Prepared grain read in VMDK extent file can only be done on a grain boundary. " +
                  uri + ", position=512, grainSize=1024]");
    provider->failingCall = 1;  // the read of nothing above was the first
    extent->seek(0);
    EXPECT_EQ(thrownText<kz::CIOError>([&] { extent->readPreparedGrainData(data); }),
              "5 Parent data unreadable.");
    EXPECT_EQ(extent->getPosition(), 0);

    const std::string refused = " method called on VMDK null extent file. " + uri + "]";
    EXPECT_EQ(thrownText<kz::CError>([&] { extent->write(&byte, 1); }),
              "-1 Internal error: write" + refused);
    EXPECT_EQ(thrownText<kz::CError>(
                  [&] { extent->writePreparedGrainData(kz::TBuffer<unsigned char>()); }),
              "-1 Internal error: writePreparedGrainData" + refused);
    EXPECT_EQ(thrownText<kz::CError>([&] { extent->makeGrainIndependentOfParent(0); }),
              "-1 Internal error: makeGrainIndependentOfParent" + refused);
    // Grains must fit an int and disk positions a long long.
    for (const auto& geometry : {std::tuple{0LL, (1LL << 22) - 1, 1LL},
                                 {0, 1LL << 22, 1},
                                 {1LL << 46, 128, 1LL << 53},
                                 {0, 128, 1LL << 54},
                                 {-1, 128, 1},
                                 {0, 0, 1}}) {
        const long long start = std::get<0>(geometry);
        const long long grain = std::get<1>(geometry);
        const long long size = std::get<2>(geometry);
        const std::string thrown = thrownText<kz::CInvalidArgError>([&] {
            CVMDKNullExtentFile(kz::CURI("file:///d/a%20hole.vmdk"), start, grain, size, 512, 0, 0,
                                nullptr);
        });
        const std::string expected =
            grain == (1LL << 22) - 1
                ? "nothing thrown"
                : "-1 CVMDKNullExtentFile::CVMDKNullExtentFile: Invalid VMDK null extent "
                  "geometry. " +
                      uri + ", startGrainIndex=" + std::to_string(start) + ",";
        EXPECT_EQ(thrown.substr(0, expected.size()), expected) << grain << " " << size;
    }
}

}  // namespace
