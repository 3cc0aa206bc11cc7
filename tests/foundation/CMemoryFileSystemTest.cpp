#include "harl/foundation/kz/CMemoryFileSystem.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

using kz::IIOStream;

std::string contentOf(kz::CMemoryFileSystem& fs, const char* uri) {
    auto& bytes = fs.getFile(kz::CURI(uri))->getContent();
    return std::string(bytes.getData(), bytes.getData() + bytes.getUsed());
}

TEST(CMemoryFileSystemTest, APowerCutKeepsWhatWasFlushed) {
    kz::P<kz::CMemoryFileSystem> fs(new kz::CMemoryFileSystem(true));
    kz::P<IIOStream> a = fs->open(kz::CURI("mem:///d/a"), IIOStream::AccessReadWrite, 0);
    a->write("abc", 3, nullptr);
    a->flush();
    a->write("def", 3, nullptr);
    a->lockRange(0, 1, kz::IStreamBase::LockExclusive);
    fs->open(kz::CURI("mem:///d/b"), IIOStream::AccessReadWrite, 0)->write("xyz", 3, nullptr);
    EXPECT_EQ(contentOf(*fs, "mem:///d/./a"), "abcdef");  // one file under two spellings

    a.reset();
    fs->dropUnflushedWrites();
    EXPECT_EQ(contentOf(*fs, "mem:///d/a"), "abc");
    EXPECT_EQ(contentOf(*fs, "mem:///d/b"), "");
    kz::P<IIOStream> again = fs->open(kz::CURI("mem:///d/a"), IIOStream::AccessReadWrite, 0);
    EXPECT_TRUE(again->lockRange(0, 1, kz::IStreamBase::LockExclusive));

    // A medium that reorders keeps any of the writes since the flush, each whole.
    std::set<std::string> seen;
    for (unsigned seed = 0; seed < 64; ++seed) {
        kz::P<kz::CMemoryFileSystem> medium(new kz::CMemoryFileSystem(true));
        kz::P<IIOStream> stream =
            medium->open(kz::CURI("mem:///d/a"), IIOStream::AccessReadWrite, 0);
        stream->write("abc", 3, nullptr);
        stream->flush();
        stream->write("de", 2, nullptr);
        stream->write("f", 1, nullptr);
        stream.reset();
        medium->cutPower(seed);
        seen.insert(contentOf(*medium, "mem:///d/a"));
    }
    EXPECT_EQ(seen, (std::set<std::string>{"abc", "abcde", std::string("abc\0\0f", 6), "abcdef"}));

    kz::P<kz::CMemoryFileSystem> plain(new kz::CMemoryFileSystem);
    EXPECT_THROW(plain->dropUnflushedWrites(), kz::CError);
}

}  // namespace
