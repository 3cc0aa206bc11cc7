#include "harl/foundation/kz/CLocalFileSystem.h"

#include "tests/support/CScratchFolder.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <filesystem>

namespace {

using harltest::thrownText;
using kz::IIOStream;

TEST(CLocalFileSystemTest, TakesOnlyLocalFileURIsWithTheirDecodedPath) {
    harltest::CScratchFolder folder;
    kz::P<kz::IFileSystem> fs(new kz::CLocalFileSystem);
    EXPECT_EQ(thrownText<kz::CFileSystemError>([&] { fs->exists(kz::CURI("http://h/x%20y")); }),
              "-1 File system error 6: The local file system cannot reach this URI: not a "
              "\"file:\" URI [uri=http://h/x y]");
    for (const char* text : {"file://elsewhere/tmp/x", "x.vmdk", "file:x"}) {
        EXPECT_EQ(thrownText<kz::CFileSystemError>([&] {
                      fs->exists(kz::CURI(text));
                  }).find("-1 File system error 6: "),
                  0u)
            << text;
    }
    const kz::CURI spaced(kz::String("file://localhost" + folder.getPath() + "/a%20b%C3%A4"));
    fs->open(spaced, IIOStream::AccessReadWrite, 0)->write("x", 1, nullptr);
    EXPECT_TRUE(std::filesystem::exists(folder.file("a b\xC3\xA4")));
    EXPECT_TRUE(fs->exists(spaced));
    // A stream that is let go closes its file.
    const auto openFiles = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = openFiles();
    fs->open(spaced, IIOStream::AccessRead, 0);
    EXPECT_EQ(openFiles(), before);
}

TEST(CLocalFileSystemTest, ReportsTheSystemsErrorWithTheURI) {
    harltest::CScratchFolder folder;
    kz::P<kz::IFileSystem> fs(new kz::CLocalFileSystem);
    const kz::CURI missing = folder.uriOf("no/such.vmdk");
    EXPECT_EQ(
        thrownText<kz::CFileSystemError>([&] { fs->open(missing, IIOStream::AccessReadWrite, 0); }),
        "2 File system error 1: Cannot open file (No such file or directory) [uri=" +
            missing.toString(true).toUTF8() + "]");
    const kz::CURI self(kz::String("file://" + folder.getPath()));
    EXPECT_EQ(thrownText<kz::CFileSystemError>([&] {
                  fs->open(self, IIOStream::AccessRead, 0);
              }).find("21 File system error 0: Cannot open file (Is a directory)"),
              0u);
}

}  // namespace
