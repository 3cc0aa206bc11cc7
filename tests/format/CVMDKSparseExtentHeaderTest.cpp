#include "harl/format/CVMDKSparseExtentHeader.h"
#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using harl::CVMDKSparseExtentHeader;
using Bytes = kz::TBuffer<unsigned char>;

Bytes storeHeader(CVMDKSparseExtentHeader& header) {
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream);
    kz::CDataOutStream out(stream.get());
    header.store(out);
    return stream->getBuffer();
}

kz::P<CVMDKSparseExtentHeader> loadHeader(const Bytes& bytes) {
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream(bytes));
    kz::CDataInStream in(stream.get());
    kz::P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
    header->load(in);
    return header;
}

Bytes poke(Bytes bytes, size_t offset, std::initializer_list<int> values) {
    for (int value : values) {
        bytes[offset++] = static_cast<unsigned char>(value);
    }
    return bytes;
}

// "<message> [<properties>]" of the code-5 error that load throws.
std::string loadError(const Bytes& bytes) {
    try {
        loadHeader(bytes);
    } catch (const kz::CIOError& error) {
        const kz::String props = error.getProps().toString();
        EXPECT_EQ(error.getCode(), 5);
        return (error.getMessage() + (props.isEmpty() ? "" : " [" + props + "]")).toUTF8();
    }
    return "no error";
}

kz::P<CVMDKSparseExtentHeader> makeHeader(bool extension, size_t keyHashLength) {
    kz::P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
    header->setFlags(0x30003);
    header->setCapacitySectors(0x123456789ULL);
    header->setRedundantGrainDirectoryOffsetSectors(21);
    header->setUncleanShutdown(true);
    header->setCompressAlgorithm(1);
    header->setEncryptionExtensionEnabled(extension);
    header->setEncryptionAlgorthm(1);
    header->setEncryptionKeyHashAlgorthm(1);
    header->getEncryptionKeyHash().setUsed(keyHashLength);
    header->getEncryptionKeyHash().fill(0x5A);
    return header;
}

TEST(CVMDKSparseExtentHeaderTest, RoundTripsAtItsOffsetsWithAnyKeyHashLength) {
    const Bytes plain = storeHeader(*makeHeader(false, 0));
    ASSERT_EQ(plain.getUsed(), 512u);
    EXPECT_EQ(std::memcmp(plain.getData(), "KDMV", 4), 0);
    EXPECT_EQ(plain[12], 0x89);
    EXPECT_EQ(std::memcmp(plain.getData() + 72, "\x01\n \r\n\x01\x00\x00", 8), 0);
    kz::P<CVMDKSparseExtentHeader> loaded = loadHeader(poke(plain, 72, {0x80}));
    EXPECT_TRUE(loaded->getUncleanShutdown());
    EXPECT_TRUE(storeHeader(*loaded) == plain);

    for (size_t length : {0, 1, 427}) {
        kz::P<CVMDKSparseExtentHeader> header = makeHeader(true, length);
        const Bytes bytes = storeHeader(*header);
        ASSERT_EQ(bytes.getUsed(), 512u) << length;
        EXPECT_EQ(std::memcmp(bytes.getData(), "\x45\x4B\x64\x05", 4), 0);
        EXPECT_EQ(bytes[83] | bytes[84] << 8, static_cast<int>(length));
        loaded = loadHeader(bytes);
        EXPECT_TRUE(loaded->getEncryptionKeyHash() == header->getEncryptionKeyHash());
        EXPECT_TRUE(storeHeader(*loaded) == bytes);
    }
}

TEST(CVMDKSparseExtentHeaderTest, RefusesCorruptRecords) {
    const Bytes plain = storeHeader(*makeHeader(false, 0));
    const Bytes extended = storeHeader(*makeHeader(true, 0));

    // All refusals are code 5; a text-mode transfer turns "\r\n" into "\n".
    EXPECT_EQ(loadError(poke(plain, 0, {0xFF, 0xFF, 0xFF, 0xFF})),
              "Invalid magic number in VMDK sparse header [num=4294967295]");
    EXPECT_EQ(loadError(poke(plain, 73, {'\n', ' ', '\n', '\n'})),
              "VMDK image is corrupted (probably by having been transferred in FTP ASCII mode).");
    EXPECT_EQ(loadError(poke(extended, 83, {0xAC, 0x01})),
              "Encryption key hash length in VMDK sparse header exceeds the room in the header "
              "[length=428, maximum=427]");
    Bytes shortRecord = plain;
    shortRecord.setUsed(511);
    EXPECT_THROW(loadHeader(shortRecord), kz::CIOError);

    // A hash the record cannot hold is refused before anything is written.
    kz::P<CVMDKSparseExtentHeader> header = makeHeader(true, 0);
    EXPECT_THROW(header->setEncryptionKeyHash(Bytes(428)), kz::CInvalidArgError);
    header->getEncryptionKeyHash().setUsed(428);
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream);
    kz::CDataOutStream out(stream.get());
    EXPECT_THROW(header->store(out), kz::CInvalidArgError);
    EXPECT_EQ(stream->getLength(), 0);
}

TEST(CVMDKSparseExtentHeaderTest, FlagsDecideWhatIsReadAndReservedBytesSurvive) {
    // Bit 0 clear: the line detection bytes are not looked at and are written as the
    // constant. Bit 1 clear: the redundant offset reads and writes as 0. Bytes at 79 under
    // the plain magic are reserved data, not an extension.
    Bytes bytes = poke(storeHeader(*makeHeader(false, 0)), 8, {0, 0, 0, 0});
    bytes = poke(poke(poke(bytes, 73, {'x', 'y', 'z'}), 79, {1, 0, 1, 0, 4}), 511, {0xAB});
    kz::P<CVMDKSparseExtentHeader> header = loadHeader(bytes);
    EXPECT_EQ(header->getRedundantGrainDirectoryOffsetSectors(), 0u);
    EXPECT_FALSE(header->getEncryptionExtensionEnabled());
    EXPECT_EQ(header->getEncryptionAlgorithm() + header->getEncryptionKeyHashAlgorithm(), 0);
    EXPECT_TRUE(storeHeader(*header) == poke(poke(bytes, 73, {'\n', ' ', '\r'}), 48, {0}));

    // Turning the extension on keeps the reserved bytes that still have room.
    header->setEncryptionExtensionEnabled(true);
    const Bytes extended = storeHeader(*header);
    EXPECT_EQ(extended[85], 1);
    EXPECT_EQ(extended[89], 4);
    EXPECT_EQ(extended[511], 0);
}

}  // namespace
