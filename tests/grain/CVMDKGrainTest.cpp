#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/vesk/CCipher_AES256CBC.h"
#include "harl/grain/CVMDKGrain.h"

#include "tests/support/CRecordingDataProvider.h"
#include "tests/support/CRecordingStream.h"
#include "tests/support/SampleData.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace {

using harl::CVMDKGrain;
using harltest::Bytes;
using harltest::thrownText;
using Buffer = kz::TBuffer<unsigned char>;

constexpr int kGrainBytes = 65536;

// Appends whole slots behind sector 1 as the real allocator does, and keeps them, so that it
// also stands in for the grain directory.
class CFakeAllocator : public kz::CBase, public harl::IVMDKGrainAllocator {
public:
    explicit CFakeAllocator(harltest::CRecordingStream* stream) : stream(stream) {}

    void flushChangesToStream() override {}

    long long allocNewGrain(long long index, const void* data, int size, int slot) override {
        calls.push_back("alloc " + std::to_string(index) + " " + std::to_string(slot));
        const Bytes fill(size_t(slot) * 512 - size_t(size), 0);
        stream->seek(nextSectors * 512);
        stream->write(data, size, nullptr);
        stream->write(fill.data(), int(fill.size()), nullptr);
        slots[index] = {nextSectors, slot};
        nextSectors += slot;
        return slots[index].first;
    }

    long long allocNewGrainKeepBuffer(long long index, const kz::TConstBufferSlice<>& data,
                                      int slot) override {
        calls.push_back("keep:");
        return allocNewGrain(index, data.getData(), int(data.getLength()), slot);
    }

    kz::P<harltest::CRecordingStream> stream;
    std::map<long long, std::pair<long long, long long>> slots;
    std::vector<std::string> calls;
    long long nextSectors = 1;
};

// The parent, whose disk byte p holds patternAt(p), in prepared form too.
class CPatternProvider : public harltest::CRecordingDataProvider {
public:
    void getPreparedGrainData(long long position, Buffer& data, int grainSize,
                              bool compressed) override {
        calls.push_back("getPrepared " + std::to_string(position));
        kz::P<Buffer> plain(new Buffer(size_t(grainSize))), aux(new Buffer);
        getData(position, plain->getData(), grainSize);
        data = *kz::makeP<harl::CVMDKDataPreparer>(grainSize / 512, compressed, 1)
                    ->prepareGrainData(plain.get(), position / grainSize, aux.get());
    }
};

struct Form {
    bool compressed;
    bool encrypted;
};

// One extent file: its stream and its allocator.
struct CExtent {
    kz::P<harltest::CRecordingStream> stream{
        new harltest::CRecordingStream(kz::CURI("file:///d/grain.vmdk"))};
    kz::P<CFakeAllocator> allocator{new CFakeAllocator(stream.get())};
};

Bytes grainOf(const Bytes& head, size_t at = 0) {
    Bytes grain(kGrainBytes, 0);
    std::copy(head.begin(), head.end(), grain.begin() + std::ptrdiff_t(at));
    return grain;
}

class CVMDKGrainFixture : public ::testing::Test {
protected:
    kz::P<CVMDKGrain> makeGrain(CExtent& extent, Form form,
                                harl::IVMDKDataProvider* provider = nullptr, int keyByte = 1,
                                kz::IIOStream::Access access = kz::IIOStream::AccessReadWrite) {
        kz::TCryptBuffer<unsigned char> key(32);
        key.fill(static_cast<unsigned char>(keyByte));
        Buffer iv(16);
        iv.fill(0x3c);
        return kz::P<CVMDKGrain>(new CVMDKGrain(
            extent.stream.get(), access, 128, extent.allocator.get(), form.compressed, 1, provider,
            form.encrypted ? cipher.get() : nullptr, key, iv));
    }

    // Opens extent grain `index` where the allocator put it.
    static void openGrain(CVMDKGrain& grain, CExtent& extent, long long index, long long disk) {
        const auto slot = extent.allocator->slots.find(index);
        const bool found = slot != extent.allocator->slots.end();
        grain.open(index, disk, found ? slot->second.first : 0, found ? slot->second.second : 0);
    }

    // Writes `data` from `at` into extent grain `index` where the allocator put it; closes.
    static void writeGrain(CVMDKGrain& grain, CExtent& extent, long long index, long long disk,
                           const Bytes& data, long long at = 0) {
        openGrain(grain, extent, index, disk);
        grain.seek(at);
        grain.write(data.data(), int(data.size()));
        grain.close();
    }

    // `data` as the grain prepares it for disk grain `disk`.
    static kz::P<Buffer> prepare(const CVMDKGrain& grain, const Bytes& data, long long disk) {
        kz::P<Buffer> plain(new Buffer), aux(new Buffer);
        plain->assign(data.data(), data.size());
        return grain.createDataPreparer()->prepareGrainData(plain.get(), disk, aux.get());
    }

    static Bytes readGrain(CVMDKGrain& grain, CExtent& extent, long long index, long long disk) {
        openGrain(grain, extent, index, disk);
        Bytes data(kGrainBytes);
        grain.read(data.data(), kGrainBytes);
        return data;
    }

    // Disk grain `disk` of the pattern provider with `bytes` written at `at`.
    static Bytes parentWith(long long disk, const Bytes& bytes, size_t at) {
        Bytes grain(kGrainBytes);
        for (size_t i = 0; i < grain.size(); ++i) {
            grain[i] = harltest::CRecordingDataProvider::patternAt(disk * kGrainBytes + long(i));
        }
        std::copy(bytes.begin(), bytes.end(), grain.begin() + std::ptrdiff_t(at));
        return grain;
    }

    kz::P<vesk::ICipher> cipher{new vesk::CCipher_AES256CBC};
    CExtent extent;
    kz::P<CPatternProvider> provider{new CPatternProvider};
    const Bytes fsData = harltest::makeFileSystemLikeData(kGrainBytes, 7);
};

// The cases that hold for every form of stored grain.
class CVMDKGrainTest : public CVMDKGrainFixture, public ::testing::WithParamInterface<Form> {
protected:
    using CVMDKGrainFixture::makeGrain;

    kz::P<CVMDKGrain> makeGrain(harl::IVMDKDataProvider* provider = nullptr, int keyByte = 1) {
        return makeGrain(extent, GetParam(), provider, keyByte);
    }

    Bytes readBack(long long index, long long disk) {
        return readGrain(*makeGrain(), extent, index, disk);
    }
};

TEST_P(CVMDKGrainTest, RoundTripsFullAndPartialGrains) {
    kz::P<CVMDKGrain> grain = makeGrain();
    const Bytes part = harltest::makeTextLikeData(3000, 2);
    writeGrain(*grain, extent, 0, 5, fsData);  // the same bytes at two disk indexes
    writeGrain(*grain, extent, 1, 6, fsData);
    writeGrain(*grain, extent, 2, 7, part, 1000);
    EXPECT_EQ(extent.allocator->calls.size(), 3u);
    EXPECT_EQ(extent.stream->readCount, 0);
    EXPECT_EQ(readBack(0, 5), fsData);
    EXPECT_EQ(readBack(1, 6), fsData);
    EXPECT_EQ(readBack(2, 7), grainOf(part, 1000));

    // Encrypted, the file holds other bytes for each; compared behind a compressed grain's lba.
    const auto& slots = extent.allocator->slots;
    const unsigned char* file = extent.stream->getBuffer().getData();
    EXPECT_EQ(std::memcmp(file + slots.at(0).first * 512 + 12, file + slots.at(1).first * 512 + 12,
                          size_t(slots.at(0).second) * 512 - 12) != 0,
              GetParam().encrypted);
}

TEST_P(CVMDKGrainTest, ReadsThroughToTheProviderAndMergesPartialWrites) {
    kz::P<CVMDKGrain> grain = makeGrain(provider.get());
    grain->open(0, 7, 0, 0);
    Bytes bytes(100);
    grain->seek(500);
    grain->read(bytes.data(), 100);
    EXPECT_EQ(bytes[0], harltest::CRecordingDataProvider::patternAt(7 * kGrainBytes + 500));
    grain->read(bytes.data(), 100);  // nothing was loaded: the provider answers again
    provider->writtenGrains = {7 * kGrainBytes};
    EXPECT_TRUE(grain->isGrainWritten());
    EXPECT_FALSE(grain->isGrainWrittenAndIndependentOfParent());
    const Bytes part(10, 0xee);
    writeGrain(*grain, extent, 0, 7, part, 2000);
    EXPECT_EQ(provider->calls,
              (std::vector<std::string>{"getData 459252 100", "getData 459352 100",
                                        "isGrainWritten 458752", "getData 458752 65536"}));
    EXPECT_EQ(readBack(0, 7), parentWith(7, part, 2000));
}

TEST_P(CVMDKGrainTest, ZerosOnAnUnallocatedGrainAreStoredOnlyOverAProvider) {
    const Bytes zeros(kGrainBytes, 0);
    kz::P<CVMDKGrain> grain = makeGrain();
    grain->open(0, 0, 0, 0);
    grain->write(zeros.data(), kGrainBytes);
    EXPECT_TRUE(grain->isGrainWritten());
    grain->flushChangesToStream();
    EXPECT_FALSE(grain->isGrainWritten());
    EXPECT_TRUE(extent.allocator->calls.empty());
    const Bytes lastByte = grainOf({7}, kGrainBytes - 1);  // not zero at the very end
    writeGrain(*grain, extent, 2, 2, lastByte);
    EXPECT_EQ(readBack(2, 2), lastByte);

    grain->setFallbackDataProvider(provider.get());
    writeGrain(*grain, extent, 1, 1, zeros);
    EXPECT_EQ(extent.allocator->calls.size(), 2u);
    EXPECT_EQ(readGrain(*makeGrain(provider.get()), extent, 1, 1), grainOf({}));
    // A grain the file marks as zeroed reads as zeros over the provider, with no write.
    Bytes read(kGrainBytes, 1);
    grain->openZeroed(3, 3);
    grain->read(read.data(), kGrainBytes);
    EXPECT_EQ(read, zeros);
}

TEST_P(CVMDKGrainTest, AFailedStoreLeavesTheGrainDirtyForTheNextFlush) {
    kz::P<CVMDKGrain> grain = makeGrain();
    for (int round = 0; round < 2; ++round) {  // a new slot, then the same slot
        const Bytes data = round == 0 ? fsData : grainOf(harltest::makeTextLikeData(1000, 3));
        openGrain(*grain, extent, 0, 0);
        grain->write(data.data(), kGrainBytes);
        extent.stream->failWritesFrom(0);
        EXPECT_EQ(thrownText<kz::CIOError>([&] { grain->open(1, 1, 0, 0); }),
                  "3 Injected write failure");
        EXPECT_TRUE(grain->isGrainWrittenAndIndependentOfParent());
        EXPECT_EQ(grain->getGrainStartPositionSectors(), round);
        extent.stream->failWritesFrom(-1);
        grain->flushChangesToStream();
        const size_t writes = extent.stream->writes.size();
        grain->flushChangesToStream();  // stored: clean, nothing more to write
        EXPECT_EQ(extent.stream->writes.size(), writes);
        EXPECT_EQ(readBack(0, 0), data);
    }
    EXPECT_EQ(extent.allocator->calls.size(), 2u);  // the failed first store and its retry

    // Prepared data that fails to reach its slot still replaced the unflushed bytes: a later
    // flush has nothing to write.
    openGrain(*grain, extent, 0, 0);
    grain->write(fsData.data(), 100);
    grain->seek(0);
    const kz::P<Buffer> prepared = prepare(*grain, fsData, 0);
    extent.stream->failWritesFrom(0);
    EXPECT_THROW(grain->writePreparedGrainData(*prepared), kz::CIOError);
    extent.stream->failWritesFrom(-1);
    const size_t writes = extent.stream->writes.size();
    grain->flushChangesToStream();
    EXPECT_EQ(extent.stream->writes.size(), writes);
}

TEST_P(CVMDKGrainTest, MakesGrainsIndependentWithoutLosingChanges) {
    kz::P<CVMDKGrain> grain = makeGrain();
    grain->open(0, 3, 0, 0);
    EXPECT_EQ(grain->makeIndependentOfParent(), 0);
    EXPECT_EQ(grain->getBytesLeft(), 0);

    grain->setFallbackDataProvider(provider.get());
    grain->open(0, 3, 0, 0);
    EXPECT_GT(grain->makeIndependentOfParent(), 0);
    openGrain(*grain, extent, 0, 3);
    EXPECT_EQ(grain->makeIndependentOfParent(), kGrainBytes);
    const Bytes part(10, 0x5a);
    grain->open(1, 9, 0, 0);
    grain->write(part.data(), 10);
    grain->seek(0);
    EXPECT_EQ(grain->makeIndependentOfParent(), kGrainBytes);
    grain->close();
    EXPECT_EQ(extent.allocator->calls.size(), 2u);
    EXPECT_EQ(provider->calls.back(), "getData 589824 65536");
    EXPECT_EQ(readBack(0, 3), parentWith(3, {}, 0));
    EXPECT_EQ(readBack(1, 9), parentWith(9, part, 0));
}

std::string formName(const testing::TestParamInfo<Form>& info) {
    return std::string(info.param.compressed ? "Compressed" : "Plain") +
           (info.param.encrypted ? "Encrypted" : "");
}

INSTANTIATE_TEST_SUITE_P(Forms, CVMDKGrainTest,
                         testing::Values(Form{false, false}, Form{false, true}, Form{true, false},
                                         Form{true, true}),
                         formName);

using CVMDKCompressedGrainTest = CVMDKGrainTest;

TEST_P(CVMDKCompressedGrainTest, KeepsSlotsThatFitAndMovesOnceToAWorstCaseSlot) {
    // A grain whose prepared form is exactly one sector: 12 + size = 512, no fill.
    kz::P<CVMDKGrain> grain = makeGrain();
    Bytes exact;
    for (size_t n = 250; n < 400 && exact.empty(); ++n) {
        const Bytes candidate = grainOf(harltest::makeRandomData(n, 3));
        const kz::P<Buffer> prepared = prepare(*grain, candidate, 0);
        if (prepared->getUsed() == 512 && (*prepared)[8] + 256 * (*prepared)[9] == 500) {
            exact = candidate;
        }
    }
    ASSERT_FALSE(exact.empty());
    const long long oneSector = GetParam().encrypted ? 2 : 1;
    const Bytes longer = grainOf(harltest::makeRandomData(500, 4));  // 2 sectors
    const Bytes worst = harltest::makeRandomData(kGrainBytes, 5);
    for (const Bytes* data : std::vector<const Bytes*>{&exact, &exact, &longer, &worst}) {
        writeGrain(*grain, extent, 0, 0, *data);
        EXPECT_EQ(readBack(0, 0), *data);
    }
    EXPECT_EQ(
        extent.allocator->calls,
        (std::vector<std::string>{"alloc 0 " + std::to_string(oneSector),
                                  "alloc 0 " + std::to_string(GetParam().encrypted ? 130 : 129)}));
}

TEST_P(CVMDKCompressedGrainTest, ReadsASizeOfTwiceAGrainAndRefusesMoreOrCorruptData) {
    kz::P<CVMDKGrain> grain = makeGrain();
    writeGrain(*grain, extent, 0, 0, fsData);
    Buffer& file = extent.stream->getBuffer();
    const auto setSize = [&](unsigned size) {
        std::memcpy(file.getData() + 512 + 8, &size, 4);  // the host is little-endian
    };
    setSize(2 * kGrainBytes);
    extent.stream->setLength(512 + 2 * kGrainBytes + 512);
    EXPECT_EQ(readBack(0, 0), fsData);
    setSize(2 * kGrainBytes + 1);
    EXPECT_EQ(thrownText<kz::CIOError>([&] { readBack(0, 0); }),
              "5 Error reading compressed data from VMDK. Invalid compressed grain size. "
              "[uri=file:///d/grain.vmdk, position=512, lba=0, compressedGrainSize=131073]");

    setSize(2 * kGrainBytes);
    file[512 + 100] ^= 0x40;  // inside the compressed stream, or its ciphertext
    openGrain(*grain, extent, 0, 0);
    Bytes byte(1);
    EXPECT_EQ(thrownText<kz::CIOError>([&] { grain->read(byte.data(), 1); })[0], '5');
    const int reads = extent.stream->readCount;
    EXPECT_THROW(grain->read(byte.data(), 1), kz::CIOError);  // the file is asked again
    EXPECT_GT(extent.stream->readCount, reads);
    Buffer prepared;  // nor does the failure leave a prepared form behind
    grain->seek(0);
    grain->readPreparedGrainData(prepared);
    EXPECT_GT(prepared.getUsed(), 12u);
}

INSTANTIATE_TEST_SUITE_P(Forms, CVMDKCompressedGrainTest,
                         testing::Values(Form{true, false}, Form{true, true}), formName);

// Prepared grains are in the clear: they pass between extents with other keys, whether the
// source held them in memory or read them from its file.
TEST_F(CVMDKGrainFixture, PreparedGrainsMoveBetweenExtentsWithOtherKeys) {
    for (bool compressed : {false, true}) {
        CExtent source, target, back;
        kz::P<CVMDKGrain> from = makeGrain(source, {compressed, !compressed});
        kz::P<CVMDKGrain> to = makeGrain(target, {compressed, true}, nullptr, 2);
        kz::P<CVMDKGrain> home = makeGrain(back, {compressed, false});
        from->open(0, 4, 0, 0);
        from->write(fsData.data(), kGrainBytes);
        Buffer prepared;
        from->seek(0);
        from->readPreparedGrainData(prepared);  // stores the dirty grain first
        EXPECT_EQ(from->getBytesLeft(), 0);
        EXPECT_EQ(source.stream->readCount, 0);
        to->open(2, 4, 0, 0);
        to->writePreparedGrainData(prepared);

        EXPECT_EQ(readGrain(*makeGrain(source, {compressed, !compressed}), source, 0, 4), fsData);
        openGrain(*to, target, 2, 4);
        to->readPreparedGrainData(prepared);
        EXPECT_EQ(target.stream->readCount, compressed ? 2 : 1);
        home->open(1, 4, 0, 0);
        home->writePreparedGrainDataKeepBuffer(kz::TConstBufferSlice<unsigned char>(prepared));
        home->close();
        const size_t slot = compressed ? (prepared.getUsed() + 511) / 512 : 128;
        EXPECT_EQ(back.allocator->calls,
                  (std::vector<std::string>{"keep:", "alloc 1 " + std::to_string(slot)}));
        EXPECT_EQ(readGrain(*makeGrain(target, {compressed, true}, nullptr, 2), target, 2, 4),
                  fsData);
        EXPECT_EQ(readGrain(*home, back, 1, 4), fsData);

        // Over a slot it fits, kept data goes straight to the stream.
        const Bytes text = grainOf(harltest::makeTextLikeData(1000, 8));
        const kz::P<Buffer> smaller = prepare(*home, text, 4);
        openGrain(*home, back, 1, 4);
        home->writePreparedGrainDataKeepBuffer(kz::TConstBufferSlice<unsigned char>(*smaller));
        home->close();
        EXPECT_EQ(back.allocator->calls.size(), 2u);
        EXPECT_EQ(readGrain(*home, back, 1, 4), text);
    }
    // A short uncompressed prepared grain is the grain's start; the rest reads as zeros, also
    // behind a longer one before it.
    kz::P<CVMDKGrain> sealed = makeGrain(extent, {false, true});
    Buffer start;
    for (size_t length : {1000, 100}) {
        sealed->open(0, 0, 0, 0);
        start.assign(fsData.data(), length);
        sealed->writePreparedGrainData(start);
        sealed->close();
    }
    EXPECT_EQ(readGrain(*sealed, extent, 0, 0),
              grainOf(Bytes(fsData.begin(), fsData.begin() + 100)));
}

// A grain needs a stream, and an allocator to write; it is at least a sector, and its bytes
// and a compressed grain of twice that fit an int. The cases run in order on one grain.
TEST_F(CVMDKGrainFixture, ErrorsCarryTheirTextsAndProperties) {
    const auto construct = [&](long long sectors, kz::IIOStream::Access access) {
        CVMDKGrain(extent.stream.get(), access, sectors, nullptr, false, 1, nullptr, nullptr,
                   kz::TCryptBuffer<>(), Buffer());
    };
    kz::P<CVMDKGrain> grain = makeGrain(extent, {true, true});
    kz::P<CVMDKGrain> reader =
        makeGrain(extent, {false, false}, nullptr, 1, kz::IIOStream::AccessRead);
    Bytes bytes(kGrainBytes + 1);
    Buffer prepared(1);
    const std::string size = "-1 CVMDKGrain::CVMDKGrain: Invalid grain size: ";
    const std::string uri = "[uri=file:///d/grain.vmdk";
    const std::string at = uri + ", posInGrain=65535, diskGrainIndex=6, extentGrainIndex=0";
    const std::string notAtZero = " can only be called when the position in the grain is 0. ";
    const std::string notOpen = " was called, but no grain is open.";
    const std::string notWritable = " was called, but the grain was not opened for writing.";
    using Case = std::pair<std::function<void()>, std::string>;
    for (const Case& item : std::vector<Case>{
             {[&] { construct(128, kz::IIOStream::AccessReadWrite); },
              "-1 CVMDKGrain::CVMDKGrain: A grain needs a stream, and an allocator to write."},
             {[&] { construct(0, kz::IIOStream::AccessRead); }, size + "0"},
             {[&] { construct(1, kz::IIOStream::AccessRead); }, "nothing thrown"},
             {[&] { construct((1LL << 31) / 4 / 512, kz::IIOStream::AccessRead); },
              size + "1048576"},
             {[&] { grain->readPreparedGrainData(prepared); },
              "-1 Internal error: CVMDKGrain::readPreparedGrainData" + notOpen},
             {[&] { grain->makeIndependentOfParent(); },
              "-1 Internal error: CVMDKGrain::makeIndependentOfParent" + notOpen},
             {[&] { grain->open(0, 6, 0, 0), grain->seek(kGrainBytes); },
              "-1 CVMDKGrain::seek: Invalid seek position in VMDK grain: 65536 " + uri +
                  ", position=65536, grainSize=65536]"},
             {[&] { grain->read(bytes.data(), -1); },
              "-1 CVMDKGrain::read: Invalid number of bytes to read: -1 " + uri + "]"},
             {[&] { grain->write(bytes.data(), -1); },
              "-1 CVMDKGrain::write: Invalid number of bytes to write: -1 " + uri + "]"},
             {[&] { grain->seek(65535), grain->read(bytes.data(), 2); },
              "4 Unexpected end of data trying to read 2 bytes from VMDK grain. " + uri +
                  ", position=65535, bytesToRead=2]"},
             {[&] { grain->write(bytes.data(), 2); },
              "3 Cannot write 2 bytes to grain. Grain size exceeded. " + uri + "]"},
             {[&] { grain->readPreparedGrainData(prepared); },
              "3 CVMDKGrain::tryReadPreparedGrainData" + notAtZero + at + "]"},
             {[&] { grain->makeIndependentOfParent(); },
              "3 CVMDKGrain::makeIndependentOfParent" + notAtZero + at + "]"},
             {[&] { prepared.setUsed(1), grain->writePreparedGrainData(prepared); },
              "3 CVMDKGrain::writePreparedGrainData" + notAtZero + at + ", preparedDataSize=1]"},
             {[&] { grain->seek(0), grain->writePreparedGrainData(prepared); },
              "5 CVMDKGrain::writePreparedGrainData called with data that is not a prepared grain "
              "of this VMDK extent. " +
                  uri +
                  ", posInGrain=0, diskGrainIndex=6, extentGrainIndex=0, preparedDataSize=1]"},
             {[&] { prepared.setUsed(0), grain->writePreparedGrainData(prepared); },
              "3 CVMDKGrain::writePreparedGrainData called with zero-length prepared data. " + uri +
                  ", posInGrain=0, diskGrainIndex=6, extentGrainIndex=0, "
                  "preparedDataSize=0]"},
             {[&] { reader->open(0, 0, 1, 127); },
              "-1 CVMDKGrain::open: Slot size for allocated uncompressed grain is smaller than "
              "the grain size (slot size: 127 sectors, grain size: 128 sectors"},
             {[&] { reader->open(0, 0, 0, 0), reader->write(bytes.data(), 1); },
              "-1 Internal error: CVMDKGrain::write" + notWritable},
             {[&] { reader->writePreparedGrainData(prepared); },
              "-1 Internal error: CVMDKGrain::writePreparedGrainData" + notWritable},
             {[&] { reader->makeIndependentOfParent(); },
              "-1 Internal error: CVMDKGrain::makeIndependentOfParent" + notWritable},
         }) {
        EXPECT_EQ(harltest::errorText(item.first), item.second);
    }
}

TEST(CVMDKGrainIVTest, LaysTheGrainIndexOverTheBaseIVTwice) {
    Buffer base(16), iv, expected(16);
    base.fill(0xf0);
    for (size_t i = 0; i < 16; ++i) {
        expected[i] = static_cast<unsigned char>(0xf0 ^ (8 - i % 8));
    }
    CVMDKGrain::makeGrainEncryptIV(iv, base, 0x0102030405060708);
    EXPECT_EQ(iv, expected);
}

}  // namespace
