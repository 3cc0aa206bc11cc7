#include "format/CVMDKSparseExtentHeader.h"
#include "foundation/kz/CBufferStream.h"
#include "foundation/kz/CIOError.h"
#include "foundation/kz/CInvalidArgError.h"

#include "tests/support/CScratchFolder.h"
#include "tests/support/QemuImg.h"
#include "tests/support/TestFiles.h"
#include <gtest/gtest.h>

#include <cstring>

namespace {

using harl::CVMDKSparseExtentHeader;

kz::TBuffer<unsigned char> storeHeader(CVMDKSparseExtentHeader& header) {
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream);
    kz::CDataOutStream out(stream.get());
    header.store(out);
    return stream->getBuffer();
}

kz::P<CVMDKSparseExtentHeader> loadHeader(const kz::TBuffer<unsigned char>& bytes) {
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream(bytes));
    kz::CDataInStream in(stream.get());
    kz::P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
    header->load(in);
    EXPECT_EQ(stream->getPosition(), harl::kVMDKSparseHeaderSizeBytes);
    return header;
}

void poke(kz::TBuffer<unsigned char>& bytes, size_t offset, std::initializer_list<int> values) {
    for (int value : values) {
        bytes[offset++] = static_cast<unsigned char>(value);
    }
}

kz::CIOError loadError(const kz::TBuffer<unsigned char>& bytes) {
    try {
        loadHeader(bytes);
    } catch (const kz::CIOError& error) {
        return error;
    }
    ADD_FAILURE() << "load did not throw";
    return kz::CIOError(0, "");
}

kz::P<CVMDKSparseExtentHeader> makeFilledHeader() {
    kz::P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
    header->setVersion(3);
    header->setFlags(0x30003);
    header->setCapacitySectors(0x123456789ULL);
    header->setGrainSizeSectors(128);
    header->setDescriptorOffsetSectors(1);
    header->setDescriptorSizeSectors(20);
    header->setGrainTableEntryCount(512);
    header->setRedundantGrainDirectoryOffsetSectors(21);
    header->setGrainDirectoryOffsetSectors(0xFFFFFFFFFFFFFFFFULL);
    header->setOverheadSectors(128);
    header->setUncleanShutdown(true);
    header->setCompressAlgorithm(1);
    return header;
}

void expectSameFields(const CVMDKSparseExtentHeader& a, const CVMDKSparseExtentHeader& b) {
    EXPECT_EQ(a.getVersion(), b.getVersion());
    EXPECT_EQ(a.getFlags(), b.getFlags());
    EXPECT_EQ(a.getCapacitySectors(), b.getCapacitySectors());
    EXPECT_EQ(a.getGrainSizeSectors(), b.getGrainSizeSectors());
    EXPECT_EQ(a.getDescriptorOffsetSectors(), b.getDescriptorOffsetSectors());
    EXPECT_EQ(a.getDescriptorSizeSectors(), b.getDescriptorSizeSectors());
    EXPECT_EQ(a.getGrainTableEntryCount(), b.getGrainTableEntryCount());
    EXPECT_EQ(a.getRedundantGrainDirectoryOffsetSectors(),
              b.getRedundantGrainDirectoryOffsetSectors());
    EXPECT_EQ(a.getGrainDirectoryOffsetSectors(), b.getGrainDirectoryOffsetSectors());
    EXPECT_EQ(a.getOverheadSectors(), b.getOverheadSectors());
    EXPECT_EQ(a.getUncleanShutdown(), b.getUncleanShutdown());
    EXPECT_EQ(a.getCompressAlgorithm(), b.getCompressAlgorithm());
    EXPECT_EQ(a.getEncryptionExtensionEnabled(), b.getEncryptionExtensionEnabled());
    EXPECT_EQ(a.getEncryptionAlgorithm(), b.getEncryptionAlgorithm());
    EXPECT_EQ(a.getEncryptionKeyHashAlgorithm(), b.getEncryptionKeyHashAlgorithm());
    EXPECT_TRUE(a.getEncryptionKeyHash() == b.getEncryptionKeyHash());
    EXPECT_TRUE(a.getReserved() == b.getReserved());
}

TEST(CVMDKSparseExtentHeaderTest, PlainHeaderRoundTripsAtItsOffsets) {
    kz::P<CVMDKSparseExtentHeader> fresh(new CVMDKSparseExtentHeader);
    kz::TBuffer<unsigned char> zeroReserved(433);
    zeroReserved.fill(0);
    EXPECT_TRUE(fresh->getReserved() == zeroReserved);
    EXPECT_EQ(fresh->getEncryptionKeyHash().getUsed(), 0u);

    kz::P<CVMDKSparseExtentHeader> header = makeFilledHeader();
    kz::TBuffer<unsigned char> bytes = storeHeader(*header);
    ASSERT_EQ(bytes.getUsed(), 512u);
    EXPECT_EQ(std::memcmp(bytes.getData(), "KDMV", 4), 0);
    EXPECT_EQ(bytes[12], 0x89);
    EXPECT_EQ(bytes[16], 0x01);
    EXPECT_EQ(bytes[48], 21);
    EXPECT_EQ(bytes[56], 0xFF);
    EXPECT_EQ(bytes[72], 1);
    EXPECT_EQ(std::memcmp(bytes.getData() + 73, "\n \r\n", 4), 0);
    EXPECT_EQ(bytes[77], 1);
    expectSameFields(*loadHeader(bytes), *header);

    // Any non-zero byte reads as an unclean shutdown.
    poke(bytes, 72, {0x80});
    EXPECT_TRUE(loadHeader(bytes)->getUncleanShutdown());

    // A copy owns its own buffers.
    CVMDKSparseExtentHeader copy(*header);
    header->getEncryptionKeyHash().setUsed(3);
    EXPECT_EQ(copy.getEncryptionKeyHash().getUsed(), 0u);
}

TEST(CVMDKSparseExtentHeaderTest, ExtensionHoldsKeyHashOfAnyLengthUpTo427) {
    for (size_t length : {0, 1, 32, 426, 427}) {
        kz::P<CVMDKSparseExtentHeader> header = makeFilledHeader();
        header->setEncryptionExtensionEnabled(true);
        header->setEncryptionAlgorthm(1);
        header->setEncryptionKeyHashAlgorthm(1);
        kz::TBuffer<unsigned char> hash(length);
        for (size_t i = 0; i < length; ++i) {
            hash[i] = static_cast<unsigned char>(i * 7 + 1);
        }
        header->setEncryptionKeyHash(hash);
        kz::TBuffer<unsigned char> bytes = storeHeader(*header);
        ASSERT_EQ(bytes.getUsed(), 512u) << length;
        EXPECT_EQ(std::memcmp(bytes.getData(), "\x45\x4B\x64\x05", 4), 0);
        EXPECT_EQ(bytes[83] | bytes[84] << 8, static_cast<int>(length));
        EXPECT_EQ(header->getReserved().getUsed(), 427 - length);
        expectSameFields(*loadHeader(bytes), *header);
    }
}

TEST(CVMDKSparseExtentHeaderTest, RefusesKeyHashLongerThanTheRecord) {
    kz::P<CVMDKSparseExtentHeader> header = makeFilledHeader();
    header->setEncryptionExtensionEnabled(true);
    kz::TBuffer<unsigned char> bytes = storeHeader(*header);
    for (int length : {428, 0xFFFF}) {
        poke(bytes, 83, {length & 0xFF, length >> 8});
        const kz::CIOError error = loadError(bytes);
        EXPECT_EQ(error.getCode(), 5);
        EXPECT_EQ(error.getMessage(),
                  "Encryption key hash length in VMDK sparse header exceeds the room in the "
                  "header");
        EXPECT_EQ(error.getProps().get("length"), kz::String::number(length));
    }

    EXPECT_THROW(header->setEncryptionKeyHash(kz::TBuffer<unsigned char>(428)),
                 kz::CInvalidArgError);
    header->getEncryptionKeyHash().setUsed(428);
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream);
    kz::CDataOutStream out(stream.get());
    EXPECT_THROW(header->store(out), kz::CInvalidArgError);
    EXPECT_EQ(stream->getLength(), 0);
    // Without the extension the hash is not part of the record.
    header->setEncryptionExtensionEnabled(false);
    EXPECT_EQ(storeHeader(*header).getUsed(), 512u);
}

TEST(CVMDKSparseExtentHeaderTest, ReservedAreaIsKeptAsData) {
    kz::TBuffer<unsigned char> bytes = storeHeader(*makeFilledHeader());
    // Bytes at 79 under the plain magic are reserved data, not an extension.
    poke(bytes, 79, {1, 0, 1, 0, 4, 0});
    poke(bytes, 511, {0xAB});
    kz::P<CVMDKSparseExtentHeader> header = loadHeader(bytes);
    EXPECT_FALSE(header->getEncryptionExtensionEnabled());
    EXPECT_EQ(header->getEncryptionAlgorithm(), 0);
    EXPECT_EQ(header->getReserved()[0], 1);
    EXPECT_TRUE(storeHeader(*header) == bytes);

    // Turning the extension on keeps the reserved bytes that still have room.
    header->setEncryptionExtensionEnabled(true);
    const kz::TBuffer<unsigned char> extended = storeHeader(*header);
    EXPECT_EQ(extended[85], 1);
    EXPECT_EQ(extended[89], 4);
    EXPECT_EQ(extended[511], 0);
}

TEST(CVMDKSparseExtentHeaderTest, LineDetectionAndRedundantDirectoryFollowTheFlags) {
    kz::TBuffer<unsigned char> bytes = storeHeader(*makeFilledHeader());
    // A text-mode transfer turned "\r\n" into "\n".
    poke(bytes, 73, {'\n', ' ', '\n', '\n'});
    const kz::CIOError error = loadError(bytes);
    EXPECT_EQ(error.getCode(), 5);
    EXPECT_EQ(error.getMessage(),
              "VMDK image is corrupted (probably by having been transferred in FTP ASCII "
              "mode).");
    EXPECT_TRUE(error.getProps().isEmpty());

    // Without bit 0 the bytes are not looked at and are written back as the constant; without
    // bit 1 the redundant offset is dropped.
    poke(bytes, 8, {0, 0, 0, 0});
    kz::P<CVMDKSparseExtentHeader> header = loadHeader(bytes);
    EXPECT_EQ(header->getRedundantGrainDirectoryOffsetSectors(), 0u);
    const kz::TBuffer<unsigned char> stored = storeHeader(*header);
    EXPECT_EQ(std::memcmp(stored.getData() + 73, "\n \r\n", 4), 0);
    EXPECT_EQ(stored[48], 0);
}

TEST(CVMDKSparseExtentHeaderTest, RefusesUnknownMagicAndShortRecord) {
    kz::TBuffer<unsigned char> bytes = storeHeader(*makeFilledHeader());
    poke(bytes, 0, {0xFF, 0xFF, 0xFF, 0xFF});
    const kz::CIOError error = loadError(bytes);
    EXPECT_EQ(error.getCode(), 5);
    EXPECT_EQ(error.getMessage(), "Invalid magic number in VMDK sparse header");
    EXPECT_EQ(error.getProps().get("num"), "4294967295");

    kz::TBuffer<unsigned char> shortRecord = storeHeader(*makeFilledHeader());
    shortRecord.setUsed(511);
    EXPECT_EQ(loadError(shortRecord).getCode(), 4);
}

TEST(CVMDKSparseExtentHeaderTest, LoadsHeadersOfQemuImg) {
    HARL_SKIP_WITHOUT_QEMU_IMG();
    harltest::CScratchFolder folder;
    const std::string sparse = folder.file("sparse.vmdk");
    const std::string stream = folder.file("stream.vmdk");
    harltest::createQemuVMDK(sparse, "monolithicSparse", 100 << 20);
    harltest::createQemuVMDK(stream, "streamOptimized", 100 << 20);

    const kz::TBuffer<unsigned char> bytes = harltest::readFilePart(sparse, 0, 512);
    kz::P<CVMDKSparseExtentHeader> header = loadHeader(bytes);
    EXPECT_EQ(header->getVersion(), 1u);
    EXPECT_EQ(header->getFlags(), 0x3u);
    EXPECT_EQ(header->getCapacitySectors(), 204800u);
    EXPECT_EQ(header->getGrainSizeSectors(), 128u);
    EXPECT_EQ(header->getDescriptorOffsetSectors(), 1u);
    EXPECT_GT(header->getDescriptorSizeSectors(), 0u);
    EXPECT_EQ(header->getGrainTableEntryCount(), 512u);
    EXPECT_GT(header->getRedundantGrainDirectoryOffsetSectors(), 0u);
    EXPECT_GT(header->getGrainDirectoryOffsetSectors(),
              header->getRedundantGrainDirectoryOffsetSectors());
    EXPECT_EQ(header->getOverheadSectors() % 128, 0u);
    EXPECT_FALSE(header->getEncryptionExtensionEnabled());
    EXPECT_TRUE(storeHeader(*header) == bytes);

    header = loadHeader(harltest::readFilePart(stream, 0, 512));
    EXPECT_EQ(header->getVersion(), 3u);
    EXPECT_EQ(header->getFlags() & 0x30000, 0x30000u);
    EXPECT_EQ(header->getCompressAlgorithm(), 1);
}

}  // namespace
