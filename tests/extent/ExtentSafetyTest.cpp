// What a sparse extent does with files it did not write and at the end of its life: hostile
// grain table entries are refused before they are used, grains that other writers mark as
// zeroed read as zeros and get a slot of their own when written, and a close reports what a
// destructor could only log, and touches no file when nothing changed.
#include "harl/descriptor/CVMDKDescriptor.h"
#include "harl/descriptor/CVMDKDescriptorAccessor.h"
#include "harl/extent/CVMDKContentIDUpdater.h"
#include "harl/extent/CVMDKSparseExtentFile.h"
#include "harl/format/VMDKFileStream.h"
#include "harl/foundation/kz/CFaultInjectingFileSystem.h"
#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CLocalFileSystem.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"
#include "harl/grain/CVMDKGrainTableCache.h"
#include "harl/grain/VMDKEmptyExtent.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/CRecordingDataProvider.h"
#include "tests/support/CScratchFolder.h"
#include "tests/support/QemuImg.h"
#include "tests/support/SampleData.h"
#include "tests/support/TestFiles.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <functional>

namespace {

using namespace harl;
using Bytes = std::vector<unsigned char>;

constexpr long long kGrainBytes = 65536;

kz::TBuffer<unsigned char> zeros(size_t size) {
    kz::TBuffer<unsigned char> buffer(size);
    buffer.fill(0);
    return buffer;
}

unsigned int readUInt32(const kz::TBuffer<unsigned char>& bytes, long long offset) {
    unsigned int value = 0;
    std::memcpy(&value, bytes.getData() + offset, 4);
    return value;
}

// Opens an extent file with its embedded descriptor as a disk would, with an updater when it
// is opened for writing.
kz::P<CVMDKSparseExtentFile> openExtent(kz::IFileSystem* fs, const kz::CURI& uri,
                                        kz::IIOStream::Access access,
                                        IVMDKDataProvider* provider = nullptr) {
    kz::P<kz::IIOStream> stream = openVMDKFileStream(fs, uri, access);
    kz::P<CVMDKContentIDUpdater> updater;
    if (access == kz::IIOStream::AccessReadWrite) {
        kz::P<CVMDKDescriptorAccessor> accessor(
            new CVMDKDescriptorAccessor(stream.get(), kz::IIOStream::AccessRead));
        updater = new CVMDKContentIDUpdater(fs, uri, accessor->getDescriptor().get());
    }
    kz::P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache);
    return kz::P<CVMDKSparseExtentFile>(
        new CVMDKSparseExtentFile(stream.get(), access, 0, 1, cache.get(), provider, updater.get(),
                                  nullptr, kz::TCryptBuffer<>(), kz::TBuffer<unsigned char>()));
}

// An extent file of this library, in memory, for the tests that poke its tables.
class ExtentSafetyTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string text =
            "# Disk DescriptorFile\nversion=1\nCID=abcdef01\nparentCID=ffffffff\n"
            "createType=\"monolithicSparse\"\nRW 5120 SPARSE \"e.vmdk\"\n";
        kz::TBuffer<unsigned char> textBuffer;
        textBuffer.assign(reinterpret_cast<const unsigned char*>(text.data()), text.size());
        kz::P<CVMDKDescriptor> descriptor(new CVMDKDescriptor(textBuffer));
        createEmptyVMDKSparseExtentFile(memory.get(), uri, compressed, 40, 128, zeros(65536),
                                        descriptor.get(), 20, kz::TBuffer<unsigned char>());
    }

    kz::TBuffer<unsigned char>& file() { return memory->getFile(uri)->getContent(); }

    // Byte offset of grain `index`'s entry in the first grain table.
    long long entryOffset(int index) {
        const long long directory = readUInt32(file(), 56) * 512LL;
        return readUInt32(file(), directory) * 512LL + 4 * index;
    }

    void pokeEntry(int index, unsigned int value) {
        std::memcpy(file().getData() + entryOffset(index), &value, 4);
    }

    void writeGrains(const std::vector<int>& grains) {
        kz::P<CVMDKSparseExtentFile> extent = openExtent(memory.get(), uri, kReadWrite);
        for (int grain : grains) {
            const Bytes data = harltest::makeRandomData(kGrainBytes, grain + 1);
            extent->seek(grain * kGrainBytes);
            extent->write(data.data(), kGrainBytes);
        }
        extent->close();
    }

    static constexpr kz::IIOStream::Access kReadWrite = kz::IIOStream::AccessReadWrite;
    bool compressed = false;
    kz::P<kz::CMemoryFileSystem> memory{new kz::CMemoryFileSystem};
    kz::P<kz::CFaultInjectingFileSystem> faulty{new kz::CFaultInjectingFileSystem(memory.get())};
    kz::CURI uri{"file:///d/e.vmdk"};
};

// Entries that point where no grain may lie are refused, for reading and for writing, before
// anything reaches the file; the other grains of the table go on working.
TEST_F(ExtentSafetyTest, RefusesGrainsWhoseEntriesPointAtMetadataOrOtherSlots) {
    writeGrains({0, 1, 2});
    const Bytes lastGrain = harltest::makeRandomData(kGrainBytes, 3);
    const long long directorySector = readUInt32(file(), 56);
    const long long tableSector = readUInt32(file(), directorySector * 512);

    const struct {
        const char* what;
        int grain;
        long long entry;
        const char* message;
    } cases[] = {
        {"descriptor", 5, 1, "points into the file's metadata."},
        {"redundant directory", 5, readUInt32(file(), 48), "points into the file's metadata."},
        {"grain directory", 5, directorySector, "points into the file's metadata."},
        {"end of the last table", 5, tableSector + 3, "points into the file's metadata."},
        {"end of the file", 5, static_cast<long long>(file().getUsed() / 512) - 127,
         "points past the end of the file's grain data."},
        {"grain 0's slot", 5, readUInt32(file(), entryOffset(0)),
         "points at a slot that another grain uses."},
        {"half into grain 0's slot", 5, readUInt32(file(), entryOffset(0)) + 64,
         "points at a slot that another grain uses."},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const kz::TBuffer<unsigned char> before = file();
        pokeEntry(c.grain, static_cast<unsigned int>(c.entry));
        const kz::TBuffer<unsigned char> poked = file();
        kz::P<CVMDKSparseExtentFile> extent = openExtent(memory.get(), uri, kReadWrite);
        Bytes data(kGrainBytes, 0x5a);
        const std::string prefix = "5 VMDK grain table entry ";
        for (const auto& use :
             std::vector<std::function<void()>>{[&] { extent->read(data.data(), 512); },
                                                [&] { extent->write(data.data(), 512); }}) {
            EXPECT_EQ(harltest::thrownText<kz::CIOError>([&] {
                          extent->seek(c.grain * kGrainBytes);
                          use();
                      }).rfind(prefix + c.message, 0),
                      0u);
        }
        extent->seek(2 * kGrainBytes);
        extent->read(data.data(), kGrainBytes);
        EXPECT_EQ(data, lastGrain);
        extent->close();
        // Only the content ID in the descriptor (sectors 1 to 20) changed: no grain and no
        // table was written.
        const size_t descriptorEnd = 21 * 512;
        EXPECT_EQ(file().getUsed(), poked.getUsed());
        EXPECT_EQ(std::memcmp(file().getData(), poked.getData(), 512), 0);
        EXPECT_EQ(std::memcmp(file().getData() + descriptorEnd, poked.getData() + descriptorEnd,
                              poked.getUsed() - descriptorEnd),
                  0);
        file() = before;
    }
}

// An entry behind the end of the data would point into the next grain written there: a file that
// claims such space gets no new grain. Found by fuzzing.
TEST_F(ExtentSafetyTest, AddsNoGrainWhereARefusedEntryPoints) {
    writeGrains({0});
    pokeEntry(5, static_cast<unsigned int>(file().getUsed() / 512 + 8));
    const size_t length = file().getUsed();
    kz::P<CVMDKSparseExtentFile> extent = openExtent(memory.get(), uri, kReadWrite);
    const Bytes data(kGrainBytes, 0x3c);
    harltest::CLogCapture log;
    EXPECT_EQ(harltest::thrownText<kz::CIOError>([&] {
                  extent->seek(6 * kGrainBytes);
                  extent->write(data.data(), kGrainBytes);
                  extent->close();
              }).rfind("5 VMDK file claims space behind the end of its grain data;", 0),
              0u);
    EXPECT_EQ(file().getUsed(), length);
}

// In a compressed extent the slot-size table says how long a slot is; the trail behind the data
// is no room for a grain either.
TEST_F(ExtentSafetyTest, ChecksCompressedSlotsAgainstTheirSizesAndTheTrail) {
    compressed = true;
    memory->deleteFile(uri, false);
    SetUp();
    // One table: the slot directory follows the grain directory's table behind two markers.
    const long long slotDirectory = readUInt32(file(), 56) + 1 + 5 + 1;
    const long long slotTable = readUInt32(file(), slotDirectory * 512);
    const long long trailSector = static_cast<long long>(file().getUsed() / 512) - 3;

    const struct {
        unsigned short slotSectors;
        const char* message;
    } cases[] = {{0, "points past the end of the file's grain data."},
                 {1, "points past the end of the file's grain data."}};

    for (const auto& c : cases) {
        pokeEntry(3, static_cast<unsigned int>(trailSector));
        std::memcpy(file().getData() + slotTable * 512 + 2 * 3, &c.slotSectors, 2);
        kz::P<CVMDKSparseExtentFile> extent =
            openExtent(memory.get(), uri, kz::IIOStream::AccessRead);
        EXPECT_EQ(harltest::thrownText<kz::CIOError>([&] {
                      extent->seek(3 * kGrainBytes);
                  }).rfind(std::string("5 VMDK grain table entry ") + c.message, 0),
                  0u);
    }
}

// A clean extent makes no stream flush, neither at a second flush nor when it goes; a dirty one
// reports at close what its last flush met, and can be closed again once the fault is gone.
TEST_F(ExtentSafetyTest, CloseReportsFailuresAndACleanExtentTouchesNoFile) {
    harltest::CLogCapture log;
    const Bytes data = harltest::makeRandomData(kGrainBytes, 9);
    {
        kz::P<CVMDKSparseExtentFile> extent = openExtent(faulty.get(), uri, kReadWrite);
        extent->write(data.data(), kGrainBytes);
        extent->flushChanges();
        faulty->failOperation(1, kz::CFaultInjectingFileSystem::Fault::Die);
        extent->flushChanges();
        extent->read(Bytes(100).data(), 100);
    }
    EXPECT_FALSE(faulty->hasFailed());
    EXPECT_TRUE(log.getLines().empty());

    faulty->failOperation(0, kz::CFaultInjectingFileSystem::Fault::Fail);
    kz::P<CVMDKSparseExtentFile> extent = openExtent(faulty.get(), uri, kReadWrite);
    extent->seek(kGrainBytes);
    extent->write(data.data(), 1000);
    faulty->failOperation(1, kz::CFaultInjectingFileSystem::Fault::Fail);
    EXPECT_THROW(extent->close(), kz::CFileSystemError);
    EXPECT_TRUE(extent->hasUnflushedChanges());
    extent->close();
    extent->close();
    EXPECT_EQ(harltest::thrownText<kz::CIOError>([&] { extent->seek(0); }),
              "10 VMDK sparse extent file is closed. [uri=file:///d/e.vmdk]");
    EXPECT_EQ(harltest::thrownText<kz::CIOError>([&] { extent->write(data.data(), 1); }),
              "10 VMDK sparse extent file is closed. [uri=file:///d/e.vmdk]");
    extent = openExtent(memory.get(), uri, kz::IIOStream::AccessRead);
    Bytes back(1000);
    extent->seek(kGrainBytes);
    extent->read(back.data(), 1000);
    EXPECT_EQ(back, Bytes(data.begin(), data.begin() + 1000));
}

// qemu marks grains written as zeros with an entry of 1 when the header has flag bit 2. Such a
// grain reads as zeros whatever the parent holds, and a write gives it a slot of its own,
// after which qemu still reads the file as the image it should be.
TEST(ExtentZeroedGrainTest, ReadsAndWritesGrainsThatQemuZeroed) {
    HARL_SKIP_WITHOUT_QEMU_IMG();
    harltest::CScratchFolder folder;
    const std::string raw = folder.file("raw.img");
    const std::string image = folder.file("zeroed.vmdk");
    const long long size = 8LL << 20, zeroedAt = 6LL << 20;
    {
        std::ofstream out(raw, std::ios::binary);
        const Bytes data = harltest::makeFileSystemLikeData(static_cast<size_t>(size), 3);
        out.write(reinterpret_cast<const char*>(data.data()), size);
    }
    std::string output;
    ASSERT_EQ(
        harltest::runQemuImg(
            {"convert", "-f", "raw", "-O", "vmdk", "-o", "zeroed_grain=on", raw, image}, &output),
        0)
        << output;
    const std::string zeroGrains = "write -z " + std::to_string(zeroedAt) + " 128k";
    ASSERT_EQ(harltest::runQemuIo({"-f", "vmdk", "-c", zeroGrains, image}, &output), 0) << output;
    ASSERT_EQ(harltest::runQemuIo({"-f", "raw", "-c", zeroGrains, raw}, &output), 0) << output;

    kz::P<kz::CLocalFileSystem> fs(new kz::CLocalFileSystem);
    kz::P<harltest::CRecordingDataProvider> parent(new harltest::CRecordingDataProvider);
    const Bytes patch = harltest::makeRandomData(3000, 4);
    {
        kz::P<CVMDKSparseExtentFile> extent = openExtent(
            fs.get(), folder.uriOf("zeroed.vmdk"), kz::IIOStream::AccessReadWrite, parent.get());
        Bytes back(kGrainBytes, 0x77);
        extent->seek(zeroedAt + kGrainBytes);
        extent->read(back.data(), kGrainBytes);
        EXPECT_EQ(back, Bytes(kGrainBytes, 0));
        EXPECT_TRUE(parent->calls.empty());
        extent->seek(zeroedAt);
        EXPECT_TRUE(extent->isGrainWrittenAndIndependentOfParent());
        EXPECT_EQ(extent->gatherSpaceInfo()->getPayloadSize(), size);
        extent->seek(zeroedAt + 1000);
        extent->write(patch.data(), 3000);
        extent->close();
    }
    EXPECT_TRUE(parent->calls.empty());
    std::fstream rawFile(raw, std::ios::in | std::ios::out | std::ios::binary);
    rawFile.seekp(zeroedAt + 1000);
    rawFile.write(reinterpret_cast<const char*>(patch.data()), 3000);
    rawFile.close();
    EXPECT_EQ(harltest::runQemuImg({"check", "-f", "vmdk", image}, &output), 0) << output;
    EXPECT_EQ(harltest::runQemuImg({"compare", "-f", "vmdk", "-F", "raw", image, raw}, &output), 0)
        << output;
}

}  // namespace
