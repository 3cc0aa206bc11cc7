#include "harl/descriptor/CVMDKDescriptor.h"
#include "harl/descriptor/CVMDKDescriptorAccessor.h"
#include "harl/extent/CVMDKContentIDUpdater.h"
#include "harl/extent/CVMDKSparseExtentFile.h"
#include "harl/format/VMDKFileStream.h"
#include "harl/foundation/kz/CFaultInjectingFileSystem.h"
#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/CLocalFileSystem.h"
#include "harl/foundation/kz/CMemoryFile.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"
#include "harl/foundation/vesk/CCipher_AES256CBC.h"
#include "harl/foundation/vesk/CDigestType_SHA256.h"
#include "harl/foundation/vesk/IDigest.h"
#include "harl/grain/CVMDKDataPreparer.h"
#include "harl/grain/CVMDKGrainTableCache.h"
#include "harl/grain/VMDKEmptyExtent.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/CRecordingDataProvider.h"
#include "tests/support/CScratchFolder.h"
#include "tests/support/QemuImg.h"
#include "tests/support/SampleData.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <functional>

namespace {

using namespace harl;
using Bytes = std::vector<unsigned char>;

constexpr long long kGrainBytes = 65536;
constexpr long long kGrains = 40;

kz::TBuffer<unsigned char> bufferOf(const std::string& text) {
    kz::TBuffer<unsigned char> buffer;
    buffer.assign(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    return buffer;
}

kz::TBuffer<unsigned char> zeros(size_t size) {
    kz::TBuffer<unsigned char> buffer(size);
    buffer.fill(0);
    return buffer;
}

kz::TBuffer<unsigned char> sha256(const kz::TCryptBuffer<unsigned char>& key) {
    kz::P<vesk::IDigest> digest;
    vesk::CDigestType_SHA256().createDigest(digest);
    digest->update(key.getData(), static_cast<int>(key.getUsed()));
    digest->finish();
    kz::TBuffer<unsigned char> hash;
    hash.assign(digest->getData(), static_cast<size_t>(digest->getSize()));
    return hash;
}

// One extent file with its descriptor embedded, in memory, opened as a disk would open it.
class CVMDKSparseExtentFixture : public ::testing::Test {
protected:
    CVMDKSparseExtentFixture() {
        key.setUsed(32);
        for (size_t i = 0; i < 32; ++i) {
            key[i] = static_cast<unsigned char>(i * 13 + 1);
        }
        iv.setUsed(16);
        iv.fill(0x42);
    }

    void SetUp() override { makeFile(uri); }

    void makeFile(const kz::CURI& where, long long grains = kGrains) {
        const std::string text =
            "# Disk DescriptorFile\nversion=1\nCID=abcdef01\n"
            "parentCID=ffffffff\ncreateType=\"monolithicSparse\"\n"
            "RW 5120 SPARSE \"e.vmdk\"\n";
        kz::P<CVMDKDescriptor> descriptor(new CVMDKDescriptor(bufferOf(text)));
        createEmptyVMDKSparseExtentFile(fs.get(), where, compressed, grains, 128, zeros(65536),
                                        descriptor.get(), 20,
                                        encrypted ? sha256(key) : kz::TBuffer<unsigned char>());
    }

    // On `on` (the fixture's file system if null) and with a fresh table cache, as a disk opens.
    kz::P<CVMDKSparseExtentFile> open(kz::IIOStream::Access access, bool withUpdater = true,
                                      kz::IFileSystem* on = nullptr,
                                      IVMDKDataProvider* provider = nullptr) {
        on = on ? on : fs.get();
        kz::P<kz::IIOStream> stream = openVMDKFileStream(on, uri, access);
        kz::P<CVMDKDescriptorAccessor> accessor(
            new CVMDKDescriptorAccessor(stream.get(), kz::IIOStream::AccessRead));
        updater = withUpdater ? kz::P<CVMDKContentIDUpdater>(new CVMDKContentIDUpdater(
                                    on, uri, accessor->getDescriptor().get()))
                              : nullptr;
        kz::P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache);
        return kz::P<CVMDKSparseExtentFile>(new CVMDKSparseExtentFile(
            stream.get(), access, 0, 1, cache.get(), provider, updater.get(),
            encrypted ? cipher.get() : nullptr, encrypted ? key : kz::TCryptBuffer<>(), iv));
    }

    unsigned int contentIDInFile() {
        kz::P<kz::IIOStream> stream = openVMDKFileStream(fs.get(), uri, kz::IIOStream::AccessRead);
        return CVMDKDescriptorAccessor(stream.get(), kz::IIOStream::AccessRead)
            .getDescriptor()
            ->getContentID();
    }

    kz::TBuffer<unsigned char>& file() { return fs->getFile(uri)->getContent(); }

    // The little-endian 32-bit field at byte `offset` of the file.
    long long u32(long long offset) {
        unsigned int value = 0;
        std::memcpy(&value, file().getData() + offset, 4);  // the host is little-endian
        return value;
    }

    // Byte offset of grain `index`'s entry in the first grain table.
    long long entryOffset(int index) { return u32(u32(56) * 512) * 512 + 4 * index; }

    void pokeEntry(int index, unsigned int value) {
        std::memcpy(file().getData() + entryOffset(index), &value, 4);
    }

    void writeGrains(const std::vector<int>& grains) {
        kz::P<CVMDKSparseExtentFile> extent = open(kz::IIOStream::AccessReadWrite);
        for (int grain : grains) {
            const Bytes data = harltest::makeRandomData(kGrainBytes, grain + 1);
            extent->seek(grain * kGrainBytes);
            extent->write(data.data(), kGrainBytes);
        }
        extent->close();
    }

    bool compressed = false;
    bool encrypted = false;
    kz::P<kz::CMemoryFileSystem> fs{new kz::CMemoryFileSystem};
    kz::CURI uri{"file:///d/e.vmdk"};
    kz::P<vesk::ICipher> cipher{new vesk::CCipher_AES256CBC};
    kz::TCryptBuffer<unsigned char> key;
    kz::TBuffer<unsigned char> iv;
    kz::P<CVMDKContentIDUpdater> updater;
};

// The same in each form: compressed or not, encrypted or not.
class CVMDKSparseExtentFileTest : public CVMDKSparseExtentFixture,
                                  public ::testing::WithParamInterface<std::tuple<bool, bool>> {
protected:
    void SetUp() override {
        std::tie(compressed, encrypted) = GetParam();
        CVMDKSparseExtentFixture::SetUp();
    }
};

TEST_P(CVMDKSparseExtentFileTest, ContentIDChangesOnceBeforeTheFirstChange) {
    const unsigned int before = contentIDInFile();
    {
        kz::P<CVMDKSparseExtentFile> reader = open(kz::IIOStream::AccessRead);
        Bytes buffer(1000);
        reader->read(buffer.data(), 1000);
    }
    EXPECT_EQ(contentIDInFile(), before);
    unsigned int first = 0;
    {
        kz::P<CVMDKSparseExtentFile> extent = open(kz::IIOStream::AccessReadWrite);
        extent->seek(700);
        extent->write(nullptr, 0);  // a change of nothing still counts
        EXPECT_EQ(extent->getPosition(), 700);
        first = contentIDInFile();
        EXPECT_NE(first, before);
        const Bytes data(5000, 7);
        extent->write(data.data(), 5000);
        extent->flushChanges();
        EXPECT_EQ(contentIDInFile(), first);
    }
    {
        kz::P<CVMDKSparseExtentFile> extent = open(kz::IIOStream::AccessReadWrite);
        updater->setContentIDUpdatesEnabled(false);
        const Bytes data(10, 9);
        extent->write(data.data(), 10);
        EXPECT_EQ(contentIDInFile(), first);
        updater->setContentIDUpdatesEnabled(true);
        extent->write(data.data(), 10);
        EXPECT_NE(contentIDInFile(), first);
    }
}

TEST_P(CVMDKSparseExtentFileTest, RefusesChangesWithoutWriteAccessOrUpdater) {
    const Bytes data(10, 1);
    kz::P<CVMDKSparseExtentFile> reader = open(kz::IIOStream::AccessRead);
    for (const auto& change : std::vector<std::function<void()>>{
             [&] { reader->write(data.data(), 10); },
             [&] { reader->makeGrainIndependentOfParent(0); }}) {
        EXPECT_EQ(harltest::thrownText<kz::CError>(change),
                  "-1 Internal error: VMDK sparse extent file is about to be changed, but it was "
                  "not opened for writing. [uri=file:///d/e.vmdk]");
    }
    kz::P<CVMDKSparseExtentFile> orphan = open(kz::IIOStream::AccessRead, false);
    EXPECT_EQ(harltest::thrownText<kz::CError>([&] { orphan->write(data.data(), 10); }),
              "-1 Internal error: VMDK sparse extent file is about to be changed, but it does not "
              "have a content ID updater. [uri=file:///d/e.vmdk]");
    reader->seek(kGrains * kGrainBytes - 5);
    EXPECT_EQ(harltest::thrownText<kz::CIOError>([&] { reader->read(nullptr, 0); }),
              "nothing thrown");
    EXPECT_EQ(
        harltest::thrownText<kz::CIOError>([&] { reader->read(nullptr, 6); }),
        "4 Unexpected end of data reading from VMDK sparse extent file. [uri=file:///d/e.vmdk, "
        "position=2621435, bytesToRead=6]");
    EXPECT_EQ(harltest::thrownText<kz::CInvalidArgError>([&] { reader->seek(-1); }),
              "-1 CVMDKSparseExtentFile::seek: Invalid position: -1 [uri=file:///d/e.vmdk]");
    // The size test comes before the boundary test.
    kz::TBuffer<unsigned char> prepared;
    EXPECT_EQ(harltest::thrownText<kz::CIOError>([&] { reader->readPreparedGrainData(prepared); }),
              "3 Prepared grain read exceeds VMDK extent size. [uri=file:///d/e.vmdk, "
              "position=2621435, grainSize=65536, extentSize=2621440]");
    reader->seek(5);
    EXPECT_EQ(harltest::thrownText<kz::CIOError>([&] { reader->readPreparedGrainData(prepared); }),
              "11 Prepared grain read in VMDK extent file can only be done on a grain boundary. "
              "[uri=file:///d/e.vmdk, position=5, grainSize=65536]");
}

INSTANTIATE_TEST_SUITE_P(AllForms, CVMDKSparseExtentFileTest,
                         ::testing::Combine(::testing::Bool(), ::testing::Bool()));

// Opening tests that do not depend on the form.
class CVMDKSparseExtentOpeningTest : public ::testing::Test {
protected:
    // A fresh uncompressed extent with `poke` applied to its header bytes.
    std::string openingError(
        const std::function<void(unsigned char*)>& poke, vesk::ICipher* cipher = nullptr,
        kz::TCryptBuffer<unsigned char> key = kz::TCryptBuffer<>(),
        const kz::TBuffer<unsigned char>& keyHash = kz::TBuffer<unsigned char>()) {
        kz::P<kz::CMemoryFileSystem> fs(new kz::CMemoryFileSystem);
        // A name that errors show decoded.
        const kz::CURI uri("file:///%C3%B6.vmdk");
        createEmptyVMDKSparseExtentFile(fs.get(), uri, false, 8, 128, zeros(65536), nullptr, 0,
                                        keyHash);
        kz::P<kz::IIOStream> stream = fs->open(uri, kz::IIOStream::AccessReadWrite, 0);
        unsigned char header[512];
        stream->read(header, 512);
        poke(header);
        stream->seek(0);
        stream->write(header, 512, nullptr);
        stream->seek(0);
        try {
            kz::P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache);
            kz::P<CVMDKSparseExtentFile> extent(new CVMDKSparseExtentFile(
                stream.get(), kz::IIOStream::AccessRead, 0, 1, cache.get(), nullptr, nullptr,
                cipher, key, kz::TBuffer<unsigned char>(16)));
        } catch (const kz::CError& error) {
            return std::to_string(error.getCode()) + " " + error.what();
        }
        return "opened";
    }
};

TEST_F(CVMDKSparseExtentOpeningTest, RefusesBadHeadersInOrder) {
    const auto none = [](unsigned char*) {};
    EXPECT_EQ(openingError(none), "opened");
    EXPECT_EQ(openingError([](unsigned char* h) { h[4] = 4; }),
              "6 VMDK file has an unsupported version: 4 [uri=file:///ö.vmdk]");
    EXPECT_EQ(openingError([](unsigned char* h) { h[10] = 1; }),
              "5 VMDK flags 'compressed' and 'metaMarkers' are different (compressed: true, "
              "metaMarkers: false). [uri=file:///ö.vmdk]");
    EXPECT_EQ(openingError([](unsigned char* h) { std::memset(h + 56, 0xff, 8); }),
              "5 VMDK file uses an unsupported variant of the 'stream optimized' format. "
              "[uri=file:///ö.vmdk]");
    // Geometry no sane file has is refused before anything is sized from it; its ceilings are
    // still a geometry (the capacity then fails on the directory that cannot fit in the file).
    const auto field = [](int offset, unsigned long long value, int bytes = 8) {
        return std::function<void(unsigned char*)>(
            [=](unsigned char* h) { std::memcpy(h + offset, &value, bytes); });  // little-endian
    };
    for (const auto& poke :
         {field(20, 0), field(44, 0, 4), field(20, 0x10000080), field(12, 0x7f00000000000400),
          field(20, 16385), field(12, (1ULL << 52) + 1)}) {
        EXPECT_EQ(openingError(poke).rfind("5 VMDK sparse header has an invalid geometry.", 0), 0u);
    }
    EXPECT_EQ(openingError(field(20, 16384)), "opened");  // grains of 8 MiB
    EXPECT_EQ(openingError(field(12, 1ULL << 52)), "4 Unexpected end of data [uri=file:///ö.vmdk]");
}

TEST_F(CVMDKSparseExtentOpeningTest, ChecksTheCipherAndTheKey) {
    kz::P<vesk::ICipher> cipher(new vesk::CCipher_AES256CBC);
    kz::TCryptBuffer<unsigned char> key(32);
    key.fill(3);
    kz::TCryptBuffer<unsigned char> otherKey(32);
    otherKey.fill(4);
    const auto none = [](unsigned char*) {};
    EXPECT_EQ(
        openingError(none, cipher.get()),
        "-1 CVMDKSparseExtentFile constructor: VMDK extent file is NOT encrypted but a cipher "
        "object was specified. [uri=file:///ö.vmdk]");
    const kz::TBuffer<unsigned char> hash = sha256(key);
    EXPECT_EQ(openingError(none, cipher.get(), key, hash), "opened");
    EXPECT_EQ(openingError(none, nullptr, key, hash),
              "-1 CVMDKSparseExtentFile constructor: VMDK extent file is encrypted but no cipher "
              "object was specified. [uri=file:///ö.vmdk]");
    EXPECT_EQ(
        openingError(none, cipher.get(), kz::TCryptBuffer<unsigned char>(16), hash),
        "-1 CVMDKSparseExtentFile constructor: Specified encryption key has an incorrect size "
        "for the cipher [uri=file:///ö.vmdk, expectedKeySize=32, keySize=16, "
        "cipherID=aes256cbc]");
    EXPECT_EQ(openingError([](unsigned char* h) { h[79] = 2; }, cipher.get(), key, hash),
              "-1 Unsupported encryption algorithm used by VMDK extent file: 2 "
              "[uri=file:///ö.vmdk]");
    EXPECT_EQ(openingError(none, cipher.get(), otherKey, hash),
              "-1 Specified VMDK extent file encryption key is not correct. [uri=file:///ö.vmdk]");
    // The extension with algorithm 0 is no encryption.
    EXPECT_EQ(openingError([](unsigned char* h) { h[79] = 0; }, nullptr, key, hash), "opened");
}

// Prepared grains through the extent, in every form: stored as given, read from memory, from
// the file and for grains the extent does not hold, each leaving the position at its grain's
// end, so that a run of them fills a run of grains.
TEST_P(CVMDKSparseExtentFileTest, PreparedGrainsRoundTripAndAdvanceGrainByGrain) {
    kz::P<CVMDKSparseExtentFile> extent = open(kz::IIOStream::AccessReadWrite);
    const kz::P<CVMDKDataPreparer> preparer = extent->createDataPreparer();
    using Buffer = kz::TBuffer<unsigned char>;
    const auto prepare = [&](const Bytes& plain, long long grainIndex) {
        kz::P<Buffer> source(new Buffer), aux(new Buffer);
        source->assign(plain.data(), plain.size());
        return Buffer(*preparer->prepareGrainData(source.get(), grainIndex, aux.get()));
    };
    const auto plainOf = [&](const Buffer& prepared) {
        kz::P<Buffer> source(new Buffer(prepared)), aux(new Buffer);
        const kz::P<Buffer> plain = preparer->unprepareGrainData(source.get(), aux.get());
        return Bytes(plain->getData(), plain->getData() + plain->getUsed());
    };
    std::vector<Bytes> grains;
    for (unsigned seed = 0; seed < 5; ++seed) {
        grains.push_back(harltest::makeFileSystemLikeData(kGrainBytes, 20 + seed));
    }
    extent->seek(2 * kGrainBytes);
    extent->writePreparedGrainData(prepare(grains[2], 2));
    EXPECT_EQ(extent->getPosition(), 3 * kGrainBytes);
    extent->writePreparedGrainData(prepare(grains[3], 3));
    EXPECT_EQ(extent->getPosition(), 4 * kGrainBytes);

    // Grain 0, dirty and read in memory, then replaced by prepared data in the same open grain.
    Buffer prepared;
    extent->seek(0);
    extent->write(grains[0].data(), kGrainBytes);
    extent->seek(0);
    extent->readPreparedGrainData(prepared);
    EXPECT_EQ(plainOf(prepared), grains[0]);
    extent->seek(0);
    extent->writePreparedGrainData(prepare(grains[1], 0));
    extent->seek(0);
    extent->readPreparedGrainData(prepared);
    EXPECT_EQ(plainOf(prepared), grains[1]);
    // Unflushed bytes that prepared data replaces unread are gone, not flushed over it later.
    extent->seek(0);
    extent->write(grains[2].data(), 100);
    extent->seek(0);
    extent->writePreparedGrainData(prepare(grains[1], 0));

    // A refused prepared write keeps the grain's unflushed bytes and the position.
    extent->seek(4 * kGrainBytes + 100);
    extent->write(grains[4].data(), 1000);
    extent->seek(4 * kGrainBytes);
    Buffer bad = prepare(grains[4], 4);
    bad.setUsed(compressed ? 12 : kGrainBytes + 1);
    EXPECT_EQ(harltest::thrownText<kz::CIOError>([&] { extent->writePreparedGrainData(bad); })[0],
              '5');
    EXPECT_EQ(extent->getPosition(), 4 * kGrainBytes);
    extent->seek(kGrains * kGrainBytes - 5);
    EXPECT_EQ(harltest::thrownText<kz::CIOError>([&] { extent->writePreparedGrainData(bad); }),
              "3 Prepared grain write exceeds VMDK extent size. [uri=file:///d/e.vmdk, "
              "position=2621435, grainSize=65536, extentSize=2621440]");
    EXPECT_EQ(harltest::thrownText<kz::CIOError>([&] { extent->write(bad.getData(), 6); }),
              "3 Write exceeded VMDK extent size. [uri=file:///d/e.vmdk, position=2621435, "
              "bytesToWrite=6]");
    extent->seek(kGrains * kGrainBytes);  // the end itself is a position
    EXPECT_EQ(extent->getPosition(), kGrains * kGrainBytes);
    EXPECT_EQ(extent->makeGrainIndependentOfParent(7), 0);  // without a parent: nothing to do
    EXPECT_EQ(extent->getPosition(), 8 * kGrainBytes);

    extent = nullptr;
    extent = open(kz::IIOStream::AccessRead);
    Bytes partial(kGrainBytes, 0);
    std::copy(grains[4].begin(), grains[4].begin() + 1000, partial.begin() + 100);
    grains[4] = partial;
    grains[0] = grains[1];
    grains[1] = Bytes(kGrainBytes, 0);
    for (long long index = 0; index < 5; ++index) {
        extent->seek(index * kGrainBytes);
        extent->readPreparedGrainData(prepared);
        EXPECT_EQ(plainOf(prepared), grains[index]) << index;
        EXPECT_EQ(extent->getPosition(), (index + 1) * kGrainBytes);
        Bytes back(kGrainBytes);
        extent->seek(index * kGrainBytes);
        extent->read(back.data(), kGrainBytes);
        EXPECT_EQ(back, grains[index]) << index;
        if (compressed) {  // the lba of the grain, also for one not stored
            EXPECT_EQ(prepared[1] * 256 + prepared[0], index * 128) << index;
        }
    }
}

// Extents of many grain tables, in memory: the slot directory grows to a second sector at 129
// tables, every table is reached through both directories, and a compressed extent that grew
// ends with the trail of a new one again.
TEST_P(CVMDKSparseExtentFileTest, ExtentsOfManyTablesKeepDirectoriesSlotsAndTrail) {
    const auto dataOf = [](long long grain) {
        return harltest::makeFileSystemLikeData(kGrainBytes, static_cast<unsigned>(grain));
    };
    for (long long tables : {1, 103, 128, 129}) {
        fs = new kz::CMemoryFileSystem;
        makeFile(uri, tables * 512);
        const kz::TBuffer<unsigned char> fresh = file();
        const std::vector<long long> written = {0, tables * 256, tables * 512 - 1};
        {
            kz::P<CVMDKSparseExtentFile> extent = open(kz::IIOStream::AccessReadWrite);
            for (long long grain : written) {
                extent->seek(grain * kGrainBytes);
                extent->write(dataOf(grain).data(), kGrainBytes);
            }
        }
        const long long length = static_cast<long long>(file().getUsed());
        const auto at = [&](long long byte) { return u32(byte); };
        for (long long grain : written) {  // through the directories the header names
            const auto entry = [&](long long directory) {
                return at(at(directory * 512 + grain / 512 * 4) * 512 + grain % 512 * 4);
            };
            EXPECT_NE(entry(at(56)), 0) << tables << " " << grain;
            EXPECT_EQ(entry(at(48)), entry(at(56)));
        }
        if (compressed) {
            EXPECT_EQ(std::memcmp(file().getData() + length - 1536,
                                  fresh.getData() + fresh.getUsed() - 1536, 1536),
                      0);
        }
        harltest::CLogCapture log;
        kz::P<CVMDKSparseExtentFile> extent = open(kz::IIOStream::AccessRead);
        for (long long grain : written) {
            Bytes back(kGrainBytes);
            extent->seek(grain * kGrainBytes);
            extent->read(back.data(), kGrainBytes);
            EXPECT_EQ(back, dataOf(grain));
        }
        // All behind the metadata is grains, and with compression the trail; a disk sums this.
        const kz::P<CVMDKSpaceInfo> space = extent->gatherSpaceInfo();
        EXPECT_EQ(space->getPayloadSize(), 3 * kGrainBytes);
        EXPECT_EQ(space->getHeaderSize(), at(64) * 512);
        EXPECT_EQ(space->getDeadSpaceSize(), compressed ? 1536 : 0);
        EXPECT_EQ(
            space->getHeaderSize() + space->getPayloadSizeInFile() + space->getDeadSpaceSize(),
            length);
        kz::P<CVMDKSpaceInfo> sum(new CVMDKSpaceInfo);
        sum->addSpaceInfo(*space);
        sum->addSpaceInfo(*space);
        EXPECT_EQ(sum->getPayloadSize() + sum->getPayloadSizeInFile() + sum->getHeaderSize() +
                      sum->getDeadSpaceSize(),
                  2 * (3 * kGrainBytes + length));
        EXPECT_TRUE(log.getLines().empty());
    }
}

// A header that claims more overhead than the file holds makes no negative dead space; the
// claim is cut where capacities are, so that the product cannot overflow.
TEST_P(CVMDKSparseExtentFileTest, SpaceAccountingClampsAHostileOverhead) {
    std::memset(file().getData() + 64, 0xff, 8);
    harltest::CLogCapture log;
    const kz::P<CVMDKSpaceInfo> space = open(kz::IIOStream::AccessRead)->gatherSpaceInfo();
    EXPECT_EQ(space->getHeaderSize(), (1LL << 52) * 512);
    EXPECT_EQ(space->getDeadSpaceSize(), 0);
    const std::vector<kz::String> warnings = log.messages(kz::LogLevel::Warning);
    ASSERT_FALSE(warnings.empty());
    EXPECT_TRUE(warnings.back().startsWith(
        "Calculated negative dead space value for VMDK extent file 'file:///d/e.vmdk' "
        "(deadSpace: -2305843009213"));
}

// Files it did not write and the end of its life: hostile grain table entries are refused
// before they are used, grains that other writers mark as zeroed read as zeros and get a slot of
// their own when written, and a close reports what a destructor could only log.
using CVMDKSparseExtentSafetyTest = CVMDKSparseExtentFixture;

// Entries that point where no grain may lie are refused, for reading and for writing, before
// anything reaches the file; the other grains of the table go on working.
TEST_F(CVMDKSparseExtentSafetyTest, RefusesGrainsWhoseEntriesPointAtMetadataOrOtherSlots) {
    writeGrains({0, 1, 2});
    const Bytes lastGrain = harltest::makeRandomData(kGrainBytes, 3);
    const std::string metadata = "points into the file's metadata.";
    const std::string otherSlot = "points at a slot that another grain uses.";
    const std::pair<long long, std::string> cases[] = {
        {1, metadata},                       // the descriptor
        {u32(48), metadata},                 // the redundant directory
        {u32(56), metadata},                 // the grain directory
        {u32(u32(56) * 512) + 3, metadata},  // the end of the last table
        {static_cast<long long>(file().getUsed() / 512) - 127,
         "points past the end of the file's grain data."},
        {u32(entryOffset(0)), otherSlot},       // grain 0's slot
        {u32(entryOffset(0)) + 64, otherSlot},  // half into it
    };
    for (const auto& [entry, message] : cases) {
        SCOPED_TRACE(entry);
        const kz::TBuffer<unsigned char> before = file();
        pokeEntry(5, static_cast<unsigned int>(entry));
        const kz::TBuffer<unsigned char> poked = file();
        kz::P<CVMDKSparseExtentFile> extent = open(kz::IIOStream::AccessReadWrite);
        Bytes data(kGrainBytes, 0x5a);
        for (const auto& use :
             std::vector<std::function<void()>>{[&] { extent->read(data.data(), 512); },
                                                [&] { extent->write(data.data(), 512); }}) {
            EXPECT_EQ(harltest::thrownText<kz::CIOError>([&] {
                          extent->seek(5 * kGrainBytes);
                          use();
                      }).rfind("5 VMDK grain table entry " + message, 0),
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

// An entry behind the end of the data would point into the next grain written there: a file
// that claims such space gets no new grain. Found by fuzzing. In a compressed extent the trail
// behind the data is no room for a grain either, whatever the slot-size table says.
TEST_F(CVMDKSparseExtentSafetyTest, AddsNoGrainWhereARefusedEntryPoints) {
    writeGrains({0});
    pokeEntry(5, static_cast<unsigned int>(file().getUsed() / 512 + 8));
    const size_t length = file().getUsed();
    harltest::CLogCapture log;
    kz::P<CVMDKSparseExtentFile> extent = open(kz::IIOStream::AccessReadWrite);
    const Bytes data(kGrainBytes, 0x3c);
    EXPECT_EQ(harltest::thrownText<kz::CIOError>([&] {
                  extent->seek(6 * kGrainBytes);
                  extent->write(data.data(), kGrainBytes);
                  extent->close();
              }).rfind("5 VMDK file claims space behind the end of its grain data;", 0),
              0u);
    EXPECT_EQ(file().getUsed(), length);

    compressed = true;
    fs = new kz::CMemoryFileSystem;
    makeFile(uri);
    // One table: the slot directory follows the grain directory's table behind two markers.
    const long long slotTable = u32((u32(56) + 1 + 5 + 1) * 512);
    for (unsigned short slotSectors : {0, 1}) {
        pokeEntry(3, static_cast<unsigned int>(file().getUsed() / 512 - 3));
        std::memcpy(file().getData() + slotTable * 512 + 2 * 3, &slotSectors, 2);
        kz::P<CVMDKSparseExtentFile> reader = open(kz::IIOStream::AccessRead);
        EXPECT_EQ(harltest::thrownText<kz::CIOError>([&] {
                      reader->seek(3 * kGrainBytes);
                  }).rfind("5 VMDK grain table entry points past the end of the file's", 0),
                  0u);
    }
}

// A clean extent makes no stream flush, neither at a second flush nor when it goes; a dirty one
// reports at close what its last flush met, and can be closed again once the fault is gone.
TEST_F(CVMDKSparseExtentSafetyTest, CloseReportsFailuresAndACleanExtentTouchesNoFile) {
    kz::P<kz::CFaultInjectingFileSystem> faulty(new kz::CFaultInjectingFileSystem(fs.get()));
    harltest::CLogCapture log;
    const Bytes data = harltest::makeRandomData(kGrainBytes, 9);
    {
        kz::P<CVMDKSparseExtentFile> extent =
            open(kz::IIOStream::AccessReadWrite, true, faulty.get());
        extent->write(data.data(), kGrainBytes);
        extent->flushChanges();
        faulty->failOperation(1, kz::CFaultInjectingFileSystem::Fault::Die);
        extent->flushChanges();
        extent->read(Bytes(100).data(), 100);
    }
    EXPECT_FALSE(faulty->hasFailed());
    EXPECT_TRUE(log.getLines().empty());

    faulty->failOperation(0, kz::CFaultInjectingFileSystem::Fault::Fail);
    kz::P<CVMDKSparseExtentFile> extent = open(kz::IIOStream::AccessReadWrite, true, faulty.get());
    extent->seek(kGrainBytes);
    extent->write(data.data(), 1000);
    faulty->failOperation(1, kz::CFaultInjectingFileSystem::Fault::Fail);
    EXPECT_THROW(extent->close(), kz::CFileSystemError);
    EXPECT_TRUE(extent->hasUnflushedChanges());
    extent->close();
    extent->close();
    for (const auto& use : std::vector<std::function<void()>>{
             [&] { extent->seek(0); }, [&] { extent->write(data.data(), 1); }}) {
        EXPECT_EQ(harltest::thrownText<kz::CIOError>(use),
                  "10 VMDK sparse extent file is closed. [uri=file:///d/e.vmdk]");
    }
    extent = open(kz::IIOStream::AccessRead);
    Bytes back(1000);
    extent->seek(kGrainBytes);
    extent->read(back.data(), 1000);
    EXPECT_EQ(back, Bytes(data.begin(), data.begin() + 1000));
}

// qemu marks grains written as zeros with an entry of 1 when the header has flag bit 2. Such a
// grain reads as zeros whatever the parent holds, and a write gives it a slot of its own,
// after which qemu still reads the file as the image it should be.
TEST_F(CVMDKSparseExtentSafetyTest, ReadsAndWritesGrainsThatQemuZeroed) {
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

    kz::P<kz::CLocalFileSystem> local(new kz::CLocalFileSystem);
    kz::P<harltest::CRecordingDataProvider> parent(new harltest::CRecordingDataProvider);
    const Bytes patch = harltest::makeRandomData(3000, 4);
    uri = folder.uriOf("zeroed.vmdk");
    {
        kz::P<CVMDKSparseExtentFile> extent =
            open(kz::IIOStream::AccessReadWrite, true, local.get(), parent.get());
        Bytes back(kGrainBytes, 0x77);
        extent->seek(zeroedAt + kGrainBytes);
        extent->read(back.data(), kGrainBytes);
        EXPECT_EQ(back, Bytes(kGrainBytes, 0));
        EXPECT_TRUE(parent->calls.empty());
        extent->seek(zeroedAt);
        EXPECT_TRUE(extent->isGrainWrittenAndIndependentOfParent());
        // The two zeroed grains are payload that takes no room in the file.
        EXPECT_EQ(extent->gatherSpaceInfo()->getPayloadSize(), size);
        EXPECT_EQ(extent->gatherSpaceInfo()->getPayloadSizeInFile(), size - 2 * kGrainBytes);
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
