#include "harl/descriptor/CVMDKExtentInfo.h"

#include <gtest/gtest.h>

namespace {

using harl::CVMDKExtentInfo;

TEST(CVMDKExtentInfoTest, ParsesAndPrintsByTheGrammar) {
    kz::P<CVMDKExtentInfo> extent =
        CVMDKExtentInfo::tryParseDescriptorLine("RW 4192256 SPARSE \"disk-s001.vmdk\"");
    ASSERT_TRUE(extent);
    EXPECT_EQ(extent->getSizeSectors(), 4192256);
    EXPECT_EQ(extent->getFilename(), "disk-s001.vmdk");
    EXPECT_EQ(extent->getOffset(), -1);
    EXPECT_EQ(extent->toString(), "RW 4192256 SPARSE \"disk-s001.vmdk\"");

    // Offset 0 is an offset; runs of blanks and a final carriage return are not kept; the
    // access word and the file name may be empty.
    for (auto [line, written] : {
             std::pair{"RW   2048  FLAT   \"flat.vmdk\"   0\r", "RW 2048 FLAT \"flat.vmdk\" 0"},
             std::pair{" 8 SPARSE \"\" 17", " 8 SPARSE \"\" 17"},
         }) {
        extent = CVMDKExtentInfo::tryParseDescriptorLine(line);
        ASSERT_TRUE(extent) << line;
        EXPECT_EQ(extent->toString(), written);
        EXPECT_EQ(extent->cloneDescriptorEntry()->toString(), written);
    }
    EXPECT_EQ(extent->getOffset(), 17);
}

TEST(CVMDKExtentInfoTest, RefusesWhatIsNoExtentLine) {
    for (const char* line : {
             "",
             "RW",
             "RW 2048 ZERO",
             "RW 2048 ZERO ",
             "RW 2048 SPARSE x.vmdk",
             "RW 2048 SPARSE \"x.vmdk",
             "RW abc SPARSE \"x.vmdk\"",
             "RW 99999999999999999999 SPARSE \"x.vmdk\"",
             "RW 2048 SPARSE \"x.vmdk\" 1 2",
             "RW 2048 SPARSE \"x\"y.vmdk\"",
             "RW\t2048\tSPARSE\t\"x.vmdk\"",
         }) {
        EXPECT_FALSE(CVMDKExtentInfo::tryParseDescriptorLine(line)) << line;
    }
}

}  // namespace
