#include "foundation/kz/CLocalFileSystem.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/CScratchFolder.h"

namespace {

using kz::CFileSystemError;
using kz::IIOStream;

template <class F>
CFileSystemError failureOf(F call) {
    try {
        call();
    } catch (const CFileSystemError& error) {
        return error;
    }
    ADD_FAILURE() << "no CFileSystemError";
    return CFileSystemError(CFileSystemError::Other, kz::CError("none"));
}

TEST(CLocalFileSystemTest, TakesOnlyLocalFileURIsWithTheirDecodedPath) {
    harltest::CScratchFolder folder;
    kz::P<kz::IFileSystem> fs(new kz::CLocalFileSystem);
    for (const char* text : {"http://host/x", "file://elsewhere/tmp/x", "x.vmdk", "file:x"}) {
        EXPECT_EQ(failureOf([&] { fs->exists(kz::CURI(text)); }).getProblem(),
                  CFileSystemError::Unsupported)
            << text;
    }
    const kz::CURI spaced(kz::String("file://localhost" + folder.getPath() + "/a%20b%C3%A4"));
    fs->open(spaced, IIOStream::AccessReadWrite, 0)->write("x", 1, nullptr);
    EXPECT_TRUE(std::filesystem::exists(folder.file("a b\xC3\xA4")));
    EXPECT_TRUE(fs->exists(spaced));
}

TEST(CLocalFileSystemTest, ReportsTheSystemsErrorWithTheURI) {
    harltest::CScratchFolder folder;
    kz::P<kz::IFileSystem> fs(new kz::CLocalFileSystem);

    const kz::CURI missing = folder.uriOf("no/such.vmdk");
    const CFileSystemError notFound =
        failureOf([&] { fs->open(missing, IIOStream::AccessReadWrite, 0); });
    EXPECT_EQ(notFound.getProblem(), CFileSystemError::NotFound);
    EXPECT_EQ(notFound.getMessage(), "Cannot open file");
    EXPECT_EQ(notFound.getCode(), ENOENT);
    EXPECT_FALSE(notFound.getDetail().isEmpty());
    EXPECT_EQ(notFound.getProps().get("uri"), missing.toString(true));

    const CFileSystemError folderError = failureOf([&] {
        fs->open(kz::CURI(kz::String("file://" + folder.getPath())), IIOStream::AccessRead, 0);
    });
    EXPECT_EQ(folderError.getCode(), EISDIR);

    if (::geteuid() != 0) {  // root may write anything
        fs->open(folder.uriOf("ro"), IIOStream::AccessReadWrite, 0);
        ::chmod(folder.file("ro").c_str(), 0444);
        EXPECT_EQ(failureOf([&] {
                      fs->open(folder.uriOf("ro"), IIOStream::AccessReadWrite, 0);
                  }).getProblem(),
                  CFileSystemError::AccessDenied);
    }
}

}  // namespace
