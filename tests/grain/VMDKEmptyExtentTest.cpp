#include "harl/descriptor/CVMDKDescriptor.h"
#include "harl/format/CVMDKSparseExtentHeader.h"
#include "harl/format/VMDKMarkers.h"
#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CDataInStream.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CFaultInjectingFileSystem.h"
#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CLocalFileSystem.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"
#include "harl/grain/VMDKEmptyExtent.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/CScratchFolder.h"
#include "tests/support/QemuImg.h"
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace {

using namespace harl;

const kz::CURI kUri("file:///images/my%20extent.vmdk");

kz::TBuffer<unsigned char> zeros(size_t size) {
    kz::TBuffer<unsigned char> buffer(size);
    buffer.fill(0);
    return buffer;
}

// The whole file, read back through the file system.
kz::TBuffer<unsigned char> contentOf(kz::IFileSystem& fileSystem, const kz::CURI& uri) {
    kz::P<kz::IIOStream> stream = fileSystem.open(uri, kz::IIOStream::AccessRead, 0);
    kz::TBuffer<unsigned char> content(static_cast<size_t>(stream->getLength()));
    stream->read(content.getData(), static_cast<int>(content.getUsed()));
    return content;
}

CVMDKSparseExtentHeader headerAt(const kz::TBuffer<unsigned char>& file, long long sector) {
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream(file));
    stream->seek(sector * 512);
    kz::CDataInStream in(stream.get());
    CVMDKSparseExtentHeader header;
    header.load(in);
    return header;
}

unsigned int entryAt(const kz::TBuffer<unsigned char>& file, long long sector, long long index) {
    const unsigned char* p = file.getData() + sector * 512 + index * 4;
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<unsigned int>(p[3]) << 24;
}

bool markerAt(const kz::TBuffer<unsigned char>& file, long long sector, VMDKMarkerID id,
              long long value) {
    long long found = -1;
    return isVMDKMarker(file.getData() + sector * 512, id, &found) && found == value;
}

struct CLayout {
    long long r, p, overhead, fileSectors;
};

CLayout create(kz::IFileSystem& fs, bool compressed, long long grains,
               long long grainSectors = 128) {
    createEmptyVMDKSparseExtentFile(&fs, kUri, compressed, grains, grainSectors, zeros(65536),
                                    nullptr, 0, kz::TBuffer<unsigned char>());
    const kz::TBuffer<unsigned char> file = contentOf(fs, kUri);
    const CVMDKSparseExtentHeader header = headerAt(file, 0);
    return {static_cast<long long>(header.getRedundantGrainDirectoryOffsetSectors()),
            static_cast<long long>(header.getGrainDirectoryOffsetSectors()),
            static_cast<long long>(header.getOverheadSectors()),
            static_cast<long long>(file.getUsed() / 512)};
}

TEST(VMDKEmptyExtentTest, LaysOutTheWorkedExample) {
    kz::P<kz::CMemoryFileSystem> fs(new kz::CMemoryFileSystem);
    const CLayout plain = create(*fs, false, 32768);
    EXPECT_EQ(plain.r, 1);
    EXPECT_EQ(plain.p, 258);
    EXPECT_EQ(plain.overhead, 640);
    EXPECT_EQ(plain.fileSectors, 640);
    const kz::TBuffer<unsigned char> plainFile = contentOf(*fs, kUri);
    EXPECT_EQ(entryAt(plainFile, 1, 0), 2u);
    EXPECT_EQ(entryAt(plainFile, 258, 63), 259u + 4 * 63);
    const CVMDKSparseExtentHeader plainHeader = headerAt(plainFile, 0);
    EXPECT_EQ(plainHeader.getVersion(), 1u);
    EXPECT_EQ(plainHeader.getFlags(), 0x3u);
    EXPECT_EQ(plainHeader.getCapacitySectors(), 32768u * 128);

    fs->deleteFile(kUri, false);
    const CLayout packed = create(*fs, true, 32768);
    EXPECT_EQ(packed.r, 2);
    EXPECT_EQ(packed.p, 324);
    EXPECT_EQ(packed.overhead, 896);
    EXPECT_EQ(packed.fileSectors, 899);
    const kz::TBuffer<unsigned char> file = contentOf(*fs, kUri);
    EXPECT_EQ(entryAt(file, 2, 0), 4u);
    EXPECT_EQ(entryAt(file, 2, 1), 9u);
    EXPECT_TRUE(markerAt(file, 1, VMDKMarkerGrainDirectory, 1));
    EXPECT_TRUE(markerAt(file, 3, VMDKMarkerGrainTable, 4));
    EXPECT_TRUE(markerAt(file, 323, VMDKMarkerGrainDirectory, 1));
    EXPECT_TRUE(markerAt(file, 645, VMDKMarkerSlotSizeDirectory, 1));
    EXPECT_EQ(entryAt(file, 646, 0), 648u);
    EXPECT_TRUE(markerAt(file, 647, VMDKMarkerSlotSizeTable, 2));
    EXPECT_TRUE(markerAt(file, 896, VMDKMarkerFooter, 1));
    EXPECT_TRUE(markerAt(file, 898, VMDKMarkerEndOfStream, 0));
    // The footer is the header's twin, byte for byte.
    EXPECT_EQ(std::memcmp(file.getData(), file.getData() + 897 * 512, 512), 0);
    const CVMDKSparseExtentHeader header = headerAt(file, 0);
    EXPECT_EQ(header.getVersion(), 3u);
    EXPECT_EQ(header.getFlags(), 0x30003u);
    EXPECT_EQ(header.getCompressAlgorithm(), 1u);
}

TEST(VMDKEmptyExtentTest, TableAndDirectoryCountsAtTheirBoundaries) {
    kz::P<kz::CMemoryFileSystem> fs(new kz::CMemoryFileSystem);

    // grains -> tables T, directory sectors D: P = 1 + D + 4T, and P + D + 4T rounded to a grain.
    const struct {
        long long grains, tables, directory;
    } cases[] = {{0, 0, 0}, {512, 1, 1}, {513, 2, 1}, {128 * 512, 128, 1}, {129 * 512, 129, 2}};

    for (const auto& c : cases) {
        const CLayout layout = create(*fs, false, c.grains);
        EXPECT_EQ(layout.p, 1 + c.directory + 4 * c.tables) << c.grains;
        const long long end = layout.p + c.directory + 4 * c.tables;
        EXPECT_EQ(layout.overhead, (end + 127) / 128 * 128) << c.grains;
        fs->deleteFile(kUri, false);
    }
    // Metadata that ends on a grain boundary needs no fill.
    const CLayout exact = create(*fs, false, 512, 1);
    EXPECT_EQ(exact.overhead, 11);
    EXPECT_EQ(exact.fileSectors, 11);
    fs->deleteFile(kUri, false);
    // Without tables the compressed markers still stand, with value 0.
    const CLayout empty = create(*fs, true, 0);
    const kz::TBuffer<unsigned char> file = contentOf(*fs, kUri);
    EXPECT_TRUE(markerAt(file, 1, VMDKMarkerGrainDirectory, 0));
    EXPECT_TRUE(markerAt(file, 3, VMDKMarkerSlotSizeDirectory, 0));
    EXPECT_EQ(empty.overhead, 128);
    EXPECT_EQ(empty.fileSectors, 131);
}

TEST(VMDKEmptyExtentTest, EmbedsDescriptorAndKeyHash) {
    kz::P<kz::CMemoryFileSystem> fs(new kz::CMemoryFileSystem);
    const std::string text = "version=1\nCID=1\nRW 1024 SPARSE \"extent.vmdk\"\n";
    kz::TBuffer<unsigned char> textBuffer;
    textBuffer.assign(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    kz::P<CVMDKDescriptor> descriptor(new CVMDKDescriptor(textBuffer));
    kz::TBuffer<unsigned char> hash(32);
    hash.fill(0xab);
    createEmptyVMDKSparseExtentFile(fs.get(), kUri, false, 8, 128, zeros(65536), descriptor.get(),
                                    20, hash);
    const kz::TBuffer<unsigned char> file = contentOf(*fs, kUri);
    const CVMDKSparseExtentHeader header = headerAt(file, 0);
    EXPECT_EQ(header.getDescriptorOffsetSectors(), 1u);
    EXPECT_EQ(header.getDescriptorSizeSectors(), 20u);
    EXPECT_EQ(header.getRedundantGrainDirectoryOffsetSectors(), 21u);
    EXPECT_TRUE(header.getEncryptionExtensionEnabled());
    EXPECT_EQ(header.getEncryptionAlgorithm(), 1u);
    EXPECT_EQ(header.getEncryptionKeyHash(), hash);
    const std::string stored(reinterpret_cast<const char*>(file.getData()) + 512, 200);
    EXPECT_EQ(stored.rfind("version=1\n", 0), 0u);
}

TEST(VMDKEmptyExtentTest, FailureDeletesTheHalfMadeFile) {
    kz::P<kz::CMemoryFileSystem> fs(new kz::CMemoryFileSystem);
    kz::TBuffer<unsigned char> text(2000);
    text.fill('x');
    kz::P<CVMDKDescriptor> tooLong(new CVMDKDescriptor(text));
    harltest::CLogCapture log;
    EXPECT_THROW(createEmptyVMDKSparseExtentFile(fs.get(), kUri, false, 8, 128, zeros(65536),
                                                 tooLong.get(), 1, kz::TBuffer<unsigned char>()),
                 kz::CError);
    EXPECT_FALSE(fs->exists(kUri));
    // A file that could not be opened leaves nothing to delete and nothing more to report.
    kz::P<kz::CFaultInjectingFileSystem> faulty(new kz::CFaultInjectingFileSystem(fs.get()));
    faulty->failOperation(1, false);
    EXPECT_THROW(createEmptyVMDKSparseExtentFile(faulty.get(), kUri, false, 8, 128, zeros(512),
                                                 nullptr, 0, kz::TBuffer<unsigned char>()),
                 kz::CFileSystemError);
    ASSERT_EQ(log.messages(kz::LogLevel::Error).size(), 2u);
    EXPECT_EQ(log.messages(kz::LogLevel::Error)[0].find(
                  "Error in CVMDKDisk::createEmptySparseExtentFile ('file:///images/my "
                  "extent.vmdk'). Deleting file and letting error through.: Internal error: "
                  "actual VMDK descriptor size exceeds target size"),
              0u);
}

TEST(VMDKEmptyExtentTest, QemuImgAcceptsNewExtents) {
    HARL_SKIP_WITHOUT_QEMU_IMG();
    harltest::CScratchFolder folder;
    kz::P<kz::CLocalFileSystem> fs(new kz::CLocalFileSystem);
    std::filesystem::resize_file(
        (std::ofstream(folder.file("zeros.raw")), folder.file("zeros.raw")), 2048 * 65536);
    for (bool compressed : {false, true}) {
        const std::string name = compressed ? "packed.vmdk" : "plain.vmdk";
        const std::string text =
            "# Disk DescriptorFile\nversion=1\nCID=12345678\n"
            "parentCID=ffffffff\ncreateType=\"monolithicSparse\"\n"
            "RW 262144 SPARSE \"" +
            name +
            "\"\n"
            "ddb.adapterType = \"ide\"\n";
        kz::TBuffer<unsigned char> textBuffer;
        textBuffer.assign(reinterpret_cast<const unsigned char*>(text.data()), text.size());
        kz::P<CVMDKDescriptor> descriptor(new CVMDKDescriptor(textBuffer));
        createEmptyVMDKSparseExtentFile(fs.get(), folder.uriOf(name), compressed, 2048, 128,
                                        zeros(65536), descriptor.get(), 20,
                                        kz::TBuffer<unsigned char>());
        std::string output;
        EXPECT_EQ(harltest::runQemuImg({"check", "-f", "vmdk", folder.file(name)}, &output), 0)
            << output;
        // An empty extent reads as zeros: equal to a raw image of zeros.
        EXPECT_EQ(harltest::runQemuImg({"compare", "-f", "vmdk", "-F", "raw", folder.file(name),
                                        folder.file("zeros.raw")},
                                       &output),
                  0)
            << output;
    }
}

}  // namespace
