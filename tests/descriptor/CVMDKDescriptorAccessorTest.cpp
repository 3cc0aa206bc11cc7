#include "harl/descriptor/CVMDKDescriptorAccessor.h"
#include "harl/format/CVMDKSparseExtentHeader.h"
#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CDataOutStream.h"
#include "harl/foundation/kz/CIOError.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

using harl::CVMDKDescriptorAccessor;

const std::string kText =
    "# Disk DescriptorFile\nversion=1\nCID=1234abcd\nparentCID=ffffffff\n"
    "createType=\"monolithicSparse\"\n\nRW 2048 SPARSE \"disk.vmdk\"\n";

kz::P<kz::CBufferStream> standalone(const std::string& text) {
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream(kz::CURI("file:///d/disk.vmdk")));
    stream->write(text.data(), static_cast<int>(text.size()), nullptr);
    return stream;
}

// A sparse extent header at sector 0 and the text in `sizeSectors` sectors from sector 1.
kz::P<kz::CBufferStream> embedded(const std::string& text, unsigned long long offsetSectors,
                                  unsigned long long sizeSectors, unsigned version = 1) {
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream(kz::CURI("file:///d/disk.vmdk")));
    harl::CVMDKSparseExtentHeader header;
    header.setVersion(version);
    header.setFlags(0x3);
    header.setDescriptorOffsetSectors(offsetSectors);
    header.setDescriptorSizeSectors(sizeSectors);
    kz::CDataOutStream out(stream.get());
    header.store(out);
    stream->setLength(static_cast<long long>(512 * (1 + sizeSectors) + 512));
    stream->seek(512);
    stream->write(text.data(), static_cast<int>(text.size()), nullptr);
    return stream;
}

std::string bytesAt(kz::CBufferStream& stream, size_t offset, size_t length) {
    return std::string(reinterpret_cast<const char*>(stream.getBuffer().getData()) + offset,
                       length);
}

kz::P<CVMDKDescriptorAccessor> access(kz::CBufferStream& stream,
                                      kz::IIOStream::Access mode = kz::IIOStream::AccessRead) {
    return kz::P<CVMDKDescriptorAccessor>(new CVMDKDescriptorAccessor(&stream, mode));
}

TEST(CVMDKDescriptorAccessorTest, ReadsEmbeddedAndStandaloneDescriptors) {
    kz::P<kz::CBufferStream> sparse = embedded(kText, 1, 20);
    sparse->seek(777);
    kz::P<CVMDKDescriptorAccessor> inSparse = access(*sparse);
    EXPECT_TRUE(inSparse->getEmbeddedInSparseExtentFile());
    EXPECT_EQ(inSparse->getDescriptor()->getContentID(), 0x1234abcdu);
    EXPECT_EQ(sparse->getPosition(), 777);

    harltest::CLogCapture log;
    kz::P<kz::CBufferStream> file = standalone(kText);
    kz::P<CVMDKDescriptorAccessor> alone = access(*file);
    EXPECT_FALSE(alone->getEmbeddedInSparseExtentFile());
    EXPECT_EQ(alone->getDescriptor()->getCreateType(), "monolithicSparse");
    EXPECT_EQ(log.messages(kz::LogLevel::Info),
              std::vector<kz::String>{"Unsupported VMDK type identifier (0x69442023). Handle as "
                                      "not embedded descriptor..."});
}

// 5 MiB is the largest descriptor; one sector more is refused before it is read. A refusal
// leaves the stream where it was and names the file.
TEST(CVMDKDescriptorAccessorTest, RefusesFilesWithoutAUsableDescriptor) {
    const std::string uri = " [uri=file:///d/disk.vmdk";
    const std::string noDescriptor = "5 No VMDK descriptor found in VMDK file." + uri + "]";
    using Case = std::pair<kz::P<kz::CBufferStream>, std::string>;
    for (const Case& item : std::vector<Case>{
             {standalone("abc"), "4 Unexpected end of data" + uri + ", position=0, size=4]"},
             {embedded(kText, 0, 20), noDescriptor},
             {embedded(kText, 1ULL << 60, 20), noDescriptor},
             {embedded(kText, 1, 20, 4), "6 VMDK file has an unsupported version: 4" + uri + "]"},
             {embedded(kText, 1, 0x500000 / 512), "nothing thrown"},
             {embedded(kText, 1, 0x500000 / 512 + 1),
              "5 VMDK descriptor is too big (5243392 bytes)." + uri + "]"},
         }) {
        kz::CBufferStream& stream = *item.first;
        stream.seek(3);
        EXPECT_EQ(harltest::thrownText<kz::CIOError>([&] { access(stream); }), item.second);
        EXPECT_EQ(stream.getPosition(), 3);
    }
}

// Bytes behind the first zero belong to no line and become zeros. A standalone file without
// room for the encoding line is left as it was.
TEST(CVMDKDescriptorAccessorTest, StoresIntoExactlyItsSpaceOrNotAtAll) {
    std::string text = kText + std::string(1, '\0') + "junk" + std::string(200, ' ');
    kz::P<kz::CBufferStream> file = standalone(text);
    file->seek(10);
    kz::P<CVMDKDescriptorAccessor> accessor = access(*file, kz::IIOStream::AccessReadWrite);
    const unsigned int newID = accessor->changeContentID();
    accessor->storeDescriptor(true);
    EXPECT_EQ(file->getPosition(), 10);
    EXPECT_EQ(file->getLength(), static_cast<long long>(text.size()));
    const std::string stored = bytesAt(*file, 0, text.size());
    EXPECT_NE(stored.find("CID=" + kz::String::hex(newID).toUTF8() + "\n"), std::string::npos);
    EXPECT_NE(stored.find("encoding=\"UTF-8\"\n"), std::string::npos);
    EXPECT_EQ(stored.find("junk"), std::string::npos);

    kz::P<kz::CBufferStream> sparse = embedded(kText, 1, 2);
    const std::string after = bytesAt(*sparse, 512 + 1024, 512);
    access(*sparse, kz::IIOStream::AccessReadWrite)->storeDescriptor(false);
    EXPECT_EQ(bytesAt(*sparse, 512 + 1024, 512), after);
    EXPECT_EQ(bytesAt(*sparse, 512 + 1023, 1), std::string(1, '\0'));

    kz::P<kz::CBufferStream> full = standalone(kText);
    EXPECT_THROW(access(*full, kz::IIOStream::AccessReadWrite)->storeDescriptor(true), kz::CError);
    EXPECT_EQ(bytesAt(*full, 0, kText.size()), kText);
    EXPECT_EQ(full->getLength(), static_cast<long long>(kText.size()));
    kz::P<CVMDKDescriptorAccessor> reader = access(*full);
    const std::string notWritable = " was called, but the accessor was not opened for writing.";
    EXPECT_EQ(harltest::thrownText<kz::CError>([&] { reader->changeContentID(); }),
              "-1 Internal error: CVMDKDescriptorAccessor::changeContentID" + notWritable);
    EXPECT_EQ(harltest::thrownText<kz::CError>([&] { reader->storeDescriptor(false); }),
              "-1 Internal error: CVMDKDescriptorAccessor::storeDescriptor" + notWritable);
}

TEST(CVMDKDescriptorAccessorTest, NewContentIDIsNeverTheOldOneNorReserved) {
    kz::P<kz::CBufferStream> file = standalone(kText);
    kz::P<CVMDKDescriptorAccessor> accessor = access(*file, kz::IIOStream::AccessReadWrite);
    unsigned int previous = accessor->getDescriptor()->getContentID();
    for (int i = 0; i < 200; ++i) {
        const unsigned int next = accessor->changeContentID();
        EXPECT_NE(next, previous);
        EXPECT_NE(next, 0u);
        EXPECT_NE(next, 0xFFFFFFFFu);
        EXPECT_EQ(accessor->getDescriptor()->getContentID(), next);
        previous = next;
    }
}

}  // namespace
