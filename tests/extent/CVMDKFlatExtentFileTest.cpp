#include "harl/extent/CVMDKFlatExtentFile.h"
#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"

#include "tests/support/SampleData.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <cstring>

namespace {

using namespace harl;

constexpr long long kSector = 512;
// Grains of 2 sectors over an extent of 7 sectors that starts at sector 3 of a file of 12.
constexpr long long kOffsetSectors = 3;
constexpr long long kGrainSectors = 2;
constexpr long long kSizeSectors = 7;

// The extent's bytes, byte reads and prepared grains (plain and compressed) come from its range
// of the file and nowhere else; a file too short for the range is refused, and so is a change.
TEST(CVMDKFlatExtentFileTest, ReadsItsRangeOfTheFileAndNothingElse) {
    const harltest::Bytes bytes = harltest::makeTextLikeData(12 * kSector, 9);
    kz::TBuffer<unsigned char> content;
    content.assign(bytes.data(), bytes.size());
    kz::P<kz::CBufferStream> file(new kz::CBufferStream(content, kz::CURI("file:///x-flat.vmdk")));
    const unsigned char* range = bytes.data() + kOffsetSectors * kSector;
    for (bool compressed : {false, true}) {
        kz::P<CVMDKFlatExtentFile> extent = kz::makeP<CVMDKFlatExtentFile>(
            file.get(), kOffsetSectors, 5, kGrainSectors, kSizeSectors, compressed, 1);
        std::vector<unsigned char> read(kSizeSectors * kSector);
        extent->seek(100);
        extent->read(read.data(), static_cast<int>(read.size()) - 100);
        EXPECT_EQ(0, std::memcmp(read.data(), range + 100, read.size() - 100));

        extent->seek(2 * kGrainSectors * kSector);
        kz::TBuffer<unsigned char> prepared;
        extent->readPreparedGrainData(prepared);
        EXPECT_EQ(extent->getPosition(), 3 * kGrainSectors * kSector);
        kz::P<kz::TBuffer<unsigned char>> source(new kz::TBuffer<unsigned char>(prepared));
        kz::P<kz::TBuffer<unsigned char>> plain(new kz::TBuffer<unsigned char>);
        kz::P<kz::TBuffer<unsigned char>> grain =
            extent->createDataPreparer()->unprepareGrainData(source.get(), plain.get());
        EXPECT_EQ(0, std::memcmp(grain->getData(), range + 2 * kGrainSectors * kSector,
                                 kGrainSectors * kSector));
        if (compressed) {
            // The lba of disk grain 5 + 2.
            EXPECT_EQ(prepared[0], 7 * kGrainSectors);
        }
        // The last grain is cut by the extent's end: only its bytes can be read.
        extent->seek(6 * kSector);
        EXPECT_EQ(
            harltest::thrownText<kz::CIOError>([&] { extent->readPreparedGrainData(prepared); }),
            "3 Prepared grain read exceeds VMDK extent size. [uri=file:///x-flat.vmdk, "
            "position=3072, grainSize=1024, extentSize=3584]");
        EXPECT_EQ(harltest::thrownText<kz::CError>([&] { extent->write(read.data(), 1); }),
                  "-1 Internal error: write method called on read-only VMDK extent file. "
                  "[uri=file:///x-flat.vmdk]");
        extent->seek(kSizeSectors * kSector);  // the end itself is a position
        EXPECT_EQ(harltest::thrownText<kz::CInvalidArgError>([&] { extent->seek(-1); }),
                  "-1 CVMDKReadOnlyExtentFile::seek: Invalid position: -1 "
                  "[uri=file:///x-flat.vmdk]");
    }
    EXPECT_EQ(harltest::thrownText<kz::CIOError>([&] {
                  kz::makeP<CVMDKFlatExtentFile>(file.get(), 6, 0, kGrainSectors, kSizeSectors,
                                                 false, 1);
              }),
              "5 VMDK flat extent file is shorter than its extent. [uri=file:///x-flat.vmdk, "
              "offsetSectors=6, sizeSectors=7, fileSize=6144]");
}

}  // namespace
