#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/grain/CVMDKGrainAllocator.h"
#include "harl/grain/CVMDKGrainDirectory.h"
#include "harl/grain/CVMDKGrainTableCache.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/CRecordingStream.h"
#include "tests/support/GrainMetadataLayout.h"
#include "tests/support/SampleData.h"
#include <gtest/gtest.h>

namespace {

using harl::CVMDKGrainAllocator;
using harltest::CRecordingStream;

constexpr long long kGrainSectors = 8;
constexpr long long kGrainBytes = kGrainSectors * 512;

// An extent of two tables of 16 grains with its metadata from sector 1, ending off a grain
// boundary, and optionally a trail behind it.
struct CVMDKGrainAllocatorTest : ::testing::Test {
    void makeExtent(bool compressed, const std::vector<unsigned char>& trail = {}) {
        this->compressed = compressed;
        stream = new CRecordingStream(kz::CURI("file:///x.vmdk"));
        stream->setLength(512);
        const harltest::CGrainMetadataLayout layout = harltest::layOutGrainMetadata(
            *stream, {.tableCount = 2, .grainsPerTable = 16, .slotSizes = compressed});
        metadataEnd = stream->getLength();
        stream->seek(metadataEnd);
        stream->write(trail.data(), static_cast<int>(trail.size()), nullptr);
        directory = new harl::CVMDKGrainDirectory(
            stream.get(), kz::IIOStream::AccessReadWrite, layout.directorySectors,
            layout.redundantDirectorySectors, 32 * kGrainSectors, kGrainSectors, 16, compressed,
            cache.get());
        stream->writes.clear();
    }

    kz::P<CVMDKGrainAllocator> makeAllocator(const std::vector<unsigned char>& trail,
                                             kz::IIOStream::Access access) {
        kz::TBuffer<unsigned char> trailData;
        trailData.assign(trail.data(), trail.size());
        return new CVMDKGrainAllocator(stream.get(), access, kGrainSectors,
                                       compressed ? 1 : kGrainSectors, directory.get(), trailData);
    }

    kz::P<harl::CVMDKGrainTableCache> cache{new harl::CVMDKGrainTableCache};
    kz::P<CRecordingStream> stream;
    kz::P<harl::CVMDKGrainDirectory> directory;
    bool compressed = false;
    long long metadataEnd = 0;
};

// Slots are filled with zeros and the trail moves behind them. A foreign end of the file is
// kept, a reader writes nothing, a refused or failed grain leaves the end of the data where it
// was, and a failed last flush is only logged.
TEST_F(CVMDKGrainAllocatorTest, FillsSlotsWithZerosMovesItsTrailAndKeepsWhatItDoesNotOwn) {
    const std::vector<unsigned char> trail = harltest::makeRandomData(1536, 7);
    makeExtent(true, trail);
    kz::P<CVMDKGrainAllocator> allocator = makeAllocator(trail, kz::IIOStream::AccessReadWrite);
    EXPECT_EQ(allocator->getNextPosBytes(), metadataEnd);
    allocator->flushChangesToStream();
    EXPECT_TRUE(stream->writes.empty());

    // A grain that fills its slot exactly needs no zeros; one byte less gets one zero byte, and
    // a slot of more than twice a grain is zero-filled in several writes.
    const std::vector<unsigned char> data(1024, 0xee);
    allocator->allocNewGrain(0, data.data(), 1024, 2);
    EXPECT_EQ(stream->writes.size(), 1u);
    EXPECT_EQ(allocator->allocNewGrain(1, data.data(), 1023, 2) * 512, metadataEnd + 1024);
    EXPECT_EQ(stream->writes.back().sizeBytes, 1);
    EXPECT_EQ(stream->getBuffer()[static_cast<size_t>(metadataEnd + 2047)], 0);
    stream->writes.clear();
    allocator->allocNewGrain(2, data.data(), 10, static_cast<int>(5 * kGrainSectors));
    EXPECT_EQ(stream->writes.size(), 4u);

    allocator->flushChangesToStream();
    const long long end = metadataEnd + 2048 + 5 * kGrainBytes;
    EXPECT_EQ(stream->getLength(), end + 1536);
    EXPECT_EQ(stream->getBuffer()[static_cast<size_t>(end + 1)], trail[1]);
    EXPECT_FALSE(allocator->isTrailDirty());

    makeExtent(true, std::vector<unsigned char>(1536, 0x22));  // not the trail
    harltest::CLogCapture log;
    makeAllocator(trail, kz::IIOStream::AccessRead)->flushChangesToStream();
    EXPECT_TRUE(stream->writes.empty());
    kz::P<CVMDKGrainAllocator> writer = makeAllocator(trail, kz::IIOStream::AccessReadWrite);
    EXPECT_EQ(log.messages(kz::LogLevel::Warning).size(), 2u);  // a reader warns, too
    EXPECT_EQ(writer->getNextPosBytes(), metadataEnd + 1536);
    writer->flushChangesToStream();
    EXPECT_EQ(stream->getLength(), metadataEnd + 3072);
    stream->setLength(1000);  // shorter than the trail: the file ends with data
    writer = makeAllocator(trail, kz::IIOStream::AccessReadWrite);
    EXPECT_EQ(writer->getNextPosBytes(), 1000);
    stream->failWritesFrom(0);
    writer = nullptr;
    EXPECT_NE(log.messages(kz::LogLevel::Error).at(0).find("harl::CVMDKGrainAllocator"),
              kz::String::npos);

    makeExtent(false);
    kz::P<CVMDKGrainAllocator> reader = makeAllocator({}, kz::IIOStream::AccessRead);
    const std::vector<unsigned char> grain(kGrainBytes + 1, 1);
    EXPECT_THROW(reader->allocNewGrain(0, grain.data(), kGrainBytes + 1, kGrainSectors),
                 kz::CInvalidArgError);
    EXPECT_THROW(reader->allocNewGrain(0, grain.data(), kGrainBytes, kGrainSectors), kz::CError);
    EXPECT_TRUE(stream->writes.empty());
    writer = makeAllocator({}, kz::IIOStream::AccessReadWrite);
    stream->failWritesFrom(1);
    EXPECT_THROW(writer->allocNewGrain(0, grain.data(), kGrainBytes, kGrainSectors), kz::CError);
    EXPECT_EQ(writer->getNextPosBytes(), metadataEnd);
    long long pos = -1, slot = -1;
    directory->getGrainInfo(0, pos, slot);
    EXPECT_EQ(pos, 0);
}

}  // namespace
