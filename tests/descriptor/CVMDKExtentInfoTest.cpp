#include "harl/descriptor/CVMDKExtentInfo.h"

#include <gtest/gtest.h>

namespace {

using harl::CVMDKExtentInfo;

// Offset 0 is an offset; runs of blanks and a final carriage return are not kept; the access
// word and the file name may be empty. Anything else is no extent line (null written form).
TEST(CVMDKExtentInfoTest, ParsesAndPrintsByTheGrammarAndRefusesTheRest) {
    for (auto [line, written] : std::vector<std::pair<const char*, const char*>>{
             {"RW 4192256 SPARSE \"disk-s001.vmdk\"", "RW 4192256 SPARSE \"disk-s001.vmdk\""},
             {"RW   2048  FLAT   \"flat.vmdk\"   0\r", "RW 2048 FLAT \"flat.vmdk\" 0"},
             {" 8 SPARSE \"\" 17", " 8 SPARSE \"\" 17"},
             {"", nullptr},
             {"RW", nullptr},
             {"RW 2048 ZERO", nullptr},
             {"RW 2048 ZERO ", nullptr},
             {"RW 2048 SPARSE x.vmdk", nullptr},
             {"RW 2048 SPARSE \"x.vmdk", nullptr},
             {"RW abc SPARSE \"x.vmdk\"", nullptr},
             {"RW 99999999999999999999 SPARSE \"x.vmdk\"", nullptr},
             {"RW 2048 SPARSE \"x.vmdk\" 1 2", nullptr},
             {"RW 2048 SPARSE \"x\"y.vmdk\"", nullptr},
             {"RW\t2048\tSPARSE\t\"x.vmdk\"", nullptr},
         }) {
        const kz::P<CVMDKExtentInfo> extent = CVMDKExtentInfo::tryParseDescriptorLine(line);
        ASSERT_EQ(bool(extent), written != nullptr) << line;
        if (extent) {
            EXPECT_EQ(extent->toString(), written);
            EXPECT_EQ(extent->cloneDescriptorEntry()->toString(), written);
        }
    }
    const kz::P<CVMDKExtentInfo> extent =
        CVMDKExtentInfo::tryParseDescriptorLine("RW 4 FLAT \"f\" 17");
    EXPECT_EQ(extent->getSizeSectors(), 4);
    EXPECT_EQ(extent->getFilename(), "f");
    EXPECT_EQ(extent->getOffset(), 17);
    EXPECT_EQ(CVMDKExtentInfo::tryParseDescriptorLine("RW 4 FLAT \"f\"")->getOffset(), -1);
}

}  // namespace
