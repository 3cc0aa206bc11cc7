#include "harl/foundation/kz/CFaultInjectingFileSystem.h"
#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"
#include "harl/foundation/kz/COptimizingIOStream.h"
#include "harl/foundation/kz/TConstBufferSlice.h"

#include "tests/support/CLogCapture.h"
#include <gtest/gtest.h>

#include <string>

namespace {

using kz::IIOStream;
using kz::P;

const kz::CURI kFile("mem:///disk");

TEST(CFaultInjectingFileSystemTest, FailsTheNamedOperationOnce) {
    P<kz::CMemoryFileSystem> memory(new kz::CMemoryFileSystem);
    P<kz::CFaultInjectingFileSystem> fs(new kz::CFaultInjectingFileSystem(memory.get()));
    fs->failOperation(2, false);
    P<IIOStream> stream = fs->open(kFile, IIOStream::AccessReadWrite, 0);
    EXPECT_FALSE(fs->hasFailed());
    EXPECT_THROW(stream->write("ab", 2, nullptr), kz::CFileSystemError);
    EXPECT_TRUE(fs->hasFailed());
    EXPECT_EQ(stream->getLength(), 0);  // the failed write never reached the file
    stream->write("ab", 2, nullptr);
    EXPECT_EQ(fs->getOperationCount(), 3);
    fs->failOperation(0, kz::CFaultInjectingFileSystem::Fault::Die);  // disarms
    stream->write("cd", 2, nullptr);
}

// What each kind of fault leaves in the file and whether the process goes on.
TEST(CFaultInjectingFileSystemTest, FailsTearsOrDies) {
    using Fault = kz::CFaultInjectingFileSystem::Fault;

    const struct {
        Fault fault;
        bool keepBuffer;
        const char* content;
    } cases[] = {{Fault::Fail, false, "ab"},
                 {Fault::TornWrite, false, "abcde"},
                 {Fault::TornWrite, true, "abcde"},
                 {Fault::Die, false, "ab"}};

    for (const auto& c : cases) {
        P<kz::CMemoryFileSystem> memory(new kz::CMemoryFileSystem);
        P<kz::CFaultInjectingFileSystem> fs(new kz::CFaultInjectingFileSystem(memory.get()));
        P<IIOStream> stream = fs->open(kFile, IIOStream::AccessReadWrite, 0);
        stream->write("ab", 2, nullptr);
        fs->failOperation(1, c.fault);
        const kz::TConstBufferSlice<unsigned char> bytes(
            reinterpret_cast<const unsigned char*>("cdefgh"), 7);
        EXPECT_THROW(c.keepBuffer ? stream->writeKeepBuffer(bytes, nullptr)
                                  : stream->write("cdefgh", 7, nullptr),
                     kz::CFileSystemError);
        EXPECT_TRUE(fs->hasFailed());
        const bool dead = c.fault == Fault::Die;
        if (dead) {
            EXPECT_THROW(stream->flush(), kz::CFileSystemError);
        } else {
            stream->flush();
        }
        auto& content = memory->getFile(kFile)->getContent();
        EXPECT_EQ(std::string(content.getData(), content.getData() + content.getUsed()), c.content);
    }
}

// The pattern of the fault tests: fail each operation of a write path in turn, for good, as a
// power cut does; then check that what was flushed before the failure survived.
TEST(CFaultInjectingFileSystemTest, APowerCutAtEveryStepKeepsFlushedData) {
    const std::string before(100, 'o'), after(100, 'n');
    harltest::CLogCapture log;  // a dropped stream reports the write-back it could not do
    bool completed = false;
    for (int n = 1; !completed; ++n) {
        P<kz::CMemoryFileSystem> memory(new kz::CMemoryFileSystem(true));
        P<kz::CFaultInjectingFileSystem> fs(new kz::CFaultInjectingFileSystem(memory.get()));
        P<IIOStream> setup = memory->open(kFile, IIOStream::AccessReadWrite, 0);
        setup->write(before.data(), 100, nullptr);
        setup->flush();

        fs->failOperation(n, true);
        bool flushedHalf = false;
        try {
            P<kz::COptimizingIOStream> stream(
                new kz::COptimizingIOStream(fs->open(kFile, IIOStream::AccessReadWrite, 0).get()));
            stream->write(after.data(), 50, nullptr);
            stream->flush();
            flushedHalf = true;
            stream->write(after.data() + 50, 50, nullptr);
            stream->close();
            completed = true;
        } catch (const kz::CFileSystemError& error) {
            EXPECT_EQ(error.getMessage(), "Injected fault");
            EXPECT_EQ(error.getProps().get("operation"), kz::String::number(n));
        }
        memory->dropUnflushedWrites();
        auto& bytes = memory->getFile(kFile)->getContent();
        const std::string content(bytes.getData(), bytes.getData() + bytes.getUsed());
        const std::string expected = completed     ? after
                                     : flushedHalf ? after.substr(0, 50) + before.substr(50)
                                                   : before;
        EXPECT_EQ(content, expected) << n;
    }
}

}  // namespace
