#include "foundation/kz/CMemoryFileSystem.h"

#include <gtest/gtest.h>

#include <string>

#include "foundation/kz/CFileSystemError.h"

namespace {

using kz::IIOStream;
using kz::P;

std::string contentOf(kz::CMemoryFileSystem& fs, const char* uri) {
    auto& bytes = fs.getFile(kz::CURI(uri))->getContent();
    return std::string(bytes.getData(), bytes.getData() + bytes.getUsed());
}

TEST(CMemoryFileSystemTest, APowerCutKeepsWhatWasFlushed) {
    P<kz::CMemoryFileSystem> fs(new kz::CMemoryFileSystem(true));
    P<IIOStream> a = fs->open(kz::CURI("mem:///d/a"), IIOStream::AccessReadWrite, 0);
    a->write("abc", 3, nullptr);
    a->flush();
    a->write("def", 3, nullptr);
    a->lockRange(0, 1, kz::IStreamBase::LockExclusive);
    fs->open(kz::CURI("mem:///d/b"), IIOStream::AccessReadWrite, 0)->write("xyz", 3, nullptr);
    // One file under two spellings of its URI.
    EXPECT_EQ(contentOf(*fs, "mem:///d/./a"), "abcdef");

    a.reset();
    fs->dropUnflushedWrites();
    EXPECT_EQ(contentOf(*fs, "mem:///d/a"), "abc");
    EXPECT_EQ(contentOf(*fs, "mem:///d/b"), "");
    P<IIOStream> again = fs->open(kz::CURI("mem:///d/a"), IIOStream::AccessReadWrite, 0);
    EXPECT_TRUE(again->lockRange(0, 1, kz::IStreamBase::LockExclusive));

    P<kz::CMemoryFileSystem> plain(new kz::CMemoryFileSystem);
    EXPECT_THROW(plain->dropUnflushedWrites(), kz::CError);
}

TEST(CMemoryFileSystemTest, AReadOnlyMediumRefusesChanges) {
    P<kz::CMemoryFileSystem> fs(new kz::CMemoryFileSystem);
    const kz::CURI uri("mem:///a");
    fs->open(uri, IIOStream::AccessReadWrite, 0)->write("abc", 3, nullptr);
    fs->setReadOnly(true);
    EXPECT_EQ(fs->open(uri, IIOStream::AccessRead, 0)->getLength(), 3);
    for (auto change :
         {+[](kz::IFileSystem& f) { f.open(kz::CURI("mem:///a"), IIOStream::AccessReadWrite, 0); },
          +[](kz::IFileSystem& f) { f.deleteFile(kz::CURI("mem:///a"), true); }}) {
        try {
            change(*fs);
            ADD_FAILURE() << "changed a read-only medium";
        } catch (const kz::CFileSystemError& error) {
            EXPECT_EQ(error.getProblem(), kz::CFileSystemError::AccessDenied);
        }
    }
    fs->deleteFile(kz::CURI("mem:///missing"), true);
    EXPECT_TRUE(fs->exists(uri));
}

}  // namespace
