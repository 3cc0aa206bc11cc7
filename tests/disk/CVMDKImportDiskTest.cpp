#include "harl/disk/CVMDKImportDisk.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CLocalFileSystem.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"
#include "harl/grain/VMDKEmptyExtent.h"

#include "tests/support/CScratchFolder.h"
#include "tests/support/DiskTestNames.h"
#include "tests/support/QemuImg.h"
#include "tests/support/SampleData.h"
#include "tests/support/StreamOptimizedFile.h"
#include "tests/support/TestFiles.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

namespace {

using namespace harltest::disk;

using namespace harl;
using harltest::Bytes;

constexpr long long kSector = 512;

void writeFile(kz::IFileSystem& fs, const std::string& name, const Bytes& content) {
    kz::P<kz::IIOStream> stream = fs.open(at(name), kz::IIOStream::AccessReadWrite, 0);
    stream->setLength(0);
    stream->write(content.data(), static_cast<int>(content.size()), nullptr);
    stream->close();
}

Bytes bytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

// The whole disk read at once, and each whole grain read prepared and unprepared again.
void expectDiskReadsAs(CVMDKDisk& disk, const Bytes& expected) {
    ASSERT_EQ(disk.getSizeBytes(), static_cast<long long>(expected.size()));
    Bytes read(expected.size());
    disk.seek(0);
    disk.read(read.data(), static_cast<int>(read.size()));
    ASSERT_TRUE(read == expected);
    kz::P<CVMDKDataPreparer> preparer = disk.createDataPreparer();
    kz::P<kz::TBuffer<unsigned char>> prepared(new kz::TBuffer<unsigned char>);
    kz::P<kz::TBuffer<unsigned char>> plain(new kz::TBuffer<unsigned char>);
    const long long grain = disk.getGrainSizeBytes();
    for (long long position = 0; position + grain <= disk.getSizeBytes(); position += grain) {
        disk.seek(position);
        disk.readPreparedGrainData(*prepared);
        ASSERT_EQ(0,
                  std::memcmp(preparer->unprepareGrainData(prepared.get(), plain.get())->getData(),
                              expected.data() + position, grain))
            << "grain at " << position;
    }
}

// Disks that qemu-img writes, of a size that is no multiple of the grain: the kinds the
// library's own disks refuse open as import disks, the sparse kind as a disk of the library.
TEST(CVMDKImportDiskQemuTest, ReadsWhatQemuImgWrites) {
    HARL_SKIP_WITHOUT_QEMU_IMG();
    harltest::CScratchFolder folder;
    Bytes raw = harltest::makeFileSystemLikeData(static_cast<size_t>(24 * kGrain + 5 * kSector), 4);
    std::fill(raw.begin() + 5 * kGrain, raw.begin() + 9 * kGrain, 0);
    kz::TBuffer<unsigned char> content;
    content.assign(raw.data(), raw.size());
    harltest::writeWholeFile(folder.file("raw.img"), content);
    kz::P<kz::CLocalFileSystem> fs(new kz::CLocalFileSystem);
    const std::pair<const char*, bool> kinds[] = {{"streamOptimized", true},
                                                  {"monolithicFlat", true},
                                                  {"twoGbMaxExtentFlat", true},
                                                  {"monolithicSparse", false}};
    for (const auto& [subformat, imported] : kinds) {
        const std::string name = std::string(subformat) + ".vmdk";
        std::string output;
        ASSERT_EQ(harltest::runQemuImg({"convert", "-f", "raw", "-O", "vmdk", "-o",
                                        std::string("subformat=") + subformat,
                                        folder.file("raw.img"), folder.file(name)},
                                       &output),
                  0)
            << output;
        kz::P<CVMDKDisk> disk = CVMDKImportDisk::open(fs.get(), folder.uriOf(name), "", 1);
        EXPECT_EQ(dynamic_cast<CVMDKImportDisk*>(disk.get()) != nullptr, imported) << name;
        EXPECT_EQ(disk->getCompressed(), name == "streamOptimized.vmdk") << name;
        expectDiskReadsAs(*disk, raw);
    }
}

// A descriptor as datastores and appliances write them, with every extent type side by side:
// a stream-optimized file gives the disk its compressed grains, and the others hand out theirs
// prepared in the same form.
TEST(CVMDKImportDiskTest, ReadsDescriptorsOfMixedExtentTypes) {
    kz::P<kz::CMemoryFileSystem> fs(new kz::CMemoryFileSystem);
    const Bytes streamed = harltest::makeFileSystemLikeData(3 * kGrain, 1);
    const harltest::CStreamOptimizedLayout layout =
        harltest::buildStreamOptimizedFile(streamed, "s.vmdk");
    writeFile(*fs, "s.vmdk",
              Bytes(layout.file.getData(), layout.file.getData() + layout.file.getUsed()));
    const Bytes flat = harltest::makeTextLikeData(4 * kGrain, 2);
    writeFile(*fs, "disk-flat.vmdk", flat);
    writeFile(*fs, "data.bin", harltest::makeRandomData(3 * kGrain, 3));
    writeFile(*fs, "disk.vmdk",
              bytesOf("# Disk DescriptorFile\nversion=1\nCID=fffffffe\nparentCID=ffffffff\n"
                      "createType=\"vmfs\"\n\n# Extent description\n"
                      "RW 384 SPARSE \"s.vmdk\"\nRW 1024 ZERO\r\nRW 0 FLAT \"none.bin\" 0\n"
                      "RW 512 VMFS \"disk-flat.vmdk\"\nRW 128 FLAT \"data.bin\" 256\n"
                      "\n# The Disk Data Base\nddb.adapterType = \"lsilogic\"\n"));
    Bytes expected = streamed;
    expected.resize(expected.size() + 8 * kGrain, 0);
    expected.insert(expected.end(), flat.begin(), flat.end());
    const Bytes data = harltest::makeRandomData(3 * kGrain, 3);
    expected.insert(expected.end(), data.begin() + 2 * kGrain, data.end());

    kz::P<CVMDKDisk> disk = CVMDKImportDisk::open(fs.get(), at("disk.vmdk"), "", 1);
    ASSERT_TRUE(disk->getCompressed());
    expectDiskReadsAs(*disk, expected);
    // The lines a host shows, as they are spelt, without the empty one.
    std::string lines;
    for (const auto& line : dynamic_cast<CVMDKImportDisk&>(*disk).getExtentLines()) {
        lines += line.type.toUTF8() + " " + std::to_string(line.startSector) + "+" +
                 std::to_string(line.sizeSectors) + "@" + std::to_string(line.offsetSectors) + " ";
    }
    EXPECT_EQ(lines, "SPARSE 0+384@0 ZERO 384+1024@0 VMFS 1408+512@0 FLAT 1920+128@256 ");
    disk->seek(0);
    EXPECT_EQ(harltest::thrownText<kz::CError>([&] { disk->write(data.data(), 1); }),
              "-1 Internal error: CVMDKDisk::write was called, but the disk was not opened for "
              "writing.");
    // The same disk as a stream: its length, and a lax read that stops at the end.
    kz::P<kz::IIOStream> stream = CVMDKImportDisk::openStream(fs.get(), at("disk.vmdk"), "");
    ASSERT_EQ(stream->getLength(), static_cast<long long>(expected.size()));
    Bytes tail(2 * kGrain);
    stream->seek(stream->getLength() - kGrain);
    ASSERT_EQ(stream->readLax(tail.data(), static_cast<int>(tail.size())), kGrain);
    EXPECT_EQ(0, std::memcmp(tail.data(), expected.data() + expected.size() - kGrain, kGrain));
}

// Descriptors and files that cannot be imported end in a CIOError code 5 that names the file.
TEST(CVMDKImportDiskTest, RefusesWhatItCannotRead) {
    kz::P<kz::CMemoryFileSystem> fs(new kz::CMemoryFileSystem);
    const harltest::CStreamOptimizedLayout layout =
        harltest::buildStreamOptimizedFile(harltest::makeTextLikeData(kGrain, 5), "s.vmdk");
    writeFile(*fs, "s.vmdk",
              Bytes(layout.file.getData(), layout.file.getData() + layout.file.getUsed()));
    writeFile(*fs, "short-flat.vmdk", Bytes(100 * kSector, 7));
    writeFile(*fs, "zeros.vmdk", Bytes(kGrain, 0));
    // An uncompressed sparse extent of the library's own.
    kz::TBuffer<unsigned char> zeros(static_cast<size_t>(kGrain));
    zeros.fill(0);
    createEmptyVMDKSparseExtentFile(fs.get(), at("plain.vmdk"), false, 1, 128, zeros, nullptr, 0,
                                    kz::TBuffer<unsigned char>());
    const std::string head = "version=1\nCID=1\nparentCID=ffffffff\ncreateType=";
    const std::pair<std::string, std::string> cases[] = {
        {"\"fullDevice\"\nRW 100 FLAT \"short-flat.vmdk\" 0\n",
         "VMDK disk has an unsupported create type: 'fullDevice'. [uri=file:///d/disk.vmdk]"},
        {"\"vmfs\"\nRW 100 SESPARSE \"short-flat.vmdk\"\n",
         "VMDK disk has an unsupported extent type: 'SESPARSE'. [uri=file:///d/disk.vmdk]"},
        {"\"vmfs\"\n", "VMDK disk has no extents. [uri=file:///d/disk.vmdk]"},
        {"", "VMDK disk has an unsupported create type: ''. [uri=file:///d/disk.vmdk]"},
        {"\"monolithicFlat\"\nRW 101 FLAT \"short-flat.vmdk\" 0\n",
         "VMDK flat extent file is shorter than its extent. [uri=file:///d/short-flat.vmdk, "
         "offsetSectors=0, sizeSectors=101, fileSize=51200]"},
        {"\"streamOptimized\"\nRW 129 SPARSE \"s.vmdk\"\n",
         "VMDK extent file is smaller than its extent line. [uri=file:///d/s.vmdk]"},
        {"\"streamOptimized\"\nRW 128 SPARSE \"s.vmdk\"\nRW 128 SPARSE \"zeros.vmdk\"\n",
         "Invalid magic number in VMDK sparse header [uri=file:///d/zeros.vmdk, num=0]"},
        {"\"streamOptimized\"\nRW 128 SPARSE \"s.vmdk\"\nRW 128 SPARSE \"plain.vmdk\"\n",
         "VMDK disk has extents of different grain geometry. [uri=file:///d/plain.vmdk]"},
    };
    for (const auto& [tail, message] : cases) {
        writeFile(*fs, "disk.vmdk", bytesOf(head + tail));
        EXPECT_EQ(harltest::thrownText<kz::CIOError>([&] {
                      kz::P<CVMDKDisk> disk =
                          CVMDKImportDisk::open(fs.get(), at("disk.vmdk"), "", 1);
                      Bytes all(static_cast<size_t>(disk->getSizeBytes()));
                      disk->read(all.data(), static_cast<int>(all.size()));
                  }),
                  "5 " + message)
            << tail;
    }
}

}  // namespace
