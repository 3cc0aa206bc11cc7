#include "harl/disk/CVMDKDisk.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CLocalFileSystem.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/CScratchFolder.h"
#include "tests/support/DiskTestNames.h"
#include "tests/support/QemuImg.h"
#include "tests/support/SampleData.h"
#include "tests/support/TestFiles.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <tuple>
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

    kz::P<CVMDKDisk> open(const std::string& name) {
        return kz::makeP<CVMDKDisk>(fs.get(), folder.uriOf(name), kRead, "", 1, nullptr, nullptr);
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
            Bytes ours(kMiB);
            opened->seek(start);
            opened->read(ours.data(), static_cast<int>(kMiB));
            const kz::TBuffer<unsigned char> part = harltest::readFilePart(file(raw), start, kMiB);
            Bytes theirs(part.getData(), part.getData() + part.getUsed());
            theirs.resize(kMiB, 0);
            EXPECT_TRUE(ours == theirs) << disk << " at " << start;
        }
    }

    void qemuIo(const std::string& image, const std::string& command) {
        harltest::runQemuOrThrow("qemu-io", {"-f", "vmdk", "-c", command, file(image)});
    }

    void toRaw(const std::string& image, const std::string& raw) {
        harltest::runQemuOrThrow("qemu-img", {"convert", "-O", "raw", file(image), file(raw)});
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
        unsigned pattern = 0x11;
        for (long long offset : {0LL, 40 * kMiB - 1000, size - 73000}) {
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
    const std::string refused = harltest::errorText([&] { open("stream.vmdk"); });
    EXPECT_NE(refused.find("Slot size directory not found in compressed VMDK."), std::string::npos)
        << refused;
}

// Chains both ways: ours on qemu's chain of three, qemu's on our children of qemu's parent and
// of ours; and a parent that qemu changes under our child is refused.
TEST_F(CVMDKDiskPeerTest, ChainsReadTheSameHereAndInQemu) {
    harltest::createQemuVMDK(file("base.vmdk"), "monolithicSparse", 16 * kMiB);
    qemuIo("base.vmdk", "write -P 7 0 8M");
    harltest::runQemuOrThrow("qemu-img", {"create", "-q", "-f", "vmdk", "-b", "base.vmdk", "-F",
                                          "vmdk", file("middle.vmdk")});
    qemuIo("middle.vmdk", "write -P 34 64k 64k");
    harltest::runQemuOrThrow("qemu-img", {"create", "-q", "-f", "vmdk", "-b", file("middle.vmdk"),
                                          "-F", "vmdk", file("top.vmdk")});
    qemuIo("top.vmdk", "write -P 51 100k 4k");
    qemuIo("top.vmdk", "write -P 68 12M 1M");
    toRaw("top.vmdk", "top.raw");
    expectDiskEqualsRaw("top.vmdk", "top.raw", {0, 12 * kMiB, 15 * kMiB});
    EXPECT_EQ(open("top.vmdk")->getParentDiskMainURI(), folder.uriOf("middle.vmdk"));

    {
        auto ours = CVMDKDisk::create(fs.get(), folder.uriOf("our-parent.vmdk"), 16 * kMiB, "",
                                      false, 1, -1, "", 0xFFFFFFFF, false);
        const Bytes sevens(8 * kMiB, 7);
        ours->write(sevens.data(), static_cast<int>(sevens.size()));
    }
    for (const std::string parent : {"base.vmdk", "our-parent.vmdk"}) {
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

    qemuIo("middle.vmdk", "write -P 85 8M 4k");  // qemu gives the middle disk a new content ID
    Bytes bytes(kGrain);
    const std::string changed =
        harltest::errorText([&] { open("top.vmdk")->read(bytes.data(), kGrain); });
    EXPECT_EQ(changed.rfind("5 VMDK parent disk has changed, but a child disk depended on it.", 0),
              0u)
        << changed;
}

TEST_F(CVMDKDiskPeerTest, QemuImgReadsTheDisksWeCreate) {
    // File-system-like data with a run of zero grains, and a size that is no multiple of the
    // grain.
    const long long size = 20 * kMiB + 4608;
    Bytes raw = harltest::makeFileSystemLikeData(static_cast<size_t>(size), 9);
    std::fill(raw.begin() + 2 * kMiB, raw.begin() + 5 * kMiB, 0);
    kz::TBuffer<unsigned char> image;
    image.assign(raw.data(), raw.size());
    harltest::writeWholeFile(file("image.raw"), image);

    for (const auto& [name, compressed, limit] :
         {std::tuple("mono.vmdk", false, -1LL), std::tuple("split.vmdk", false, 4 * kMiB),
          std::tuple("stream.vmdk", true, -1LL)}) {
        {
            auto disk = CVMDKDisk::create(fs.get(), folder.uriOf(name), size, "", compressed, 1,
                                          limit, "", 0xFFFFFFFF, false);
            if (compressed) {
                // Text that compresses well first, so that the image's grains outgrow their
                // slots and move.
                const Bytes text = harltest::makeTextLikeData(static_cast<size_t>(size), 3);
                disk->write(text.data(), static_cast<int>(text.size()));
                disk->flushChanges();
            }
            // In pieces of a MiB that do not start on grains.
            disk->seek(0);
            for (long long done = 0; done < size; done += kMiB + 512) {
                disk->write(raw.data() + done, static_cast<int>(std::min(size - done, kMiB + 512)));
            }
        }
        expectQemuCheckAndCompare(name, "image.raw");
        expectDiskEqualsRaw(name, "image.raw", {0, 7 * kMiB, 15 * kMiB, size}, true);
        std::string info;
        ASSERT_EQ(harltest::runQemuImg({"info", "--output=json", file(name)}, &info), 0);
        EXPECT_NE(info.find("\"virtual-size\": " + std::to_string(20 * kMiB + kGrain)),
                  std::string::npos)
            << info;
    }
    EXPECT_TRUE(std::filesystem::exists(file("split-s00005.vmdk")));
}

}  // namespace
