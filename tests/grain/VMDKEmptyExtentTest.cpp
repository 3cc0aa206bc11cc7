#include "harl/descriptor/CVMDKDescriptor.h"
#include "harl/format/CVMDKSparseExtentHeader.h"
#include "harl/format/VMDKMarkers.h"
#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CDataInStream.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CFaultInjectingFileSystem.h"
#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"
#include "harl/grain/VMDKEmptyExtent.h"

#include "tests/support/CLogCapture.h"
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

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
    friend bool operator==(const CLayout&, const CLayout&) = default;
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

// The directory entries are 4 bytes, so 64 tables fill half a directory sector; metadata that
// ends on a grain boundary needs no fill.
TEST(VMDKEmptyExtentTest, LaysOutTheWorkedExample) {
    kz::P<kz::CMemoryFileSystem> fs(new kz::CMemoryFileSystem);
    EXPECT_EQ(create(*fs, false, 512, 1), (CLayout{1, 6, 11, 11}));
    fs->deleteFile(kUri, false);
    EXPECT_EQ(create(*fs, false, 32768), (CLayout{1, 258, 640, 640}));
    EXPECT_EQ(entryAt(contentOf(*fs, kUri), 258, 63), 259u + 4 * 63);
    fs->deleteFile(kUri, false);

    EXPECT_EQ(create(*fs, true, 32768), (CLayout{2, 324, 896, 899}));
    const kz::TBuffer<unsigned char> file = contentOf(*fs, kUri);
    for (const auto& [sector, index, entry] : {std::tuple{2, 0, 4u}, {2, 1, 9u}, {646, 0, 648u}}) {
        EXPECT_EQ(entryAt(file, sector, index), entry) << sector;
    }
    for (const auto& [sector, id, value] : {std::tuple{1, VMDKMarkerGrainDirectory, 1},
                                            {3, VMDKMarkerGrainTable, 4},
                                            {323, VMDKMarkerGrainDirectory, 1},
                                            {645, VMDKMarkerSlotSizeDirectory, 1},
                                            {647, VMDKMarkerSlotSizeTable, 2},
                                            {896, VMDKMarkerFooter, 1},
                                            {898, VMDKMarkerEndOfStream, 0}}) {
        EXPECT_TRUE(markerAt(file, sector, id, value)) << sector;
    }
    // The footer is the header's twin, byte for byte.
    EXPECT_EQ(std::memcmp(file.getData(), file.getData() + 897 * 512, 512), 0);
    const CVMDKSparseExtentHeader header = headerAt(file, 0);
    EXPECT_EQ(std::tuple(header.getVersion(), header.getFlags(), header.getCompressAlgorithm()),
              std::tuple(3u, 0x30003u, uint16_t{1}));
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

}  // namespace
