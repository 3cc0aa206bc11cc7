#include "harl/disk/CVMDKDisk.h"
#include "harl/format/CVMDKSparseExtentHeader.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CFaultInjectingFileSystem.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/DiskTestNames.h"
#include "tests/support/SampleData.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

namespace {

using namespace harltest::disk;

using harl::CVMDKDisk;
using harltest::Bytes;
using harltest::thrownText;

// A disk's content as the test expects it, written through the disk and into the model alike.
struct CModel {
    Bytes bytes;

    void write(CVMDKDisk& disk, long long offset, const Bytes& data) {
        disk.seek(offset);
        disk.write(data.data(), static_cast<int>(data.size()));
        std::memcpy(bytes.data() + offset, data.data(), data.size());
    }

    // Reads the whole disk and compares it with the model, naming the first grain that differs.
    void expectEqual(CVMDKDisk& disk) const {
        ASSERT_EQ(disk.getSizeBytes(), static_cast<long long>(bytes.size()));
        Bytes read(bytes.size());
        disk.seek(0);
        disk.read(read.data(), static_cast<int>(read.size()));
        for (size_t grain = 0; grain < bytes.size() / kGrain; ++grain) {
            ASSERT_EQ(
                0, std::memcmp(read.data() + grain * kGrain, bytes.data() + grain * kGrain, kGrain))
                << "grain " << grain;
        }
    }
};

// One kind of disk: split, compressed, encrypted, a child of a parent, extents on demand.
using Shape = std::tuple<bool, bool, bool, bool, bool>;

class CVMDKDiskRoundTripTest : public ::testing::TestWithParam<Shape> {
protected:
    bool split() const { return std::get<0>(GetParam()); }

    bool compressed() const { return std::get<1>(GetParam()); }

    std::string password() const { return std::get<2>(GetParam()) ? "pass wört" : ""; }

    bool child() const { return std::get<3>(GetParam()); }

    bool onDemand() const { return std::get<4>(GetParam()); }

    // 8 MiB disks; a split disk gets several extent files.
    kz::P<CVMDKDisk> create(const std::string& name, const std::string& parent = "",
                            unsigned int parentCID = 0xFFFFFFFF) {
        const long long limit = !split() ? -1 : compressed() ? 8 * kMiB : kMiB;
        return CVMDKDisk::create(fs.get(), at(name), 0, password(), compressed(), 1, limit, parent,
                                 parentCID, onDemand());
    }

    kz::P<CVMDKDisk> open(const std::string& name, kz::IIOStream::Access access) {
        return kz::makeP<CVMDKDisk>(fs.get(), at(name), access, password(), 1, nullptr, nullptr);
    }

    kz::P<kz::CMemoryFileSystem> fs{new kz::CMemoryFileSystem};
};

TEST_P(CVMDKDiskRoundTripTest, WritesReopensAndReadsBack) {
    CModel model{Bytes(8 * kMiB, 0)};
    unsigned int parentCID = 0xFFFFFFFF;
    if (child()) {
        kz::P<CVMDKDisk> parent = create("parent.vmdk");
        for (long long grain : {0LL, 3LL, 14LL, 127LL}) {
            model.write(*parent, grain * kGrain, harltest::makeFileSystemLikeData(kGrain, 7));
        }
        parentCID = parent->getDescriptor()->getContentID();
    }
    {
        kz::P<CVMDKDisk> disk = create("disk.vmdk", child() ? "parent.vmdk" : "", parentCID);
        EXPECT_EQ(disk->getParentDiskMainURI(), child() ? at("parent.vmdk") : kz::CURI());
        // A partial write over a parent's grain, one across extent files, the disk's last bytes.
        model.write(*disk, 3 * kGrain + 100, harltest::makeTextLikeData(5000, 1));
        model.write(*disk, 14 * kGrain - 3000, harltest::makeFileSystemLikeData(70000, 2));
        model.write(*disk, 8 * kMiB - 10, Bytes(10, 0xEE));
        model.expectEqual(*disk);
    }
    kz::P<CVMDKDisk> reader = open("disk.vmdk", kRead);
    model.expectEqual(*reader);
    reader = nullptr;
    {
        // Rewritten with data that no longer compresses: compressed grains move to new slots.
        kz::P<CVMDKDisk> writer = open("disk.vmdk", kWrite);
        model.write(*writer, 14 * kGrain, harltest::makeRandomData(kGrain, 3));
    }
    model.expectEqual(*open("disk.vmdk", kRead));
    if (split() && onDemand()) {
        // Only the extents that were written have files.
        EXPECT_FALSE(fs->exists(at("disk-s00005.vmdk")));
    }
}

std::string shapeName(const ::testing::TestParamInfo<Shape>& info) {
    const auto [split, compressed, encrypted, child, onDemand] = info.param;
    return std::string(split ? "Split" : "Monolithic") + (compressed ? "Compressed" : "") +
           (encrypted ? "Encrypted" : "") + (child ? "Child" : "") + (onDemand ? "OnDemand" : "");
}

INSTANTIATE_TEST_SUITE_P(EveryKind, CVMDKDiskRoundTripTest,
                         ::testing::Combine(::testing::Bool(), ::testing::Bool(), ::testing::Bool(),
                                            ::testing::Bool(), ::testing::Bool()),
                         shapeName);

class CVMDKDiskCreateTest : public ::testing::Test {
protected:
    // The names of the extent lines, and the size of each in grains.
    static std::vector<std::pair<std::string, long long>> extentsOf(CVMDKDisk& disk) {
        kz::TArray<kz::P<harl::CVMDKExtentInfo>> lines;
        disk.getDescriptor()->getExtentEntries(lines);
        std::vector<std::pair<std::string, long long>> extents;
        for (const auto& line : lines) {
            extents.emplace_back(line->getFilename().toUTF8(), line->getSizeSectors() / 128);
        }
        return extents;
    }

    long long lengthOf(const std::string& name) const {
        return fs->getFile(at(name)) ? fs->getFile(at(name))->getLength() : -1;
    }

    // Each line's key in a descriptor file (the text before "=" or " "), joined by "|".
    std::string lineKeys(const std::string& name) const {
        const kz::TBuffer<unsigned char>& content = fs->getFile(at(name))->getContent();
        const std::string text =
            std::string(content.getData(), content.getData() + content.getUsed()).c_str();
        std::string keys;
        size_t start = 0;
        for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
            const std::string line = text.substr(start, end - start);
            keys += (line[0] == '#' ? line : line.substr(0, line.find_first_of("= "))) + "|";
        }
        return keys;
    }

    kz::P<kz::CMemoryFileSystem> fs{new kz::CMemoryFileSystem};
};

TEST_F(CVMDKDiskCreateTest, PlansTheWorkedExamples) {
    EXPECT_EQ(CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(0), 8388608);
    EXPECT_EQ(CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(8388609), 8454144);
    EXPECT_EQ(CVMDKDisk::getDefaultFileSizeLimit(), 2147483648LL);
    const long long tenGiB = 10737418240LL;

    auto monolithic = CVMDKDisk::create(fs.get(), at("disk.vmdk"), tenGiB, "", false, 1, -1, "",
                                        0xFFFFFFFF, false);
    EXPECT_EQ(extentsOf(*monolithic),
              (std::vector<std::pair<std::string, long long>>{{"disk.vmdk", 163840}}));
    EXPECT_EQ(monolithic->getDescriptor()->getCreateType(), "monolithicSparse");
    monolithic = nullptr;

    auto split = CVMDKDisk::create(fs.get(), at("disk.vmdk"), tenGiB, "", false, 1, 2147483648LL,
                                   "", 0xFFFFFFFF, false);
    EXPECT_EQ(extentsOf(*split),
              (std::vector<std::pair<std::string, long long>>{{"disk-s00000.vmdk", 32762},
                                                              {"disk-s00001.vmdk", 32762},
                                                              {"disk-s00002.vmdk", 32762},
                                                              {"disk-s00003.vmdk", 32762},
                                                              {"disk-s00004.vmdk", 32762},
                                                              {"disk-s00005.vmdk", 30}}));
    EXPECT_EQ(lengthOf("disk.vmdk"), 65 * 512);  // the descriptor alone
    EXPECT_EQ(split->getDescriptor()->getCreateType(), "twoGbMaxExtentSparse");
    // The lines in their order, by their keys.
    EXPECT_EQ(lineKeys("disk.vmdk"),
              "# Disk DescriptorFile|version|encoding|CID|parentCID|createType||"
              "# Extent description|RW|RW|RW|RW|RW|RW||# The Disk Data Base|#DDB|"
              "ddb.adapterType|ddb.geometry.sectors|ddb.geometry.heads|ddb.geometry.cylinders|");
    EXPECT_EQ(split->getDescriptor()->getGeometryCylinders(), 1306);
    split = nullptr;

    // A second create over the same name replaces the old disk's files.
    auto compressed = CVMDKDisk::create(fs.get(), at("disk.vmdk"), tenGiB, "", true, 1,
                                        2147483648LL, "", 0xFFFFFFFF, false);
    const auto extents = extentsOf(*compressed);
    ASSERT_EQ(extents.size(), 11u);
    EXPECT_EQ(extents[0], std::make_pair(std::string("disk.vmdk"), 16222LL));
    EXPECT_EQ(extents[1].first, "disk-s00001.vmdk");
    EXPECT_EQ(extents[10].second, 163840 - 10 * 16222);
    EXPECT_EQ(compressed->getDescriptor()->getCreateType(), "streamOptimized");
    // Files under the new disk's names are new; disk-s00000.vmdk is no name of it.
    EXPECT_EQ(lengthOf("disk-s00005.vmdk"), lengthOf("disk-s00001.vmdk"));
    EXPECT_EQ(lengthOf("disk-s00000.vmdk"), 327680);
    kz::P<kz::IIOStream> main = fs->open(at("disk.vmdk"), kRead, 0);
    harl::CVMDKSparseExtentHeader header;
    kz::CDataInStream in(main.get());
    header.load(in);
    EXPECT_EQ(header.getDescriptorSizeSectors(), 66u);

    // The descriptor's room grows by a sector at the eighteenth expected extent line; an extent
    // file of 1 MiB holds 14 grains. A disk with extent files on demand removes the old disk's.
    for (const auto& [grains, sectors] : {std::pair(237LL, 66LL), std::pair(238LL, 67LL)}) {
        auto room = CVMDKDisk::create(fs.get(), at("room.vmdk"), grains * 65536, "", false, 1,
                                      1024 * 1024, "", 0xFFFFFFFF, grains == 238);
        EXPECT_EQ(lengthOf("room.vmdk"), sectors * 512) << grains;
        EXPECT_EQ(fs->exists(at("room-s00002.vmdk")), grains == 237);
        EXPECT_TRUE(fs->exists(at("room-s00000.vmdk")));
    }
}

TEST_F(CVMDKDiskCreateTest, RefusesBadPlansBeforeTouchingAFile) {
    kz::P<kz::CFaultInjectingFileSystem> faulty(new kz::CFaultInjectingFileSystem(fs.get()));
    auto create = [&](long long size, long long limit, const std::string& parent,
                      unsigned int parentCID) {
        CVMDKDisk::create(faulty.get(), at("disk.vmdk"), size, "", false, 1, limit, parent,
                          parentCID, false);
    };
    const long long twoTiB = 2199023255552LL;
    const std::string halfParent =
        "-1 CVMDKDisk::create: sParentRelPath and parentContentID must either both be specified "
        "or both have the default values. [parentRelPath=";
    EXPECT_EQ(thrownText<kz::CInvalidArgError>([&] { create(0, -1, "p.vmdk", 0xFFFFFFFF); }),
              halfParent + "p.vmdk, parentContentID=ffffffff]");
    EXPECT_EQ(thrownText<kz::CInvalidArgError>([&] { create(0, -1, "", 0x1234abcd); }),
              halfParent + ", parentContentID=1234abcd]");
    EXPECT_EQ(thrownText<kz::CInvalidArgError>([&] { create(twoTiB + 1, -1, "", 0xFFFFFFFF); }),
              "-1 CVMDKDisk::create: Invalid VMDK disk size for single unsplittable disk file: "
              "2199023321088 bytes. [sizeBytes=2199023321088]");
    EXPECT_EQ(thrownText<kz::CError>([&] { create(0, 100000, "", 0xFFFFFFFF); }),
              "-1 Internal error: calculated VMDK maxExtentPayloadBytes is less than grain "
              "size: 0");
    EXPECT_EQ(thrownText<kz::CError>([&] { create(twoTiB, 400000, "", 0xFFFFFFFF); }),
              "-1 Internal error: calculated VMDK descriptor size exceeds estimated worst case "
              "descriptor size (calculated: 382553600, worstCase: 1900544)");
    EXPECT_EQ(faulty->getOperationCount(), 0);

    // Exactly 2 TiB in one file passes planning (the first file operation is the next step),
    // and so does a limit above 2 TiB, which is taken as 2 TiB.
    for (long long limit : {-1LL, 3 * twoTiB}) {
        faulty->failOperation(1, false);
        EXPECT_NE(thrownText<kz::CError>([&] {
                      create(twoTiB, limit, "", 0xFFFFFFFF);
                  }).find("Injected fault"),
                  std::string::npos);
    }
}

TEST_F(CVMDKDiskCreateTest, ANewEncryptedDiskHasFreshKeysAndItsHashInEveryHeader) {
    std::vector<std::string> keyLines;
    for (const char* name : {"a.vmdk", "b.vmdk"}) {
        auto disk =
            CVMDKDisk::create(fs.get(), at(name), 0, "pw", false, 1, kMiB, "", 0xFFFFFFFF, false);
        const auto descriptor = disk->getDescriptor();
        for (const char* key : {"kzEncIV", "kzEncKeyDerivSalt", "kzEncEncKey", "kzEncKeyHash"}) {
            keyLines.push_back(descriptor->getValue(key).toUTF8());
        }
        EXPECT_EQ(descriptor->getValue("kzEncKeyDerivAlg"), "pkcs5-pbkdf2-hmac-sha1:10000");
        const kz::TBuffer<unsigned char> hash = descriptor->getKzEncryptionKeyHash();
        for (const auto& [extent, grains] : extentsOf(*disk)) {
            kz::P<kz::IIOStream> stream = fs->open(at(extent), kRead, 0);
            kz::CDataInStream in(stream.get());
            harl::CVMDKSparseExtentHeader header;
            header.load(in);
            ASSERT_EQ(header.getEncryptionKeyHash().getUsed(), hash.getUsed()) << extent;
            EXPECT_EQ(0, std::memcmp(header.getEncryptionKeyHash().getData(), hash.getData(),
                                     hash.getUsed()));
        }
    }
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_NE(keyLines[i], keyLines[i + 4]);
    }
}

TEST_F(CVMDKDiskCreateTest, AFailedCreateLeavesWhatWasFinishedAndTheFirstError) {
    // A split disk of three extent files; the fault hits the writing of the second.
    kz::P<kz::CFaultInjectingFileSystem> faulty(new kz::CFaultInjectingFileSystem(fs.get()));
    auto create = [&] {
        CVMDKDisk::create(faulty.get(), at("disk.vmdk"), 30 * kGrain, "", false, 1, kMiB, "",
                          0xFFFFFFFF, false);
    };
    create();
    const long long operations = faulty->getOperationCount();
    for (long long n = 1; n <= operations; n += 3) {
        kz::P<kz::CMemoryFileSystem> fresh(new kz::CMemoryFileSystem);
        faulty = kz::makeP<kz::CFaultInjectingFileSystem>(fresh.get());
        faulty->failOperation(static_cast<int>(n), false);
        harltest::CLogCapture log;
        const std::string error = thrownText<kz::CError>(create);
        // Only the lock file's record of its holder, and its deletion as the disk goes, may
        // fail without failing the call.
        if (error == "nothing thrown") {
            EXPECT_NO_THROW(
                CVMDKDisk(fresh.get(), at("disk.vmdk"), kRead, "", 1, nullptr, nullptr));
            continue;
        }
        EXPECT_NE(error.find("Injected fault"), std::string::npos) << n << " " << error;
        // Every extent file is either finished or gone: a finished one opens as an extent.
        for (const char* name : {"disk-s00000.vmdk", "disk-s00001.vmdk", "disk-s00002.vmdk"}) {
            if (fresh->exists(at(name))) {
                kz::P<kz::IIOStream> stream = fresh->open(at(name), kRead, 0);
                EXPECT_GE(stream->getLength(), 65536) << n << " " << name;
            }
        }
    }
}

TEST(CVMDKDiskCloseTest, ReportsWhatTheDestructorCouldOnlyLog) {
    kz::P<kz::CMemoryFileSystem> fs(new kz::CMemoryFileSystem);
    kz::P<kz::CFaultInjectingFileSystem> faulty(new kz::CFaultInjectingFileSystem(fs.get()));
    CModel model{Bytes(8 * kMiB, 0)};
    auto disk =
        CVMDKDisk::create(faulty.get(), at("disk.vmdk"), 0, "", true, 1, -1, "", 0xFFFFFFFF, false);
    model.write(*disk, 5 * kGrain + 3, harltest::makeTextLikeData(100000, 8));
    faulty->failOperation(1, false);
    EXPECT_NE(harltest::errorText([&] { disk->close(); }).find("Injected fault"),
              std::string::npos);
    disk->close();  // tried again, and done
    disk->close();
    model.expectEqual(*disk);  // the disk opens its extent again
    disk = nullptr;
    model.expectEqual(
        *kz::makeP<CVMDKDisk>(fs.get(), at("disk.vmdk"), kRead, "", 1, nullptr, nullptr));
}

}  // namespace
