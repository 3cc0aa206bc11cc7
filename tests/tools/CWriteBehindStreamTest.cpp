// The write-behind stream against the memory stream it wraps: the same calls made directly
// give the same file, and a failed background write surfaces and stops what follows it.

#include "CWriteBehindStream.h"

#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CFaultInjectingFileSystem.h"
#include "harl/foundation/kz/CMemoryFile.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"

#include "tests/support/DiskTestNames.h"
#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace {

using harlimg::CWriteBehindStream;
using harltest::disk::at;

constexpr int kChunk = CWriteBehindStream::kChunkBytes;

std::vector<unsigned char> pattern(int size, int seed) {
    std::vector<unsigned char> bytes(static_cast<size_t>(size));
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>(seed + i * 7 + i / 509);
    }
    return bytes;
}

void writeAt(kz::IIOStream& stream, long long position, const std::vector<unsigned char>& bytes) {
    stream.seek(position);
    stream.write(bytes.data(), static_cast<int>(bytes.size()), nullptr);
}

TEST(CWriteBehindStreamTest, GivesTheFileThatDirectCallsGive) {
    // Writes that gather, fill a chunk exactly, outrun the ring, go back over queued bytes,
    // leave a hole; reads and lengths between them; then a cut.
    const std::function<void(kz::IIOStream&, std::vector<std::string>&)> script =
        [](kz::IIOStream& s, std::vector<std::string>& seen) {
            for (int i = 0; i < 40; ++i) {
                writeAt(s, 65536LL * i, pattern(65536, i));
            }
            writeAt(s, 40 * 65536LL, pattern(kChunk - 40 * 65536 % kChunk, 1));
            writeAt(s, 3 * kChunk + 100, pattern(7 * kChunk + 3, 2));
            writeAt(s, 12345, pattern(3 * kChunk, 3));
            writeAt(s, 20LL * kChunk, pattern(512, 4));
            seen.push_back(std::to_string(s.getLength()) + "@" + std::to_string(s.getPosition()));
            std::vector<unsigned char> back(kChunk + 10);
            s.seek(kChunk - 5);
            s.read(back.data(), static_cast<int>(back.size()));
            seen.push_back(std::string(back.begin(), back.end()));
            seen.push_back(std::to_string(s.getPosition()));
            s.write(pattern(100, 5).data(), 100, nullptr);
            s.setLength(15LL * kChunk + 1);
            writeAt(s, 2, pattern(3, 6));
            s.flush();
            seen.push_back(std::to_string(s.getLength()) + "@" + std::to_string(s.getPosition()));
        };
    const kz::P<kz::CMemoryFileSystem> fileSystem = kz::makeP<kz::CMemoryFileSystem>();
    std::vector<std::string> direct;
    std::vector<std::string> behind;
    {
        const kz::P<kz::IIOStream> plain =
            fileSystem->open(at("direct"), kz::IIOStream::AccessReadWrite, 0);
        script(*plain, direct);
        CWriteBehindStream stream(
            fileSystem->open(at("behind"), kz::IIOStream::AccessReadWrite, 0));
        script(stream, behind);
        stream.close();
        EXPECT_THROW(stream.write("x", 1, nullptr), kz::CError);
    }
    EXPECT_EQ(behind, direct);
    EXPECT_TRUE(fileSystem->getFile(at("behind"))->getContent() ==
                fileSystem->getFile(at("direct"))->getContent());
}

TEST(CWriteBehindStreamTest, AFailedWriteSurfacesLaterAndNothingBehindItLands) {
    const kz::P<kz::CMemoryFileSystem> memory = kz::makeP<kz::CMemoryFileSystem>();
    const kz::P<kz::CFaultInjectingFileSystem> faulty =
        kz::makeP<kz::CFaultInjectingFileSystem>(memory.get());
    CWriteBehindStream stream(faulty->open(at("f"), kz::IIOStream::AccessReadWrite, 0));
    faulty->failOperation(2, kz::CFaultInjectingFileSystem::Fault::Fail);
    // A write may already meet the failure, depending on how far the thread has come.
    try {
        for (int i = 0; i < 4; ++i) {
            writeAt(stream, static_cast<long long>(i) * kChunk, pattern(kChunk, i));
        }
    } catch (const kz::CError&) {
    }
    EXPECT_THROW(stream.flush(), kz::CError);
    EXPECT_THROW(stream.write("x", 1, nullptr), kz::CError);
    EXPECT_THROW(stream.close(), kz::CError);
    // The first chunk landed; the failed second and everything after it did not.
    EXPECT_EQ(memory->getFile(at("f"))->getLength(), kChunk);
}

}  // namespace
