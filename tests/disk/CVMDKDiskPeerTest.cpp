#include "harl/disk/CVMDKDisk.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CLocalFileSystem.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/CScratchFolder.h"
#include "tests/support/DiskTestNames.h"
#include "tests/support/QemuImg.h"
#include "tests/support/SampleData.h"
#include "tests/support/TestFiles.h"
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using namespace harltest::disk;

using harl::CVMDKDisk;
using harltest::Bytes;

// Whole disks against qemu-img and qemu-io, the other implementation of the format: what it
// writes must read equal here, and what is written here must check clean and compare equal
// there.
class CVMDKDiskPeerTest : public ::testing::Test {
protected:
    void SetUp() override { HARL_SKIP_WITHOUT_QEMU_IMG(); }

    std::string file(const std::string& name) const { return folder.file(name); }

    kz::P<CVMDKDisk> open(const std::string& name, const std::string& password = "") {
        return kz::makeP<CVMDKDisk>(fs.get(), folder.uriOf(name), kRead, password, 1, nullptr,
                                    nullptr);
    }

    // Bytes [offset, offset + length) of the disk, and of a raw file (zeros past its end).
    static Bytes readDisk(CVMDKDisk& disk, long long offset, long long length) {
        Bytes bytes(static_cast<size_t>(length));
        disk.seek(offset);
        disk.read(bytes.data(), static_cast<int>(length));
        return bytes;
    }

    Bytes readRaw(const std::string& name, long long offset, long long length) const {
        const kz::TBuffer<unsigned char> part =
            harltest::readFilePart(file(name), offset, static_cast<size_t>(length));
        Bytes bytes(part.getData(), part.getData() + part.getUsed());
        bytes.resize(static_cast<size_t>(length), 0);
        return bytes;
    }

    // Compares the disk with a raw image in windows of a MiB around `offsets`, and its size. A
    // disk made here may be larger, rounded up to whole grains: zeros stand behind the image.
    void expectDiskEqualsRaw(const std::string& disk, const std::string& raw,
                             const std::vector<long long>& offsets, bool roundedUp = false) {
        auto opened = open(disk);
        const long long rawSize = static_cast<long long>(std::filesystem::file_size(file(raw)));
        EXPECT_EQ(opened->getSizeBytes(),
                  roundedUp ? (rawSize + kGrain - 1) / kGrain * kGrain : rawSize);
        for (long long offset : offsets) {
            const long long start = std::max(0LL, std::min(offset, opened->getSizeBytes() - kMiB));
            EXPECT_TRUE(readDisk(*opened, start, kMiB) == readRaw(raw, start, kMiB))
                << disk << " at " << start;
        }
    }

    void qemuIo(const std::string& image, const std::string& command) {
        harltest::runQemuOrThrow("qemu-io", {"-f", "vmdk", "-c", command, file(image)});
    }

    void toRaw(const std::string& image, const std::string& raw) {
        harltest::runQemuOrThrow("qemu-img", {"convert", "-O", "raw", file(image), file(raw)});
    }

    // A raw image of `sizeBytes`: an ext4 file system where mkfs.ext4 is at hand (about a
    // third of its grains zero), random data in its second half.
    void makeRawImage(const std::string& name, long long sizeBytes) {
        std::filesystem::create_directories(file("tree/sub"));
        for (int i = 0; i < 20; ++i) {
            const Bytes text = harltest::makeTextLikeData(20000 + 3000 * i, i);
            std::ofstream(file("tree/sub/f" + std::to_string(i)), std::ios::binary)
                .write(reinterpret_cast<const char*>(text.data()), text.size());
        }
        std::filesystem::resize_file((std::ofstream(file(name)), file(name)), sizeBytes);
        harltest::runProgram("mkfs.ext4", {"-q", "-F", "-d", file("tree"), file(name),
                                           std::to_string(sizeBytes / 2 / 1024) + "k"});
        const Bytes noise = harltest::makeRandomData(static_cast<size_t>(sizeBytes / 4), 9);
        std::fstream raw(file(name), std::ios::in | std::ios::out | std::ios::binary);
        raw.seekp(sizeBytes / 2 + 4096);
        raw.write(reinterpret_cast<const char*>(noise.data()), noise.size());
    }

    // Writes a raw image through a disk, in pieces of 1 MiB that do not start on grains.
    static void fill(CVMDKDisk& disk, const std::string& raw) {
        const kz::TBuffer<unsigned char> bytes = harltest::readWholeFile(raw);
        disk.seek(0);
        for (size_t done = 0; done < bytes.getUsed();) {
            const size_t piece = std::min<size_t>(bytes.getUsed() - done, kMiB + 512);
            disk.write(bytes.getData() + done, static_cast<int>(piece));
            done += piece;
        }
    }

    void expectQemuCheckAndCompare(const std::string& image, const std::string& raw) {
        std::string output;
        EXPECT_EQ(harltest::runQemuImg({"check", "-f", "vmdk", file(image)}, &output), 0)
            << image << ": " << output;
        EXPECT_EQ(harltest::runQemuImg(
                      {"compare", "-f", "vmdk", "-F", "raw", file(image), file(raw)}, &output),
                  0)
            << image << ": " << output;
    }

    harltest::CScratchFolder folder;
    kz::P<kz::CLocalFileSystem> fs{new kz::CLocalFileSystem};
    harltest::CLogCapture log;
};

TEST_F(CVMDKDiskPeerTest, OpensQemuMadeDisksByTheirDescriptor) {
    // Sizes that are no multiple of the grain; the split one has two extent files.
    const std::vector<std::pair<std::string, long long>> disks = {
        {"monolithicSparse", 64 * kMiB + 4608},
        {"twoGbMaxExtentSparse", 2048 * kMiB + kMiB + 4608}};
    for (const auto& [subformat, size] : disks) {
        const std::string name = subformat + ".vmdk";
        harltest::createQemuVMDK(file(name), subformat, size);
        const std::vector<long long> offsets = {0, 40 * kMiB - 1000, size - 73000};
        unsigned pattern = 0x11;
        for (long long offset : offsets) {
            qemuIo(name, "write -P " + std::to_string(pattern++) + " " + std::to_string(offset) +
                             " 70000");
        }
        qemuIo(name, "write -P 5 " + std::to_string(size - 512) + " 512");
        toRaw(name, subformat + ".raw");
        expectDiskEqualsRaw(name, subformat + ".raw", {0, 40 * kMiB, size - kMiB, size / 2});
    }

    // A stream-optimized file of qemu's is not a disk of ours: it is refused cleanly.
    harltest::runQemuOrThrow("qemu-img",
                             {"convert", "-O", "vmdk", "-o", "subformat=streamOptimized",
                              file("monolithicSparse.raw"), file("stream.vmdk")});
    try {
        open("stream.vmdk");
        ADD_FAILURE() << "opened";
    } catch (const kz::CError& e) {
        EXPECT_EQ(e.getMessage(), "Slot size directory not found in compressed VMDK.");
    }
}

TEST_F(CVMDKDiskPeerTest, ReadsAQemuMadeChainOfThreeAndRefusesAChangedParent) {
    harltest::createQemuVMDK(file("base.vmdk"), "monolithicSparse", 32 * kMiB);
    qemuIo("base.vmdk", "write -P 17 0 256k");
    harltest::runQemuOrThrow("qemu-img", {"create", "-q", "-f", "vmdk", "-b", "base.vmdk", "-F",
                                          "vmdk", file("middle.vmdk")});
    qemuIo("middle.vmdk", "write -P 34 64k 64k");
    harltest::runQemuOrThrow("qemu-img", {"create", "-q", "-f", "vmdk", "-b", file("middle.vmdk"),
                                          "-F", "vmdk", file("top.vmdk")});
    qemuIo("top.vmdk", "write -P 51 100k 4k");
    qemuIo("top.vmdk", "write -P 68 20M 1M");
    toRaw("top.vmdk", "top.raw");
    expectDiskEqualsRaw("top.vmdk", "top.raw", {0, 20 * kMiB, 31 * kMiB});
    auto top = open("top.vmdk");
    EXPECT_EQ(top->getParentDiskMainURI(), folder.uriOf("middle.vmdk"));

    qemuIo("middle.vmdk", "write -P 85 8M 4k");  // qemu gives the middle disk a new content ID
    top = open("top.vmdk");
    Bytes bytes(kGrain);
    try {
        top->read(bytes.data(), static_cast<int>(kGrain));
        ADD_FAILURE() << "read through a changed parent";
    } catch (const kz::CError& e) {
        EXPECT_EQ(e.getMessage(), "VMDK parent disk has changed, but a child disk depended on it.");
    }
}

TEST_F(CVMDKDiskPeerTest, QemuImgReadsTheDisksWeCreate) {
    const long long size = 20 * kMiB + 4608;
    makeRawImage("image.raw", size);

    struct CKind {
        std::string name;
        bool compressed;
        long long limit;
        std::string password;
    };

    for (const CKind& kind : std::vector<CKind>{{"mono.vmdk", false, -1, ""},
                                                {"split.vmdk", false, 4 * kMiB, ""},
                                                {"stream.vmdk", true, -1, ""}}) {
        {
            auto disk = CVMDKDisk::create(fs.get(), folder.uriOf(kind.name), size, "",
                                          kind.compressed, 1, kind.limit, "", 0xFFFFFFFF, false);
            if (kind.compressed) {
                // Text that compresses well first, so that the image's grains outgrow their
                // slots and move.
                const Bytes text = harltest::makeTextLikeData(static_cast<size_t>(size), 3);
                disk->write(text.data(), static_cast<int>(text.size()));
                disk->flushChanges();
            }
            fill(*disk, file("image.raw"));
        }
        expectQemuCheckAndCompare(kind.name, "image.raw");
        expectDiskEqualsRaw(kind.name, "image.raw", {0, 7 * kMiB, 15 * kMiB, size}, true);
        std::string info;
        ASSERT_EQ(harltest::runQemuImg({"info", "--output=json", file(kind.name)}, &info), 0);
        EXPECT_NE(info.find("\"virtual-size\": " + std::to_string(20 * kMiB + kGrain)),
                  std::string::npos)
            << info;
        EXPECT_NE(info.find("\"format\": \"vmdk\""), std::string::npos) << info;
    }
    EXPECT_TRUE(std::filesystem::exists(file("split-s00005.vmdk")));
}

TEST_F(CVMDKDiskPeerTest, QemuImgReadsOurChildrenOnItsParentsAndOurs) {
    harltest::createQemuVMDK(file("qemu-parent.vmdk"), "monolithicSparse", 16 * kMiB);
    qemuIo("qemu-parent.vmdk", "write -P 7 0 8M");
    {
        auto ours = CVMDKDisk::create(fs.get(), folder.uriOf("our-parent.vmdk"), 16 * kMiB, "",
                                      false, 1, -1, "", 0xFFFFFFFF, false);
        const Bytes sevens(8 * kMiB, 7);
        ours->write(sevens.data(), static_cast<int>(sevens.size()));
    }
    for (const std::string parent : {"qemu-parent.vmdk", "our-parent.vmdk"}) {
        const unsigned int parentCID = open(parent)->getDescriptor()->getContentID();
        {
            auto child = CVMDKDisk::create(fs.get(), folder.uriOf("child.vmdk"), 16 * kMiB, "",
                                           false, 1, -1, parent, parentCID, false);
            const Bytes data = harltest::makeRandomData(100000, 4);
            child->seek(3 * kMiB + 777);  // partial grains on both ends, over the parent's data
            child->write(data.data(), static_cast<int>(data.size()));
            child->seek(12 * kMiB);
            child->write(data.data(), static_cast<int>(data.size()));
        }
        toRaw("child.vmdk", "child.raw");
        expectDiskEqualsRaw("child.vmdk", "child.raw", {0, 3 * kMiB, 8 * kMiB - 4096, 12 * kMiB});
        std::string output;
        EXPECT_EQ(harltest::runQemuImg({"check", "-f", "vmdk", file("child.vmdk")}, &output), 0)
            << parent << ": " << output;
    }
}

}  // namespace
