#include "harl/descriptor/CVMDKDescriptor.h"
#include "harl/format/VMDKMarkers.h"
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

// The little-endian value of `size` bytes at `offset`: header fields, directory entries.
unsigned long long valueAt(const kz::TBuffer<unsigned char>& file, long long offset, int size) {
    unsigned long long value = 0;
    for (int i = size - 1; i >= 0; --i) {
        value = value << 8 | file.getData()[offset + i];
    }
    return value;
}

// The redundant directory, the directory and the overhead from the header, and the file's
// length, in sectors.
using CLayout = std::tuple<unsigned long long, unsigned long long, unsigned long long, size_t>;

CLayout create(kz::CMemoryFileSystem& fs, bool compressed, long long grains,
               long long grainSectors = 128) {
    fs.deleteFile(kUri, true);
    createEmptyVMDKSparseExtentFile(&fs, kUri, compressed, grains, grainSectors, zeros(65536),
                                    nullptr, 0, kz::TBuffer<unsigned char>());
    const kz::TBuffer<unsigned char>& file = fs.getFile(kUri)->getContent();
    return {valueAt(file, 48, 8), valueAt(file, 56, 8), valueAt(file, 64, 8), file.getUsed() / 512};
}

// The directory entries are 4 bytes, so 64 tables fill half a directory sector; metadata that
// ends on a grain boundary needs no fill. A creation that fails deletes its half-made file.
TEST(VMDKEmptyExtentTest, LaysOutTheWorkedExampleAndDeletesAHalfMadeFile) {
    kz::P<kz::CMemoryFileSystem> fs(new kz::CMemoryFileSystem);
    EXPECT_EQ(create(*fs, false, 512, 1), CLayout(1, 6, 11, 11));
    EXPECT_EQ(create(*fs, false, 32768), CLayout(1, 258, 640, 640));
    EXPECT_EQ(valueAt(fs->getFile(kUri)->getContent(), 258 * 512 + 63 * 4, 4), 259u + 4 * 63);

    EXPECT_EQ(create(*fs, true, 32768), CLayout(2, 324, 896, 899));
    const kz::TBuffer<unsigned char>& file = fs->getFile(kUri)->getContent();
    // Version, flags, compression algorithm; entries of both directories and the slot one.
    for (const auto& [offset, size, value] : {std::tuple{4LL, 4, 3ULL},
                                              {8, 4, 0x30003},
                                              {77, 2, 1},
                                              {2 * 512, 4, 4},
                                              {2 * 512 + 4, 4, 9},
                                              {646 * 512, 4, 648}}) {
        EXPECT_EQ(valueAt(file, offset, size), value) << offset;
    }
    for (const auto& [sector, id, value] : {std::tuple{1, VMDKMarkerGrainDirectory, 1},
                                            {3, VMDKMarkerGrainTable, 4},
                                            {645, VMDKMarkerSlotSizeDirectory, 1},
                                            {647, VMDKMarkerSlotSizeTable, 2},
                                            {896, VMDKMarkerFooter, 1},
                                            {898, VMDKMarkerEndOfStream, 0}}) {
        long long found = -1;
        EXPECT_TRUE(isVMDKMarker(file.getData() + sector * 512, id, &found) && found == value)
            << sector;
    }
    // The footer is the header's twin, byte for byte.
    EXPECT_EQ(std::memcmp(file.getData(), file.getData() + 897 * 512, 512), 0);

    fs->deleteFile(kUri, false);
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
    EXPECT_EQ(log.messages(kz::LogLevel::Error).size(), 2u);
}

}  // namespace
