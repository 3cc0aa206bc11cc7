#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CLocalFileSystem.h"
#include "harl/foundation/kz/CLockFile.h"
#include "harl/foundation/kz/CLockFileError.h"
#include "harl/foundation/kz/CLockHolder.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"

#include "tests/support/CScratchFolder.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using kz::CLockFile;
using kz::P;

// What taking the lock throws, as "<code> <what()>".
std::string lockError(kz::IFileSystem* fs, const kz::CURI& uri, int type) {
    return harltest::thrownText<kz::CLockFileError>(
        [&] { P<CLockFile>(new CLockFile(fs, uri, type)); });
}

// Forks a process that takes the lock and lets it go: 0 when it got it, 1 on CLockFileError.
int lockInChild(const kz::CURI& uri, int type) {
    const pid_t child = ::fork();
    if (child == 0) {
        int status = 0;
        try {
            P<CLockFile> lock(new CLockFile(new kz::CLocalFileSystem, uri, type));
        } catch (const kz::CLockFileError&) {
            status = 1;
        } catch (...) {
            status = 2;
        }
        ::_exit(status);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(CLockFileTest, ReadersShareAndAWriterExcludes) {
    P<kz::CMemoryFileSystem> fs(new kz::CMemoryFileSystem);
    const kz::CURI uri("mem:///disk.vmdk.lock");
    P<CLockFile> first(new CLockFile(fs.get(), uri, 1));
    P<CLockFile> second(new CLockFile(fs.get(), uri, 1));
    const std::string held =
        "-1 Cannot take the lock file: another user holds it [uri=" + uri.toString(true).toUTF8() +
        ", type=";
    EXPECT_EQ(lockError(fs.get(), uri, 2), held + "2]");
    first.reset();
    EXPECT_TRUE(fs->exists(uri));
    second.reset();  // the file goes with the last holder
    EXPECT_FALSE(fs->exists(uri));

    P<CLockFile> writer(new CLockFile(fs.get(), uri, 2, true));
    EXPECT_EQ(lockError(fs.get(), uri, 1), held + "1]");
    // The writer is named in the error, for the refused user to see.
    try {
        CLockFile refused(fs.get(), uri, 1);
        ADD_FAILURE();
    } catch (const kz::CLockFileError& e) {
        ASSERT_TRUE(e.getLockHolder());
        EXPECT_EQ(e.getLockHolder()->getProcessID(), ::getpid());
    }
    writer.reset();
    EXPECT_TRUE(fs->exists(uri));  // kept on request, with the record of a writer now gone
    P<CLockFile> reader(new CLockFile(fs.get(), uri, 1, true));
    EXPECT_EQ(fs->open(uri, kz::IIOStream::AccessRead, 0)->getLength(),
              0);  // the reader cleared it
    reader.reset();
    fs->deleteFile(uri, false);
    EXPECT_THROW(CLockFile(fs.get(), uri, 1, false, false), kz::CLockFileError);
    EXPECT_FALSE(fs->exists(uri));
    EXPECT_THROW(CLockFile(fs.get(), uri, 3), kz::CInvalidArgError);
}

// A writer's record names its process (1 is a process too, the first of a container) and host;
// anything else names nobody.
TEST(CLockFileTest, ReadsTheRecordOfAWriterAndNothingElse) {
    const kz::CURI uri("mem:///disk.vmdk.lock");
    const P<kz::CLockHolder> first = kz::CLockHolder::parse(uri, "pid=1\nhost=box\n");
    ASSERT_TRUE(first);
    EXPECT_EQ(first->getProcessID(), 1);
    EXPECT_EQ(first->getHostName(), "box");
    for (const char* record : {"", "pid=0\nhost=box\n", "pid=x\nhost=box\n", "host=box\n"}) {
        EXPECT_FALSE(kz::CLockHolder::parse(uri, record)) << record;
    }
}

TEST(CLockFileTest, OnAReadOnlyMediumOnlyReadersOfAnExistingFileLock) {
    P<kz::CMemoryFileSystem> fs(new kz::CMemoryFileSystem);
    const kz::CURI uri("mem:///disk.vmdk.lock");
    fs->open(uri, kz::IIOStream::AccessReadWrite, 0);
    fs->setReadOnly(true);
    P<CLockFile> reader(new CLockFile(fs.get(), uri, 1));
    EXPECT_EQ(lockError(fs.get(), uri, 2).find("-1 Cannot open the lock file [uri="), 0u);
    EXPECT_NE(lockError(fs.get(), kz::CURI("mem:///other"), 1).find("read-only"),
              std::string::npos);
    reader.reset();
    EXPECT_TRUE(fs->exists(uri));
}

TEST(CLockFileTest, ContendsWithAnotherProcess) {
    harltest::CScratchFolder folder;
    const kz::CURI uri = folder.uriOf("disk.vmdk.lock");
    P<kz::IFileSystem> fs(new kz::CLocalFileSystem);
    P<CLockFile> reader(new CLockFile(fs.get(), uri, 1));
    EXPECT_EQ(lockInChild(uri, 1), 0);
    EXPECT_EQ(lockInChild(uri, 2), 1);
    EXPECT_TRUE(fs->exists(uri));  // the child left the file to the parent
    reader.reset();
    EXPECT_FALSE(fs->exists(uri));

    P<CLockFile> writer(new CLockFile(fs.get(), uri, 2));
    EXPECT_EQ(lockInChild(uri, 1), 1);
    writer.reset();
    EXPECT_EQ(lockInChild(uri, 2), 0);
    EXPECT_FALSE(fs->exists(uri));
}

}  // namespace
