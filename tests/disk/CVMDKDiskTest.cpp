#include "harl/disk/CVMDKDisk.h"
#include "harl/extent/CVMDKNullExtentFile.h"
#include "harl/foundation/kz/CIOError.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/CRecordingDataProvider.h"
#include "tests/support/DiskTestNames.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

using namespace harltest::disk;

using harltest::CRecordingDataProvider;
using harltest::thrownText;
using Trace = std::vector<std::string>;
using Providers = std::map<std::string, harl::IVMDKDataProvider*>;

const std::string kMain = "[mainFileURI=file:///d/disk.vmdk";

struct CWorld {
    Trace trace;
    bool failFlush = false;
    std::set<std::string> failOpen;
};

// A null extent that writes into the trace what the disk does with it.
class CTracedExtent : public harl::CVMDKNullExtentFile {
public:
    CTracedExtent(CWorld& world, const kz::CURI& uri, long long startGrainIndex,
                  long long sizeSectors, harl::IVMDKDataProvider* provider)
        : CVMDKNullExtentFile(uri, startGrainIndex, 2, sizeSectors, 512, false, -1, provider),
          world(world),
          name(uri.getName().toUTF8()) {}

    ~CTracedExtent() override { note("close"); }

    void seek(long long position) override {
        note("seek", position);
        CVMDKNullExtentFile::seek(position);
    }

    void read(void* buffer, int size) override {
        note("read", getPosition(), " " + std::to_string(size));
        CVMDKNullExtentFile::read(buffer, size);
    }

    void flushChanges() override {
        note("flush");
        if (world.failFlush) {
            throw kz::CIOError(kz::CIOError::WritePastEnd, "Flush failed.");
        }
    }

    long long makeGrainIndependentOfParent(long long grainIndex) override {
        note("independent", grainIndex);
        seek(getPosition() + 1024);
        return 77;
    }

private:
    void note(const char* what, long long number = -1, const std::string& more = "") {
        world.trace.push_back(what + (" " + name) +
                              (number < 0 ? "" : " " + std::to_string(number)) + more);
    }

    CWorld& world;
    std::string name;
};

// A disk whose extent lines are given directly, with grains of 1024 bytes; its extents are
// traced null extents, each with the provider of its line.
class CTestDisk : public harl::CVMDKDisk {
public:
    using Lines = std::vector<std::pair<std::string, long long>>;

    CTestDisk(CWorld& world, kz::IIOStream::Access access, const Lines& lines, Providers providers)
        : CVMDKDisk(nullptr, kz::CURI("file:///d/disk.vmdk"), access, -1),
          world(world),
          providers(std::move(providers)) {
        for (const auto& [name, sizeSectors] : lines) {
            appendExtentRange(kz::CURI("file:///d/" + name), sizeSectors);
        }
        finishExtentMap(2, false);
    }

protected:
    kz::P<harl::IVMDKExtentFile> makeExtentFile(const kz::CURI& uri, long long startGrainIndex,
                                                long long sizeSectors) override {
        const std::string name = uri.getName().toUTF8();
        world.trace.push_back("open " + name + " " + std::to_string(startGrainIndex));
        if (world.failOpen.count(name) > 0) {
            throw kz::CIOError(kz::CIOError::CorruptFormat, "Extent unreadable.");
        }
        return kz::makeP<CTracedExtent>(world, uri, startGrainIndex, sizeSectors, providers[name]);
    }

private:
    CWorld& world;
    Providers providers;
};

// a: disk bytes 0-2047 from the provider; z: an empty line; b: 2048-3071, zeros;
// c: 3072-6143 from the provider.
class CVMDKDiskTest : public ::testing::Test {
protected:
    kz::P<CTestDisk> makeDisk(kz::IIOStream::Access access) {
        return kz::makeP<CTestDisk>(world, access,
                                    CTestDisk::Lines{{"a", 4}, {"z", 0}, {"b", 2}, {"c", 6}},
                                    Providers{{"a", provider.get()}, {"c", provider.get()}});
    }

    Trace takeTrace() { return std::exchange(world.trace, Trace()); }

    CWorld world;
    kz::P<CRecordingDataProvider> provider{new CRecordingDataProvider};
    unsigned char buffer[6144] = {};
};

TEST_F(CVMDKDiskTest, ReadsCutAtEveryBoundaryWithOneExtentOpen) {
    auto disk = makeDisk(kRead);
    EXPECT_EQ(disk->getFirstExtentFileURI(), kz::CURI("file:///d/a"));
    disk->read(buffer, 6144);
    EXPECT_EQ(takeTrace(),
              (Trace{"open a 0", "read a 0 2048", "flush a", "close a", "open b 2", "read b 0 1024",
                     "flush b", "close b", "open c 3", "read c 0 3072"}));
    EXPECT_EQ(provider->calls, (Trace{"getData 0 2048", "getData 3072 3072"}));
    for (long long i : {0LL, 2047LL, 2048LL, 3071LL, 3072LL, 6143LL}) {
        const bool hole = i >= 2048 && i < 3072;
        EXPECT_EQ(buffer[i], hole ? 0 : CRecordingDataProvider::patternAt(i)) << i;
    }

    // Backwards across two boundaries: the seek touches nothing, the next read moves over.
    disk->seek(2047);
    disk->read(buffer, 2);
    disk->read(buffer, 1023);
    EXPECT_EQ(takeTrace(),
              (Trace{"flush c", "close c", "open a 0", "seek a 2047", "read a 2047 1", "flush a",
                     "close a", "open b 2", "read b 0 1", "read b 1 1023"}));
    EXPECT_EQ(disk->getPosition(), 3072);
}

TEST_F(CVMDKDiskTest, RangeAndAccessErrorsComeBeforeAnyExtentOpens) {
    auto disk = makeDisk(kRead);
    disk->seek(6144);
    disk->read(buffer, 0);
    disk->read(buffer, -5);
    EXPECT_EQ(thrownText<kz::CIOError>([&] { disk->read(buffer, 1); }),
              "4 Read exceeds VMDK disk size. " + kMain + ", position=6144, bytesToRead=1]");
    EXPECT_EQ(thrownText<kz::CIOError>([&] { disk->write(buffer, 1); }),
              "3 Write exceeds VMDK disk size. " + kMain + ", position=6144, bytesToWrite=1]");
    EXPECT_EQ(thrownText<kz::CIOError>([&] { disk->seek(-1); }),
              "7 Bad seek position in VMDK disk: -1 " + kMain + ", diskSize=6144]");
    EXPECT_EQ(thrownText<kz::CError>([&] { disk->isGrainWritten(); }),
              "-1 Internal error: cannot find VMDK extent for position 6144 "
              "[mainURI=file:///d/disk.vmdk]");
    disk->seek(0);
    const std::string notWritable = " was called, but the disk was not opened for writing.";
    EXPECT_EQ(thrownText<kz::CError>([&] { disk->write(buffer, -1); }),
              "-1 Internal error: CVMDKDisk::write" + notWritable);
    EXPECT_EQ(thrownText<kz::CError>([&] { disk->makeGrainIndependentOfParent(0); }),
              "-1 Internal error: CVMDKDisk::makeGrainIndependentOfParent" + notWritable);
    kz::TBuffer<unsigned char> grain(1024);
    EXPECT_EQ(thrownText<kz::CError>([&] { disk->writePreparedGrainData(grain); }),
              "-1 Internal error: CVMDKDisk::write" + notWritable);
    auto writable = makeDisk(kWrite);
    writable->write(buffer, 0);
    EXPECT_TRUE(takeTrace().empty());
    EXPECT_EQ(thrownText<kz::CError>([&] { writable->write(buffer, 1); }),
              "-1 Internal error: write method called on VMDK null extent file. [uri=file:///d/a]");
    EXPECT_EQ(writable->getPosition(), 0);
}

TEST_F(CVMDKDiskTest, PreparedGrainsAtTheLastGrainAndPastTheEnd) {
    auto disk = makeDisk(kRead);
    kz::TBuffer<unsigned char> grain;
    disk->seek(5120);
    disk->readPreparedGrainData(grain);
    EXPECT_EQ(provider->calls, Trace{"getPrepared 5120 1024"});
    EXPECT_EQ(disk->getPosition(), 6144);
    EXPECT_EQ(thrownText<kz::CIOError>([&] { disk->writePreparedGrainData(grain); }),
              "3 Prepared grain write exceeds VMDK disk size. " + kMain +
                  ", position=6144, grainSize=1024, diskSize=6144]");
    disk->seek(512);
    EXPECT_EQ(thrownText<kz::CIOError>([&] { disk->readPreparedGrainData(grain); }),
              "11 Prepared grain read in VMDK disk can only be done on a grain boundary. " + kMain +
                  ", position=512, grainSize=1024]");

    // makeGrainIndependentOfParent gives the extent its own grain index.
    takeTrace();
    auto writable = makeDisk(kWrite);
    EXPECT_EQ(writable->makeGrainIndependentOfParent(4), 77);
    EXPECT_EQ(takeTrace(), (Trace{"open c 3", "seek c 1024", "independent c 1", "seek c 2048"}));
    EXPECT_EQ(writable->getPosition(), 5120);
    EXPECT_EQ(thrownText<kz::CIOError>([&] { writable->makeGrainIndependentOfParent(7); }),
              "7 Bad seek position in VMDK disk: 7168 " + kMain + ", diskSize=6144]");
}

TEST_F(CVMDKDiskTest, GrainsCutByAnExtentBoundaryFailOnlyPreparedIO) {
    auto disk =
        kz::makeP<CTestDisk>(world, kWrite, CTestDisk::Lines{{"a", 3}, {"b", 3}}, Providers());
    kz::TBuffer<unsigned char> grain;
    disk->seek(1024);
    const std::string cut = " returned less than the grain size. " + kMain +
                            ", position=1024, grainSize=1024, opBytes=512, diskSize=3072]";
    EXPECT_EQ(thrownText<kz::CError>([&] { disk->readPreparedGrainData(grain); }),
              "-1 Internal error: CVMDKDisk::beginIOOp in CVMDKDisk::tryRreparedGrainData" + cut);
    EXPECT_EQ(thrownText<kz::CError>([&] { disk->makeGrainIndependentOfParent(1); }),
              "-1 Internal error: CVMDKDisk::beginIOOp in CVMDKDisk::writePreparedGrainData" + cut);
    disk->seek(0);
    disk->read(buffer, 3072);
    EXPECT_EQ(takeTrace().back(), "read b 0 1536");
}

TEST_F(CVMDKDiskTest, FailuresLeaveThePositionBehindTheChunksDone) {
    auto disk = makeDisk(kWrite);
    provider->failingCall = 1;
    EXPECT_EQ(thrownText<kz::CIOError>([&] { disk->read(buffer, 6144); }),
              "5 Parent data unreadable.");
    EXPECT_EQ(disk->getPosition(), 3072);
    EXPECT_EQ(buffer[2047], CRecordingDataProvider::patternAt(2047));
    disk->read(buffer, 3072);

    // A failing flush on the way out keeps the extent open and current.
    takeTrace();
    world.failFlush = true;
    disk->seek(0);
    EXPECT_EQ(thrownText<kz::CIOError>([&] { disk->read(buffer, 1); }), "3 Flush failed.");
    world.failFlush = false;
    disk->seek(3072);
    disk->read(buffer, 1);
    EXPECT_EQ(takeTrace(), (Trace{"flush c", "seek c 0", "read c 0 1"}));

    // A failing open is logged and thrown on; the same position opens on the next try.
    harltest::CLogCapture log;
    world.failOpen = {"a"};
    disk->seek(0);
    EXPECT_EQ(thrownText<kz::CIOError>([&] { disk->read(buffer, 1); }), "5 Extent unreadable.");
    EXPECT_EQ(log.messages(kz::LogLevel::Error),
              std::vector<kz::String>{"Error opening VMDK extent file on demand (path: "
                                      "'file:///d/a'). Letting exception through.: Extent "
                                      "unreadable."});
    world.failOpen.clear();
    disk->read(buffer, 1);
    EXPECT_EQ(takeTrace(), (Trace{"flush c", "close c", "open a 0", "open a 0", "read a 0 1"}));
}

TEST_F(CVMDKDiskTest, OnlyWritableDisksFlushAndTheExtentStaysOpen) {
    auto readOnly = makeDisk(kRead);
    readOnly->read(buffer, 1);
    readOnly->flushChanges();
    readOnly = nullptr;
    EXPECT_EQ(takeTrace(), (Trace{"open a 0", "read a 0 1", "close a"}));

    harltest::CLogCapture log;
    auto writable = makeDisk(kWrite);
    writable->read(buffer, 1);
    writable->flushChanges();
    writable->read(buffer, 1);
    world.failFlush = true;
    writable = nullptr;
    EXPECT_EQ(takeTrace(),
              (Trace{"open a 0", "read a 0 1", "flush a", "read a 1 1", "flush a", "close a"}));
    EXPECT_EQ(log.messages(kz::LogLevel::Error),
              std::vector<kz::String>{
                  "Exception in destructor of harl::CVMDKDisk ignored: Flush failed."});
}

}  // namespace
