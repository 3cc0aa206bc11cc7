#include "harl/disk/CVMDKDisk.h"
#include "harl/disk/CVMDKParentDiskDataProvider.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/DiskTestNames.h"
#include "tests/support/SampleData.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace harltest::disk;

using harl::CVMDKDisk;
using harl::CVMDKParentDiskDataProvider;
using harltest::Bytes;
using harltest::errorText;

Bytes grainOf(unsigned seed) {
    return harltest::makeFileSystemLikeData(kGrain, seed);
}

// A chain base <- middle <- top, each 8 MiB but the top (12 MiB), with grain i written in the
// disk of level i % 3 for the first grains.
class CVMDKParentDiskDataProviderTest : public ::testing::Test {
protected:
    void SetUp() override {
        unsigned int parentCID = 0xFFFFFFFF;
        std::string parent;
        const char* names[] = {"base.vmdk", "middle.vmdk", "top.vmdk"};
        for (int level = 0; level < 3; ++level) {
            auto disk = CVMDKDisk::create(fs.get(), at(names[level]), level == 2 ? 12 * kMiB : 0,
                                          "pw", compressed, 1, -1, parent, parentCID, false);
            for (int grain = level; grain < 9; grain += 3) {
                disk->seek(grain * kGrain);
                disk->write(grainOf(grain).data(), kGrain);
            }
            parentCID = disk->getDescriptor()->getContentID();
            parent = names[level];
        }
    }

    kz::P<CVMDKDisk> open(const std::string& name, kz::IIOStream::Access access = kRead) {
        return kz::makeP<CVMDKDisk>(fs.get(), at(name), access, "pw", 1, nullptr, nullptr);
    }

    bool compressed = true;
    kz::P<kz::CMemoryFileSystem> fs{new kz::CMemoryFileSystem};
};

TEST_F(CVMDKParentDiskDataProviderTest, ReadsThroughTheChainAndZerosPastTheParentsEnd) {
    auto top = open("top.vmdk");
    Bytes read(12 * kMiB);
    top->read(read.data(), static_cast<int>(read.size()));
    for (long long grain = 0; grain < 12 * 16; ++grain) {
        const Bytes expected = grain < 9 ? grainOf(static_cast<unsigned>(grain)) : Bytes(kGrain, 0);
        ASSERT_EQ(0, std::memcmp(read.data() + grain * kGrain, expected.data(), kGrain)) << grain;
    }
    // The question of a written grain climbs the chain; past the parent's end it is false.
    for (const auto& [grain, written] : std::vector<std::pair<long long, bool>>{
             {0, true}, {1, true}, {2, true}, {9, false}, {150, false}}) {
        top->seek(grain * kGrain);
        EXPECT_EQ(top->isGrainWritten(), written) << grain;
        EXPECT_EQ(top->isGrainWrittenAndIndependentOfParent(), grain == 2) << grain;
    }

    // The provider itself: a read across the parent's end, then only zeros.
    auto provider = top->getParentProvider();
    Bytes bytes(20, 0xAA);
    provider->getData(8 * kMiB - 10, bytes.data(), 20);
    EXPECT_EQ(Bytes(bytes.begin() + 10, bytes.end()), Bytes(10, 0));
    provider->getData(8 * kMiB, bytes.data(), 20);
    EXPECT_EQ(bytes, Bytes(20, 0));

    // Prepared grains past the end are one prepared zero grain with its own grain index.
    kz::TBuffer<unsigned char> first, second;
    provider->getPreparedGrainData(8 * kMiB, first, static_cast<int>(kGrain), true);
    provider->getPreparedGrainData(8 * kMiB + 5 * kGrain, second, static_cast<int>(kGrain), true);
    ASSERT_EQ(first.getUsed(), second.getUsed());
    EXPECT_NE(0, std::memcmp(first.getData(), second.getData(), 8));
    EXPECT_EQ(0, std::memcmp(first.getData() + 8, second.getData() + 8, first.getUsed() - 8));
    auto preparer = top->createDataPreparer();
    kz::P<kz::TBuffer<unsigned char>> source(new kz::TBuffer<unsigned char>(second));
    kz::P<kz::TBuffer<unsigned char>> aux(new kz::TBuffer<unsigned char>);
    const kz::P<kz::TBuffer<unsigned char>> plain =
        preparer->unprepareGrainData(source.get(), aux.get());
    EXPECT_EQ(Bytes(plain->getData(), plain->getData() + plain->getUsed()), Bytes(kGrain, 0));

    // A parent that differs in compression or grain size gives bytes, but no prepared grains,
    // also past its end.
    for (long long position : {0LL, 9 * kMiB}) {
        EXPECT_EQ(errorText([&] {
                      provider->getPreparedGrainData(position, first, static_cast<int>(kGrain),
                                                     false);
                  }),
                  "-1 Parent disk is incompatible with diff disk. [parentURI=file:///d/"
                  "middle.vmdk, childURI=file:///d/top.vmdk, expectedGrainSize=65536, "
                  "expectedCompressed=false, actualGrainSize=65536, actualCompressed=true]");
    }
}

TEST_F(CVMDKParentDiskDataProviderTest, OpensAParentOnlyWhenAReadNeedsIt) {
    auto top = open("top.vmdk", kWrite);
    EXPECT_EQ(top->getParentDiskMainURI(), at("middle.vmdk"));
    EXPECT_EQ(top->getParentProvider()->getParentDiskMainFileURI(), at("middle.vmdk"));
    // Work within the top's own grains never notices that the parents are gone.
    fs->deleteFile(at("middle.vmdk"), false);
    fs->deleteFile(at("base.vmdk"), false);
    Bytes read(kGrain);
    top->seek(2 * kGrain);
    top->read(read.data(), kGrain);
    EXPECT_EQ(read, grainOf(2));
    top->seek(2 * kGrain);
    top->write(grainOf(20).data(), kGrain);
    top->flushChanges();

    // A missing parent fails at the first need, is logged, and is tried again each time.
    harltest::CLogCapture log;
    top->seek(0);
    const std::string missing = errorText([&] { top->read(read.data(), kGrain); });
    EXPECT_NE(missing.find("middle.vmdk"), std::string::npos) << missing;
    top->seek(0);
    EXPECT_EQ(errorText([&] { top->isGrainWritten(); }), missing);
    ASSERT_EQ(log.messages(kz::LogLevel::Error).size(), 2u);
    EXPECT_EQ(log.messages(kz::LogLevel::Error)[0].toUTF8().rfind(
                  "Error while opening VMDK parent disk (parent URI: 'file:///d/middle.vmdk', "
                  "child URI: 'file:///d/top.vmdk'): ",
                  0),
              0u);
}

TEST_F(CVMDKParentDiskDataProviderTest, RefusesChainsThatLoopOrRunTooDeep) {
    // The base names the top as its parent, by the top's real content ID; a disk open for
    // reading stores nothing.
    auto top = open("top.vmdk");
    {
        auto base = open("base.vmdk", kWrite);
        base->getDescriptor()->setParentContentID(top->getDescriptor()->getContentID());
        base->changeParentRelPath("top.vmdk");
    }
    const std::string readOnly = " was called, but the disk was not opened for writing.";
    EXPECT_EQ(errorText([&] { top->storeDescriptor(); }),
              "-1 Internal error: CVMDKDisk::storeDescriptor" + readOnly);
    EXPECT_EQ(errorText([&] { top->changeParentRelPath("x"); }),
              "-1 Internal error: CVMDKDisk::changeParentRelPath" + readOnly);
    harltest::CLogCapture log;
    Bytes read(kGrain);
    top->seek(10 * kGrain);  // written nowhere
    EXPECT_EQ(errorText([&] { top->read(read.data(), kGrain); }),
              "5 VMDK parent chain loops back to a disk of its own. [parentURI=file:///d/top.vmdk, "
              "childURI=file:///d/base.vmdk]");

    // A chain of 300 disks.
    unsigned int parentCID = 0xFFFFFFFF;
    std::string parent;
    for (int level = 0; level < 300; ++level) {
        const std::string name = "deep" + std::to_string(level) + ".vmdk";
        parentCID =
            CVMDKDisk::create(fs.get(), at(name), 0, "", false, 1, -1, parent, parentCID, false)
                ->getDescriptor()
                ->getContentID();
        parent = name;
    }
    auto deep = kz::makeP<CVMDKDisk>(fs.get(), at(parent), kRead, "", 1, nullptr, nullptr);
    const std::string error = errorText([&] { deep->read(read.data(), kGrain); });
    EXPECT_EQ(error.rfind("5 VMDK parent chain is longer than 256 disks.", 0), 0u) << error;
}

}  // namespace
