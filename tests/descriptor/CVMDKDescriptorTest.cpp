#include "descriptor/CVMDKDescriptor.h"
#include "descriptor/CVMDKExtentInfo.h"
#include "format/CVMDKSparseExtentHeader.h"
#include "foundation/kz/CBufferStream.h"
#include "foundation/kz/CError.h"
#include "foundation/kz/CIOError.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/CScratchFolder.h"
#include "tests/support/QemuImg.h"
#include "tests/support/TestFiles.h"
#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

using harl::CVMDKDescriptor;
using harl::CVMDKExtentInfo;

kz::TBuffer<unsigned char> bytesOf(const std::string& text) {
    kz::TBuffer<unsigned char> bytes(text.size());
    if (!text.empty()) {
        std::memcpy(bytes.getData(), text.data(), text.size());
    }
    return bytes;
}

std::string textOf(const kz::TBuffer<unsigned char>& bytes) {
    return std::string(reinterpret_cast<const char*>(bytes.getData()), bytes.getUsed());
}

kz::P<CVMDKDescriptor> parse(const std::string& text) {
    return kz::P<CVMDKDescriptor>(new CVMDKDescriptor(bytesOf(text)));
}

kz::TBuffer<unsigned char> zeros(size_t size) {
    kz::TBuffer<unsigned char> buffer(size);
    buffer.fill(0);
    return buffer;
}

// Exposes the protected lookup.
class CDescriptorProbe : public CVMDKDescriptor {
public:
    using CVMDKDescriptor::CVMDKDescriptor;
    using CVMDKDescriptor::findValueEntry;
};

TEST(CVMDKDescriptorTest, LineEndsAndTextEnds) {
    struct Case {
        std::string text;
        size_t entries;
        std::string written;
    };

    for (const Case& c :
         {Case{"a=1\n", 1, "a=1\n"}, Case{"a=1", 1, "a=1\n"}, Case{"a=1\n\n", 2, "a=1\n\n"},
          Case{"\n", 1, "\n"}, Case{"", 0, ""}, Case{std::string("\0a=1\n", 5), 0, ""},
          Case{std::string("a=1\nb=2\0c=3\n", 12), 2, "a=1\nb=2\n"},
          Case{"x\r\n\r\n", 2, "x\r\n\r\n"}}) {
        kz::P<CVMDKDescriptor> descriptor = parse(c.text);
        EXPECT_EQ(descriptor->getEntries().size(), c.entries) << c.text;
        EXPECT_EQ(descriptor->toString(), c.written) << c.text;
    }
}

// Every empty line of a long run is kept; the run once cost time quadratic in its length.
TEST(CVMDKDescriptorTest, KeepsLongRunsOfEmptyLines) {
    const std::string text = "a=1\n" + std::string(1 << 18, '\n') + "b=2\n";
    kz::P<CVMDKDescriptor> descriptor = parse(text);
    EXPECT_EQ(descriptor->getEntries().size(), (1u << 18) + 2);
    EXPECT_EQ(descriptor->toString(), text);
}

TEST(CVMDKDescriptorTest, LineClassesAndTheirWrittenForm) {
    struct Case {
        const char* line;
        const char* written;
        bool isValue;
    };

    for (const Case& c : {
             Case{"# a=1", "# a=1", false},
             Case{" # a=1", " # a=1", false},
             Case{" a = 1", "a=1", true},
             Case{"a=1\r", "a=1", true},
             Case{"ddb.adapterType=\"ide\"", "ddb.adapterType = \"ide\"", true},
             Case{"DDB.x = 1", "DDB.x=1", true},
             Case{"x=\"", "x=\"\"", true},
             Case{"x=\"y", "x=\"y", true},
             Case{"x=", "x=", true},
             Case{"=1", "=1", false},
             Case{"some text\r", "some text\r", false},
             Case{"RW 8 SPARSE \"a b=c.vmdk\"", "RW 8 SPARSE \"a b=c.vmdk\"", false},
         }) {
        kz::P<CVMDKDescriptor> descriptor = parse(std::string(c.line) + "\n");
        ASSERT_EQ(descriptor->getEntries().size(), 1u) << c.line;
        EXPECT_EQ(descriptor->toString(), std::string(c.written) + "\n") << c.line;
        const bool isValue = dynamic_cast<CVMDKDescriptor::CNameValueEntry*>(
                                 descriptor->getEntries()[0].get()) != nullptr;
        EXPECT_EQ(isValue, c.isValue) << c.line;
    }
    kz::TArray<kz::P<CVMDKExtentInfo>> extents;
    parse("RW 8 SPARSE \"a b=c.vmdk\"\n")->getExtentEntries(extents);
    ASSERT_EQ(extents.size(), 1u);
    EXPECT_EQ(extents[0]->getFilename(), "a b=c.vmdk");
}

TEST(CVMDKDescriptorTest, LookupsIgnoreCaseAndTheFirstLineWins) {
    kz::P<CDescriptorProbe> descriptor(new CDescriptorProbe(bytesOf("cid=1f\nCID=2\n")));
    EXPECT_EQ(descriptor->getContentID(), 0x1fu);
    descriptor->setContentID(0xabc);
    EXPECT_EQ(descriptor->toString(), "cid=abc\nCID=2\n");
    EXPECT_EQ(descriptor->findValueEntry("Cid")->getName(), "cid");
    EXPECT_FALSE(descriptor->findValueEntry("nope"));

    kz::String value = "stale";
    EXPECT_FALSE(descriptor->tryGetValue("nope", value));
    EXPECT_TRUE(value.isEmpty());
    EXPECT_FALSE(descriptor->hasValue("nope"));
    try {
        descriptor->getValue("nope");
        FAIL();
    } catch (const kz::CError& error) {
        EXPECT_EQ(error.getMessage(), "VMDK descriptor value 'nope' not found.");
        EXPECT_EQ(error.getCode(), -1);
        EXPECT_TRUE(error.getDetail().isEmpty());
        EXPECT_TRUE(error.getProps().isEmpty());
    }
}

TEST(CVMDKDescriptorTest, KeyTableWritesAndReadsBack) {
    kz::P<CVMDKDescriptor> descriptor(new CVMDKDescriptor);
    // Absent keys that have a default.
    EXPECT_EQ(descriptor->getParentContentID(), 0xFFFFFFFFu);
    EXPECT_FALSE(descriptor->getKzCreateExtentFilesOnDemand());
    EXPECT_TRUE(descriptor->getKzEncryptionAlgorithm().isEmpty());
    kz::String hint = "stale";
    EXPECT_FALSE(descriptor->tryGetParentFileNameHint(hint));
    EXPECT_TRUE(hint.isEmpty());
    EXPECT_THROW(descriptor->getVersion(), kz::CError);
    EXPECT_THROW(descriptor->getKzEncryptionIV(), kz::CError);

    descriptor->setVersion(1);
    descriptor->setContentID(0x0a0b);
    descriptor->setParentContentID(0xFFFFFFFF);
    descriptor->setAdapterType("lsilogic");
    descriptor->setParentFileNameHint("parent.vmdk");
    descriptor->setCreateType("twoGbMaxExtentSparse");
    descriptor->setKzCreateExtentFilesOnDemand(true);
    descriptor->setKzEncryptionAlgorithm("aes256cbc");
    descriptor->setKzEncryptionIV(bytesOf("\x01\xab"));
    descriptor->setGeometryCylinders(1024);
    descriptor->setGeometryHeads(255);
    descriptor->setGeometrySectors(63);
    descriptor->setEncodingUTF8();
    EXPECT_EQ(descriptor->toString(),
              "version=1\nCID=a0b\nparentCID=ffffffff\nparentFileNameHint=\"parent.vmdk\"\n"
              "createType=\"twoGbMaxExtentSparse\"\nkzCreateExtentFilesOnDemand=\"true\"\n"
              "kzEncAlg=aes256cbc\nkzEncIV=01ab\nencoding=\"UTF-8\"\n"
              "ddb.adapterType = \"lsilogic\"\nddb.geometry.cylinders = \"1024\"\n"
              "ddb.geometry.heads = \"255\"\nddb.geometry.sectors = \"63\"\n");

    kz::P<CVMDKDescriptor> read = parse(descriptor->toString().toUTF8());
    EXPECT_EQ(read->getVersion(), 1);
    EXPECT_EQ(read->getContentID(), 0xa0bu);
    EXPECT_EQ(read->getParentContentID(), 0xFFFFFFFFu);
    EXPECT_EQ(read->getParentFileNameHint(), "parent.vmdk");
    EXPECT_EQ(read->getCreateType(), "twoGbMaxExtentSparse");
    EXPECT_TRUE(read->getKzCreateExtentFilesOnDemand());
    EXPECT_TRUE(read->getKzEncryptionIV() == bytesOf("\x01\xab"));
    EXPECT_EQ(read->getAdapterType(), "lsilogic");
    EXPECT_EQ(read->getGeometryCylinders(), 1024);
    EXPECT_EQ(read->getGeometryHeads(), 255);
    EXPECT_EQ(read->getGeometrySectors(), 63);

    // Malformed and out-of-range numbers reach the caller as errors.
    EXPECT_THROW(parse("version=1x\n")->getVersion(), kz::CError);
    EXPECT_THROW(parse("version=4294967296\n")->getVersion(), kz::CError);
    EXPECT_THROW(parse("CID=100000000\n")->getContentID(), kz::CError);
    EXPECT_THROW(parse("kzEncIV=abc\n")->getKzEncryptionIV(), kz::CError);
    EXPECT_EQ(parse("parentCID= ffffffff \n")->getParentContentID(), 0xFFFFFFFFu);
}

TEST(CVMDKDescriptorTest, NewLinesGoToTheirPlace) {
    kz::P<CVMDKDescriptor> descriptor = parse(
        "# Disk\nversion=1\n# Extent description\nRW 8 SPARSE \"a\"\nRW 8 SPARSE \"b\"\n"
        "# The Disk Data Base\nddb.x = \"1\"\n");
    EXPECT_EQ(descriptor->getHeaderInsertIndex(), 2);
    descriptor->setValue("CID", "1", false, true);
    descriptor->addGenericLine("# header comment", true);
    descriptor->setValue("ddb.y", "2", true, false);
    descriptor->addGenericLine("# tail", false);
    descriptor->addExtentEntry(new CVMDKExtentInfo("RW", 8, "SPARSE", "c", -1));
    // An existing key keeps its place, spelling and quoting whatever the flags say.
    descriptor->setValue("VERSION", "2", true, false);
    EXPECT_EQ(descriptor->getHeaderInsertIndex(), 4);
    EXPECT_EQ(descriptor->toString(),
              "# Disk\nversion=2\nCID=1\n# header comment\n# Extent description\n"
              "RW 8 SPARSE \"a\"\nRW 8 SPARSE \"b\"\nRW 8 SPARSE \"c\"\n# The Disk Data Base\n"
              "ddb.x = \"1\"\nddb.y = \"2\"\n# tail\n");

    kz::TArray<kz::P<CVMDKExtentInfo>> extents{nullptr};
    descriptor->getExtentEntries(extents);
    ASSERT_EQ(extents.size(), 4u);
    EXPECT_EQ(extents[3]->getFilename(), "c");

    // Without an extent line, a new one goes to the end.
    kz::P<CVMDKDescriptor> plain = parse("a=1\n# x\n");
    plain->addExtentEntry(new CVMDKExtentInfo("RW", 1, "SPARSE", "d", 5));
    EXPECT_EQ(plain->toString(), "a=1\n# x\nRW 1 SPARSE \"d\" 5\n");
    EXPECT_EQ(plain->getHeaderInsertIndex(), 1);
}

TEST(CVMDKDescriptorTest, CopySharesEntriesAndAssignmentClonesThem) {
    kz::P<CVMDKDescriptor> original = parse("version=1\nRW 8 SPARSE \"a\"\n");
    CVMDKDescriptor shared(*original);
    shared.setVersion(2);
    EXPECT_EQ(original->getVersion(), 2);

    CVMDKDescriptor assigned;
    assigned = *original;
    assigned.setVersion(3);
    EXPECT_EQ(original->getVersion(), 2);
    EXPECT_EQ(assigned.getHeaderInsertIndex(), 1);
    EXPECT_EQ(assigned.toString(), "version=3\nRW 8 SPARSE \"a\"\n");
    EXPECT_NE(assigned.getEntries()[1], original->getEntries()[1]);
}

TEST(CVMDKDescriptorTest, EncodingLineChoosesTheDecoding) {
    harltest::CLogCapture log;
    for (const char* encoding : {"", "encoding=\"UTF_8\"\n", "encoding=\"utf-8\"\n"}) {
        EXPECT_EQ(parse(std::string(encoding) + "a=\xc3\xa9\n")->getValue("a"),
                  kz::String::fromLatin1("\xe9", 1))
            << encoding;
    }
    EXPECT_EQ(parse("encoding=\"ISO-8859-1\"\na=\xe9\n")->getValue("a"),
              kz::String::fromLatin1("\xe9", 1));
    EXPECT_TRUE(log.getLines().empty());

    // An unknown character set reads as Latin-1 and is written back as UTF-8.
    kz::P<CVMDKDescriptor> descriptor = parse("a=\xe9\nencoding=\"windows-1252\"\n");
    ASSERT_EQ(log.messages(kz::LogLevel::Warning).size(), 1u);
    EXPECT_EQ(log.messages(kz::LogLevel::Warning)[0],
              "Unknown VMDK descriptor encoding 'windows-1252'. Using Latin-1 instead.");
    kz::P<kz::CBufferStream> out(new kz::CBufferStream);
    descriptor->store(*out, 64, zeros(64));
    EXPECT_EQ(textOf(out->getBuffer()).substr(0, 22), "a=\xc3\xa9\nencoding=\"UTF-8\"\n");

    // Invalid UTF-8 under a UTF-8 encoding line falls back to Latin-1.
    log.clear();
    EXPECT_EQ(parse("encoding=\"UTF-8\"\na=\xff\n")->getValue("a"),
              kz::String::fromLatin1("\xff", 1));
    ASSERT_EQ(log.messages(kz::LogLevel::Warning).size(), 1u);
    EXPECT_TRUE(log.messages(kz::LogLevel::Warning)[0].startsWith(
        "Ignoring VMDK descriptor decoding error (encoding: 'UTF-8'. Using Latin-1 encoding "
        "instead."));
}

TEST(CVMDKDescriptorTest, StoreFitsTheTargetSizeOrWritesNothing) {
    kz::P<CVMDKDescriptor> descriptor = parse("version=1\n");
    const std::string text = "version=1\nencoding=\"UTF-8\"\n";
    const int size = static_cast<int>(text.size());

    kz::P<kz::CBufferStream> out(new kz::CBufferStream);
    descriptor->store(*out, 100, zeros(100 - size));
    EXPECT_EQ(textOf(out->getBuffer()), text + std::string(100 - size, '\0'));
    EXPECT_EQ(parse(textOf(out->getBuffer()))->toString(), text);

    out = new kz::CBufferStream;
    descriptor->store(*out, size, kz::TBuffer<unsigned char>());
    EXPECT_EQ(textOf(out->getBuffer()), text);

    out = new kz::CBufferStream;
    try {
        parse("version=1\n")->store(*out, 20, zeros(20));
        FAIL();
    } catch (const kz::CError& error) {
        EXPECT_EQ(error.getMessage(),
                  "Internal error: actual VMDK descriptor size exceeds target size (actual size: " +
                      std::to_string(size) + ", target size: 20");
        EXPECT_EQ(error.getCode(), -1);
    }
    try {
        descriptor->store(*out, size + 10, zeros(9));
        FAIL();
    } catch (const kz::CError& error) {
        EXPECT_EQ(error.getMessage(), "Internal error: pad buffer too small (size: 9, needed: 10");
    }
    EXPECT_EQ(out->getLength(), 0);
}

// Reads the descriptor text of a file qemu-img made: embedded behind the header, or the
// whole file.
kz::TBuffer<unsigned char> readDescriptorText(const std::string& path, long long* sizeBytes) {
    kz::TBuffer<unsigned char> head = harltest::readFilePart(path, 0, 512);
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream(head));
    kz::CDataInStream in(stream.get());
    kz::P<harl::CVMDKSparseExtentHeader> header(new harl::CVMDKSparseExtentHeader);
    try {
        header->load(in);
    } catch (const kz::CIOError&) {
        *sizeBytes = -1;
        return harltest::readWholeFile(path);
    }
    *sizeBytes = static_cast<long long>(header->getDescriptorSizeSectors()) * 512;
    return harltest::readFilePart(path, header->getDescriptorOffsetSectors() * 512,
                                  static_cast<size_t>(*sizeBytes));
}

TEST(CVMDKDescriptorTest, ReadsAndWritesBackDescriptorsOfQemuImg) {
    HARL_SKIP_WITHOUT_QEMU_IMG();
    harltest::CScratchFolder folder;

    struct Case {
        const char* subformat;
        long long sizeBytes;
        std::vector<long long> extentSectors;
    };

    for (const Case& c : {Case{"monolithicSparse", 100 << 20, {204800}},
                          Case{"streamOptimized", 100 << 20, {204800}},
                          Case{"twoGbMaxExtentSparse", 5LL << 30, {4194304, 4194304, 2097152}}}) {
        SCOPED_TRACE(c.subformat);
        const std::string path = folder.file(std::string(c.subformat) + ".vmdk");
        harltest::createQemuVMDK(path, c.subformat, c.sizeBytes);
        long long room = 0;
        const kz::TBuffer<unsigned char> bytes = readDescriptorText(path, &room);
        const std::string text = textOf(bytes).substr(0, textOf(bytes).find('\0'));

        kz::P<CVMDKDescriptor> descriptor(new CVMDKDescriptor(bytes));
        EXPECT_EQ(descriptor->toString(), text);
        EXPECT_EQ(descriptor->getVersion(), 1);
        EXPECT_EQ(descriptor->getCreateType(), c.subformat);
        EXPECT_EQ(descriptor->getParentContentID(), 0xFFFFFFFFu);
        EXPECT_EQ(kz::String::hex(descriptor->getContentID()), descriptor->getValue("CID"));
        EXPECT_EQ(descriptor->getAdapterType(), "ide");
        EXPECT_EQ(descriptor->getGeometryHeads(), 16);
        kz::TArray<kz::P<CVMDKExtentInfo>> extents;
        descriptor->getExtentEntries(extents);
        ASSERT_EQ(extents.size(), c.extentSectors.size());
        for (size_t i = 0; i < extents.size(); ++i) {
            EXPECT_EQ(extents[i]->getAccess(), "RW");
            EXPECT_EQ(extents[i]->getSizeSectors(), c.extentSectors[i]);
            EXPECT_EQ(extents[i]->getType(), "SPARSE");
        }

        // Written back, the lines stay in order with the encoding line behind the header.
        if (room < 0) {
            room = static_cast<long long>(text.size()) + 64;
        }
        kz::P<kz::CBufferStream> out(new kz::CBufferStream);
        descriptor->store(*out, static_cast<int>(room), zeros(static_cast<size_t>(room)));
        const size_t createType = text.find("createType=");
        const size_t headerEnd = text.find('\n', createType) + 1;
        const std::string expected =
            text.substr(0, headerEnd) + "encoding=\"UTF-8\"\n" + text.substr(headerEnd);
        EXPECT_EQ(textOf(out->getBuffer()),
                  expected + std::string(static_cast<size_t>(room) - expected.size(), '\0'));
    }
}

TEST(CVMDKDescriptorTest, QemuImgReadsWhatWeWriteBack) {
    HARL_SKIP_WITHOUT_QEMU_IMG();
    harltest::CScratchFolder folder;
    const std::string path = folder.file("disk.vmdk");
    harltest::createQemuVMDK(path, "monolithicSparse", 100 << 20);
    long long room = 0;
    kz::P<CVMDKDescriptor> descriptor(new CVMDKDescriptor(readDescriptorText(path, &room)));
    descriptor->setContentID(0x1234abcd);
    kz::P<kz::CBufferStream> out(new kz::CBufferStream);
    descriptor->store(*out, static_cast<int>(room), zeros(static_cast<size_t>(room)));

    kz::TBuffer<unsigned char> file = harltest::readWholeFile(path);
    std::memcpy(file.getData() + 512, out->getBuffer().getData(), out->getBuffer().getUsed());
    harltest::writeWholeFile(path, file);
    std::string output;
    EXPECT_EQ(harltest::runQemuImg({"check", path}, &output), 0) << output;
    EXPECT_EQ(harltest::runQemuImg({"info", path}, &output), 0) << output;
    EXPECT_NE(output.find("cid: 305441741"), std::string::npos) << output;
}

}  // namespace
