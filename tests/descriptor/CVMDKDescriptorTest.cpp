#include "harl/descriptor/CVMDKDescriptor.h"
#include "harl/descriptor/CVMDKExtentInfo.h"
#include "harl/format/CVMDKSparseExtentHeader.h"
#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CError.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/CScratchFolder.h"
#include "tests/support/QemuImg.h"
#include "tests/support/TestFiles.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

namespace {

using harl::CVMDKDescriptor;
using harl::CVMDKExtentInfo;

kz::TBuffer<unsigned char> bytesOf(const std::string& text) {
    kz::TBuffer<unsigned char> bytes(text.size());
    std::copy(text.begin(), text.end(), bytes.getData());
    return bytes;
}

kz::P<CVMDKDescriptor> parse(const std::string& text) {
    return kz::P<CVMDKDescriptor>(new CVMDKDescriptor(bytesOf(text)));
}

// The bytes `store` writes, or the message it throws.
std::string store(CVMDKDescriptor& descriptor, int targetSize, size_t padSize) {
    kz::TBuffer<unsigned char> pad(padSize);
    pad.fill(0);
    kz::P<kz::CBufferStream> out(new kz::CBufferStream);
    try {
        descriptor.store(*out, targetSize, pad);
    } catch (const kz::CError& error) {
        EXPECT_EQ(out->getLength(), 0);
        return error.getMessage().toUTF8();
    }
    return std::string(reinterpret_cast<const char*>(out->getBuffer().getData()),
                       out->getBuffer().getUsed());
}

TEST(CVMDKDescriptorTest, KeepsEveryLineAndWritesEachByItsClass) {
    using Case = std::tuple<std::string, size_t, std::string>;  // text, entries, written
    for (const auto& [text, entries, written] : {
             Case{"a=1\n", 1, "a=1\n"},
             Case{"a=1", 1, "a=1\n"},
             Case{"a=1\n\n", 2, "a=1\n\n"},
             Case{"", 0, ""},
             Case{std::string("\0a=1\n", 5), 0, ""},
             Case{std::string("a=1\nb=2\0c=3\n", 12), 2, "a=1\nb=2\n"},
             Case{"# a=1\n # a=1\n a = 1\r\nx=\"\nx=\"y\nx\r\n", 6,
                  "# a=1\n # a=1\na=1\nx=\"\"\nx=\"y\nx\r\n"},
             Case{"ddb.a=\"ide\"\nDDB.x = 1\nRW  8 SPARSE  \"a b=c\"\r\n", 3,
                  "ddb.a = \"ide\"\nDDB.x=1\nRW 8 SPARSE \"a b=c\"\n"},
             Case{"a\n" + std::string(1 << 18, '\n'), (1 << 18) + 1,
                  "a\n" + std::string(1 << 18, '\n')},
         }) {
        kz::P<CVMDKDescriptor> descriptor = parse(text);
        EXPECT_EQ(descriptor->getEntries().size(), entries) << text.substr(0, 40);
        EXPECT_EQ(descriptor->toString(), written) << text.substr(0, 40);
    }
}

TEST(CVMDKDescriptorTest, LookupsIgnoreCaseAndTheFirstLineWins) {
    kz::P<CVMDKDescriptor> descriptor = parse("cid=1f\nCID=2\nparentCID=ffffffff\n");
    EXPECT_EQ(descriptor->getContentID(), 0x1fu);
    EXPECT_EQ(descriptor->getParentContentID(), 0xFFFFFFFFu);
    descriptor->setContentID(0xabc);
    EXPECT_EQ(descriptor->toString(), "cid=abc\nCID=2\nparentCID=ffffffff\n");
    kz::String value = "stale";
    EXPECT_FALSE(descriptor->tryGetValue("nope", value));
    EXPECT_TRUE(value.isEmpty());
    EXPECT_EQ(harltest::thrownText<kz::CError>([&] { descriptor->getValue("nope"); }),
              "-1 VMDK descriptor value 'nope' not found.");
    // Malformed and out-of-range numbers reach the caller; content IDs fill 32 bits, and only
    // the parent's may stand between blanks.
    EXPECT_THROW(parse("version=1x\n")->getVersion(), kz::CError);
    for (const std::string key : {"CID", "parentCID"}) {
        const auto read = [&](const std::string& value) {
            kz::P<CVMDKDescriptor> d = parse(key + "=" + value + "\n");
            return key == "CID" ? d->getContentID() : d->getParentContentID();
        };
        EXPECT_EQ(read("ffffffff"), 0xffffffffu);
        EXPECT_EQ(harltest::thrownText<kz::CError>([&] { read("100000000"); }),
                  "-1 VMDK descriptor value '" + key + "' is out of range. [value=100000000]");
        EXPECT_EQ(harltest::thrownText<kz::CError>([&] { read("\" 1f \""); }) == "nothing thrown",
                  key == "parentCID");
    }
}

TEST(CVMDKDescriptorTest, KeyTableSettersPlaceLinesAndGettersReadThem) {
    kz::P<CVMDKDescriptor> descriptor =
        parse("# Disk\nversion=1\n# Extents\nRW 8 SPARSE \"a\"\nRW 8 SPARSE \"b\"\n# DDB\n");
    EXPECT_EQ(descriptor->getParentContentID(), 0xFFFFFFFFu);
    EXPECT_FALSE(descriptor->getKzCreateExtentFilesOnDemand());

    descriptor->setContentID(0x0a0b);
    descriptor->setParentContentID(0xfe);
    descriptor->setAdapterType("lsilogic");
    descriptor->setParentFileNameHint("p.vmdk");
    descriptor->setKzCreateExtentFilesOnDemand(true);
    descriptor->setKzEncryptionIV(bytesOf("\x01\xab"));
    descriptor->setKzEncryptionAlgorithm("aes256cbc");
    descriptor->setKzEncryptionKeyDerivationAlgorithm("pbkdf2");
    descriptor->setKzEncryptionKeyDerivationSalt(bytesOf("\x02"));
    descriptor->setKzEncryptionKeyHash(bytesOf("\x03\xff"));
    descriptor->setKzEncryptionKeyHashAlgorithm("sha256");
    descriptor->setKzEncryptedEncryptionKey(bytesOf("\x04"));
    descriptor->setGeometryCylinders(1024);
    descriptor->addGenericLine("# tail", false);
    descriptor->addGenericLine("# head", true);
    descriptor->addExtentEntry(new CVMDKExtentInfo("RW", 8, "SPARSE", "c", 5));
    // An existing key keeps its place, spelling and quoting whatever the flags say.
    descriptor->setValue("VERSION", "2", true, false);
    EXPECT_EQ(descriptor->getHeaderInsertIndex(), 14);
    EXPECT_EQ(descriptor->toString(),
              "# Disk\nversion=2\nCID=a0b\nparentCID=fe\nparentFileNameHint=\"p.vmdk\"\n"
              "kzCreateExtentFilesOnDemand=\"true\"\nkzEncIV=01ab\nkzEncAlg=aes256cbc\n"
              "kzEncKeyDerivAlg=pbkdf2\nkzEncKeyDerivSalt=02\nkzEncKeyHash=03ff\n"
              "kzEncKeyHashAlg=sha256\nkzEncEncKey=04\n# head\n# Extents\n"
              "RW 8 SPARSE \"a\"\nRW 8 SPARSE \"b\"\nRW 8 SPARSE \"c\" 5\n# DDB\n"
              "ddb.adapterType = \"lsilogic\"\nddb.geometry.cylinders = \"1024\"\n# tail\n");

    kz::P<CVMDKDescriptor> read = parse(descriptor->toString().toUTF8());
    EXPECT_EQ(read->getContentID(), 0xa0bu);
    EXPECT_TRUE(read->getKzCreateExtentFilesOnDemand());
    EXPECT_TRUE(read->getKzEncryptionIV() == bytesOf("\x01\xab"));
    EXPECT_EQ(read->getKzEncryptionAlgorithm(), "aes256cbc");
    EXPECT_EQ(read->getKzEncryptionKeyDerivationAlgorithm(), "pbkdf2");
    EXPECT_TRUE(read->getKzEncryptionKeyDerivationSalt() == bytesOf("\x02"));
    EXPECT_TRUE(read->getKzEncryptionKeyHash() == bytesOf("\x03\xff"));
    EXPECT_EQ(read->getKzEncryptionKeyHashAlgorithm(), "sha256");
    EXPECT_TRUE(read->getKzEncryptedEncryptionKey() == bytesOf("\x04"));

    // Without an extent line, a new one goes to the end.
    kz::P<CVMDKDescriptor> plain = parse("a=1\n# x\n");
    plain->addExtentEntry(new CVMDKExtentInfo("RW", 1, "SPARSE", "d", -1));
    plain->setVersion(3);
    EXPECT_EQ(plain->toString(), "a=1\nversion=3\n# x\nRW 1 SPARSE \"d\"\n");
    EXPECT_EQ(plain->getKzEncryptionAlgorithm(), "");  // absent: not encrypted
}

TEST(CVMDKDescriptorTest, CopySharesEntriesAndAssignmentClonesThem) {
    kz::P<CVMDKDescriptor> original = parse("version=1\n");
    CVMDKDescriptor shared(*original);
    shared.setVersion(2);
    EXPECT_EQ(original->getVersion(), 2);
    CVMDKDescriptor assigned;
    assigned = *original;
    assigned.setVersion(3);
    EXPECT_EQ(original->getVersion(), 2);
    EXPECT_EQ(assigned.getHeaderInsertIndex(), 1);
}

TEST(CVMDKDescriptorTest, EncodingLineChoosesTheDecoding) {
    harltest::CLogCapture log;
    const kz::String eAcute = kz::String::fromLatin1("\xe9", 1);
    for (const char* encoding : {"", "encoding=\"UTF_8\"\n", "encoding=\"utf-8\"\n"}) {
        EXPECT_EQ(parse(std::string(encoding) + "a=\xc3\xa9\n")->getValue("a"), eAcute);
    }
    EXPECT_EQ(parse("encoding=\"ISO-8859-1\"\na=\xe9\n")->getValue("a"), eAcute);
    EXPECT_TRUE(log.getLines().empty());

    // An unknown character set reads as Latin-1 and is written back as UTF-8.
    kz::P<CVMDKDescriptor> descriptor = parse("a=\xe9\nencoding=\"cp1252\"\n");
    EXPECT_EQ(store(*descriptor, 30, 30),
              std::string("a=\xc3\xa9\nencoding=\"UTF-8\"\n\0\0\0\0\0\0\0\0", 30));
    // Invalid UTF-8 under a UTF-8 encoding line falls back to Latin-1.
    EXPECT_EQ(parse("encoding=\"UTF-8\"\na=\xe9\n")->getValue("a"), eAcute);
    const std::vector<kz::String> warnings = log.messages(kz::LogLevel::Warning);
    ASSERT_EQ(warnings.size(), 2u);
    EXPECT_EQ(warnings[0], "Unknown VMDK descriptor encoding 'cp1252'. Using Latin-1 instead.");
    EXPECT_TRUE(
        warnings[1].startsWith("Ignoring VMDK descriptor decoding error (encoding: "
                               "'UTF-8'. Using Latin-1 encoding instead."));
}

TEST(CVMDKDescriptorTest, StoreFitsTheTargetSizeOrWritesNothing) {
    kz::P<CVMDKDescriptor> descriptor = parse("version=1\n");
    const std::string text = "version=1\nencoding=\"UTF-8\"\n";
    EXPECT_EQ(store(*descriptor, 40, 13), text + std::string(13, '\0'));
    EXPECT_EQ(store(*descriptor, 27, 0), text);
    EXPECT_EQ(store(*descriptor, 28, 0),
              "Internal error: pad buffer too small (size: 0, needed: 1");
    // The encoding line is set in memory before the size test.
    descriptor = parse("version=1\n");
    EXPECT_EQ(store(*descriptor, 20, 20),
              "Internal error: actual VMDK descriptor size exceeds target size (actual size: "
              "27, target size: 20");
    EXPECT_EQ(descriptor->toString(), text);
}

TEST(CVMDKDescriptorTest, ReadsAndWritesBackDescriptorsOfQemuImg) {
    HARL_SKIP_WITHOUT_QEMU_IMG();
    harltest::CScratchFolder folder;
    for (const char* subformat : {"monolithicSparse", "streamOptimized", "twoGbMaxExtentSparse"}) {
        SCOPED_TRACE(subformat);
        const std::string path = folder.file(std::string(subformat) + ".vmdk");
        harltest::createQemuVMDK(path, subformat, 5LL << 30);
        // The text is embedded behind a header, or is the whole file.
        kz::TBuffer<unsigned char> bytes = harltest::readWholeFile(path);
        long long offset = 0;
        if (std::memcmp(bytes.getData(), "KDMV", 4) == 0) {
            offset = 512;
            bytes = harltest::readFilePart(path, offset, 20 * 512);
        }
        const std::string text(
            reinterpret_cast<const char*>(bytes.getData()),
            strnlen(reinterpret_cast<const char*>(bytes.getData()), bytes.getUsed()));
        kz::P<CVMDKDescriptor> descriptor(new CVMDKDescriptor(bytes));
        EXPECT_EQ(descriptor->toString(), text);
        EXPECT_EQ(descriptor->getCreateType(), subformat);
        kz::TArray<kz::P<CVMDKExtentInfo>> extents;
        descriptor->getExtentEntries(extents);
        ASSERT_EQ(extents.size(), offset > 0 ? 1u : 3u);
        EXPECT_EQ(extents[0]->toString(),
                  offset > 0 ? "RW 10485760 SPARSE \"" + std::string(subformat) + ".vmdk\""
                             : "RW 4194304 SPARSE \"twoGbMaxExtentSparse-s001.vmdk\"");

        // Written back, the lines keep their order with the encoding line behind the header;
        // qemu-img reads the new content ID. A standalone file grows by the changes.
        descriptor->setContentID(0x1234abcd);
        const size_t room = bytes.getUsed() + (offset > 0 ? 0 : 64);
        const std::string stored = store(*descriptor, static_cast<int>(room), room);
        std::string expected = text;
        const size_t cid = expected.find("\nCID=") + 1;
        expected.replace(cid, expected.find('\n', cid) - cid, "CID=1234abcd");
        expected.insert(expected.find('\n', expected.find("createType=")) + 1,
                        "encoding=\"UTF-8\"\n");
        EXPECT_EQ(stored, expected + std::string(room - expected.size(), '\0'));
        kz::TBuffer<unsigned char> file = harltest::readWholeFile(path);
        file.setUsed(std::max<size_t>(file.getUsed(), offset + stored.size()));
        std::copy(stored.begin(), stored.end(), file.getData() + offset);
        harltest::writeWholeFile(path, file);
        std::string output;
        EXPECT_EQ(harltest::runQemuImg({"info", path}, &output), 0) << output;
        EXPECT_NE(output.find("cid: 305441741"), std::string::npos) << output;
    }
}

}  // namespace
