#include "harl/disk/CVMDKDisk.h"
#include "harl/disk/CVMDKDiskIOStream.h"
#include "harl/foundation/kz/CDataInStream.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"
#include "harl/foundation/kz/COptimizingIOStream.h"
#include "harl/foundation/kz/IWriteBarrier.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/DiskTestNames.h"
#include "tests/support/SampleData.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <string>

namespace {

using namespace harltest::disk;

using harl::CVMDKDisk;
using harl::CVMDKDiskIOStream;
using harltest::Bytes;
using harltest::errorText;

constexpr long long kDiskBytes = 8 * 1024 * 1024;

class CVMDKDiskIOStreamTest : public ::testing::Test {
protected:
    kz::P<CVMDKDisk> create(bool compressed, long long limit, bool onDemand) {
        return CVMDKDisk::create(fs.get(), at("disk.vmdk"), kDiskBytes, "", compressed, 1, limit,
                                 "", 0xFFFFFFFF, onDemand);
    }

    kz::P<kz::CMemoryFileSystem> fs{new kz::CMemoryFileSystem};
};

TEST_F(CVMDKDiskIOStreamTest, ServesStreamCodeBothWays) {
    create(true, 1024 * 1024 * 8, false);
    const Bytes data = harltest::makeFileSystemLikeData(3 * 1024 * 1024 + 123, 5);
    {
        // Small writes gathered by the buffered stream, through the stream that opens the disk.
        kz::P<CVMDKDiskIOStream> disk(new CVMDKDiskIOStream(fs.get(), at("disk.vmdk"), kWrite, ""));
        kz::P<kz::COptimizingIOStream> buffered(new kz::COptimizingIOStream(disk.get()));
        buffered->seek(kGrain - 7);
        for (size_t done = 0; done < data.size(); done += 1000) {
            buffered->write(data.data() + done,
                            static_cast<int>(std::min<size_t>(1000, data.size() - done)), nullptr);
        }
        buffered->flush();
    }
    kz::P<CVMDKDiskIOStream> disk(new CVMDKDiskIOStream(fs.get(), at("disk.vmdk"), kRead, ""));
    Bytes back(data.size());
    disk->seek(kGrain - 7);
    kz::CDataInStream(disk.get()).read(back.data(), static_cast<int>(back.size()));
    EXPECT_EQ(back, data);
}

TEST_F(CVMDKDiskIOStreamTest, ForwardsWhileOpenAndRefusesAfterClose) {
    kz::P<CVMDKDisk> disk = create(false, -1, false);
    kz::P<CVMDKDiskIOStream> stream(new CVMDKDiskIOStream(disk.get()));
    kz::P<CVMDKDiskIOStream> second(new CVMDKDiskIOStream(disk.get()));
    unsigned char bytes[4096] = {1, 2, 3};
    kz::TBuffer<unsigned char> three;
    three.assign(bytes, 3);
    EXPECT_EQ(stream->getLength(), kDiskBytes);
    stream->seek(kDiskBytes - 100);
    EXPECT_EQ(second->getPosition(), kDiskBytes - 100);  // one disk, one position
    EXPECT_EQ(stream->readAvailable(bytes, 4096), 100);
    EXPECT_EQ(stream->readLax(bytes, 4096), 0);
    EXPECT_TRUE(stream->isEndOfStream());
    EXPECT_TRUE(stream->isEndOfStream_NonBlocking());
    EXPECT_TRUE(stream->waitReadable(0));
    EXPECT_EQ(errorText([&] { stream->read(bytes, 1); }),
              "4 Read exceeds VMDK disk size. [mainFileURI=file:///d/disk.vmdk, position=8388608, "
              "bytesToRead=1]");
    stream->seek(0);
    stream->writeKeepBuffer(kz::TConstBufferSlice<unsigned char>(three, 0, 3), nullptr);
    EXPECT_TRUE(stream->createWriteBarrier());
    EXPECT_FALSE(stream->isEndOfStream());
    const std::string lockError =
        "problem 6 File system error 6: VMDK Disk I/O stream does not support lockRange.";
    EXPECT_EQ(errorText([&] { stream->lockRange(0, 1, kz::IStreamBase::LockShared); }), lockError);
    EXPECT_EQ(errorText([&] { stream->setLength(kDiskBytes); }), "13 ");

    stream->close();
    stream->close();
    EXPECT_EQ(stream->getURI(), at("disk.vmdk"));
    EXPECT_EQ(errorText([&] { stream->lockRange(0, 1, kz::IStreamBase::LockShared); }), lockError);
    EXPECT_EQ(errorText([&] { stream->read(bytes, 1); }), "10 ");
    EXPECT_EQ(errorText([&] { stream->waitReadable(0); }), "10 ");
    EXPECT_EQ(errorText([&] { stream->createWriteBarrier(); }), "10 ");
    EXPECT_EQ(errorText([&] { stream->setLength(1); }), "10 ");
    // The disk stays open for its other holders.
    second->seek(0);
    second->read(bytes + 10, 3);
    EXPECT_EQ(Bytes(bytes + 10, bytes + 13), Bytes({1, 2, 3}));
}

TEST_F(CVMDKDiskIOStreamTest, AccountsForSpaceAcrossExtentsAndKeepsThePosition) {
    // A compressed split disk with extent files on demand: four extents of 33 grains or less.
    kz::P<CVMDKDisk> disk = create(true, 8 * 1024 * 1024, true);
    const auto fresh = disk->gatherSpaceInfo();
    EXPECT_EQ(fresh->getPayloadSize(), 0);
    EXPECT_EQ(fresh->getPayloadSizeInFile(), 0);
    const long long mainLength = fs->getFile(at("disk.vmdk"))->getLength();
    EXPECT_EQ(fresh->getHeaderSize() + fresh->getDeadSpaceSize(), mainLength);
    EXPECT_GE(fresh->getDeadSpaceSize(), 1536);  // the trail of a compressed extent

    const Bytes text = harltest::makeTextLikeData(kGrain, 1);
    for (long long grain : {0LL, 1LL, 100LL}) {
        disk->seek(grain * kGrain);
        disk->write(text.data(), static_cast<int>(kGrain));
    }
    disk->seek(12345);
    const auto written = disk->gatherSpaceInfo();
    EXPECT_EQ(disk->getPosition(), 12345);
    EXPECT_EQ(written->getPayloadSize(), 3 * kGrain);
    EXPECT_LT(written->getPayloadSizeInFile(), 3 * kGrain / 2);  // text compresses
    EXPECT_FALSE(fs->exists(at("disk-s00001.vmdk")));            // a hole, counted as nothing

    // A grain that outgrows its slot moves: payload stays, dead space grows by the old slot.
    const Bytes noise = harltest::makeRandomData(kGrain, 2);
    disk->seek(kGrain);
    disk->write(noise.data(), static_cast<int>(kGrain));
    const auto moved = disk->gatherSpaceInfo();
    EXPECT_EQ(moved->getPayloadSize(), 3 * kGrain);
    EXPECT_GT(moved->getPayloadSizeInFile(), kGrain);
    EXPECT_GT(moved->getDeadSpaceSize(), written->getDeadSpaceSize());

    // The walk fails in an extent whose file is cut short, and the position is where it was:
    // the first extent's grains now lie past the end of its file.
    disk = nullptr;
    fs->getFile(at("disk-s00003.vmdk"))->getContent().setUsed(100);
    fs->getFile(at("disk.vmdk"))->getContent().setUsed(fresh->getHeaderSize() + 512);
    disk = kz::makeP<CVMDKDisk>(fs.get(), at("disk.vmdk"), kRead, "", 1, nullptr, nullptr);
    harltest::CLogCapture log;
    disk->seek(777);
    EXPECT_EQ(errorText([&] {
                  disk->gatherSpaceInfo();
              }).rfind("5 VMDK grain table entry points past the end of the file's grain data.", 0),
              0u);
    EXPECT_EQ(disk->getPosition(), 777);
}

}  // namespace
