#include "harl/foundation/kz/CBadPathError.h"
#include "harl/foundation/kz/TPathImpl.h"

#include <gtest/gtest.h>

namespace {

using kz::String;

using WinPath = kz::TPathImpl<kz::CWindowsPathTraits>;
using UnixPath = kz::TPathImpl<kz::CUnixPathTraits>;
using Components = std::vector<String>;

TEST(TPathImplTest, FindsRootsAndComponents) {
    struct Case {
        const char* text;
        const char* root;
        Components components;
    };

    const Case windows[] = {
        {"C:\\a\\b", "C:\\", {"a", "b"}},
        {"C:a", "C:", {"a"}},
        {"\\\\host\\share\\x\\", "\\\\host\\share\\", {"x"}},
        {"\\\\?\\UNC\\host\\share\\x", "\\\\?\\UNC\\host\\share\\", {"x"}},
        {"\\\\?\\C:\\x", "\\\\?\\C:\\", {"x"}},
        {"\\a", "\\", {"a"}},
        {"a\\b", "", {"a", "b"}},
    };
    for (const Case& c : windows) {
        const WinPath path(c.text);
        EXPECT_EQ(path.getRoot(), c.root) << c.text;
        EXPECT_EQ(path.isAbsolute(), *c.root != '\0') << c.text;
        EXPECT_EQ(path.getComponents(), c.components) << c.text;
    }
    int rootLength = -1;
    EXPECT_EQ(kz::CWindowsPathTraits::getRootLength("C:\\a", rootLength), 3);
    EXPECT_EQ(rootLength, 3);
    EXPECT_EQ(kz::CWindowsPathTraits::getRootLength("a\\b", rootLength), -1);
    EXPECT_EQ(rootLength, 0);

    const UnixPath unix("/a//b\\c/");
    EXPECT_TRUE(unix.isAbsolute());
    EXPECT_EQ(unix.getRoot(), "/");
    EXPECT_EQ(unix.getComponents(), (Components{"a", "b\\c"}));
    EXPECT_TRUE(unix.hasTrailingSeparator());
    EXPECT_FALSE(UnixPath("a/b").isAbsolute());
    EXPECT_FALSE(UnixPath("/").hasTrailingSeparator());
}

TEST(TPathImplTest, NormalizesWindowsPathsThatNeedIt) {
    const std::pair<const char*, const char*> cases[] = {
        {"C:\\a\\b", "C:\\a\\b"},  // already valid: kept as it is
        {"C:\\a\\b\\", "C:\\a\\b\\"},
        {"c:/a/./b/../c", "C:\\a\\c"},
        {"C:\\a\\\\\\b", "C:\\a\\b"},
        {"C:\\name. \\x..", "C:\\name\\x"},
        {"C:a\\..\\b", "C:\\b"},
        {"\\\\host\\share\\a\\..\\b", "\\\\host\\share\\b"},
        {"\\\\?\\c:\\a\\..\\b", "\\\\?\\c:\\a\\..\\b"},  // literal: never normalized
        {"a\\..\\..\\b", "..\\b"},
        {"..\\..\\disk.vmdk", "..\\..\\disk.vmdk"},
        {"a\\..", "."},
        {"", ""},
    };
    for (const auto& [text, normalized] : cases) {
        EXPECT_EQ(WinPath(text).toString(), normalized) << text;
    }
    EXPECT_FALSE(kz::CWindowsPathTraits::pathNeedsToBeNormalizedToBeValid("C:\\a\\b\\"));
    EXPECT_TRUE(kz::CWindowsPathTraits::pathNeedsToBeNormalizedToBeValid("a\\b "));
    EXPECT_TRUE(kz::CWindowsPathTraits::pathNeedsToBeNormalizedToBeValid("ab?/c"));
}

TEST(TPathImplTest, RefusesDotDotAboveTheRoot) {
    for (const char* text :
         {"C:\\..\\disk.vmdk", "C:/a/../../x", "\\\\host\\share\\..\\x", "\\..\\x"}) {
        try {
            WinPath path(text);
            ADD_FAILURE() << "accepted " << text;
        } catch (const kz::CBadPathError& e) {
            EXPECT_EQ(e.getMessage(), "Invalid path: " + String(text));
            EXPECT_TRUE(e.getDetail().isEmpty());
            EXPECT_EQ(e.getCode(), -1);
            EXPECT_TRUE(e.getProps().isEmpty());
            EXPECT_EQ(e.getCause(), nullptr);
        }
    }
    EXPECT_NO_THROW(WinPath("..\\..\\disk.vmdk"));
}

TEST(TPathImplTest, TakesUnixPathsAsTheyAreUntilAskedToNormalize) {
    const UnixPath path("/a/./b/../c");
    EXPECT_EQ(path.toString(), "/a/./b/../c");
    EXPECT_EQ(path.toNormalized().toString(), "/a/c");
    EXPECT_THROW(UnixPath("/..").toNormalized(), kz::CBadPathError);
}

}  // namespace
