#include "descriptor/CVMDKExtentInfo.h"

#include <gtest/gtest.h>

namespace {

using harl::CVMDKExtentInfo;

TEST(CVMDKExtentInfoTest, ParsesAndPrintsByTheGrammar) {
    kz::P<CVMDKExtentInfo> extent =
        CVMDKExtentInfo::tryParseDescriptorLine("RW 4192256 SPARSE \"disk-s001.vmdk\"");
    ASSERT_TRUE(extent);
    EXPECT_EQ(extent->getAccess(), "RW");
    EXPECT_EQ(extent->getSizeSectors(), 4192256);
    EXPECT_EQ(extent->getType(), "SPARSE");
    EXPECT_EQ(extent->getFilename(), "disk-s001.vmdk");
    EXPECT_EQ(extent->getOffset(), -1);
    EXPECT_EQ(extent->toString(), "RW 4192256 SPARSE \"disk-s001.vmdk\"");

    // Offset 0 is an offset; several blanks and a carriage return are not kept.
    extent = CVMDKExtentInfo::tryParseDescriptorLine("RW   2048  FLAT   \"flat.vmdk\"   0\r");
    ASSERT_TRUE(extent);
    EXPECT_EQ(extent->getOffset(), 0);
    EXPECT_EQ(extent->toString(), "RW 2048 FLAT \"flat.vmdk\" 0");

    // A name with blanks and "=", an empty name, and an empty access word.
    extent = CVMDKExtentInfo::tryParseDescriptorLine("RDONLY 8 SPARSE \"a b=c.vmdk\"");
    ASSERT_TRUE(extent);
    EXPECT_EQ(extent->getFilename(), "a b=c.vmdk");
    extent = CVMDKExtentInfo::tryParseDescriptorLine(" 8 SPARSE \"\" 17");
    ASSERT_TRUE(extent);
    EXPECT_EQ(extent->getAccess(), "");
    EXPECT_EQ(extent->getFilename(), "");
    EXPECT_EQ(extent->toString(), " 8 SPARSE \"\" 17");

    kz::P<CVMDKExtentInfo> clone = kz::P<CVMDKExtentInfo>::cast(extent->cloneDescriptorEntry());
    ASSERT_TRUE(clone);
    EXPECT_NE(clone, extent);
    EXPECT_EQ(clone->toString(), extent->toString());
    EXPECT_EQ(clone->getOffset(), 17);
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
