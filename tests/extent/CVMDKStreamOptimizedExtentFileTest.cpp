#include "harl/extent/CVMDKStreamOptimizedExtentFile.h"
#include "harl/format/VMDKFileStream.h"
#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CLocalFileSystem.h"

#include "tests/support/CScratchFolder.h"
#include "tests/support/QemuImg.h"
#include "tests/support/SampleData.h"
#include "tests/support/StreamOptimizedFile.h"
#include "tests/support/TestFiles.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>

namespace {

using namespace harl;
using Bytes = std::vector<unsigned char>;
using Source = CVMDKStreamOptimizedExtentFile::GrainSource;

constexpr long long kGrainBytes = 65536;
constexpr size_t kSector = 512;

kz::P<CVMDKStreamOptimizedExtentFile> openExtent(kz::IIOStream* stream) {
    return kz::makeP<CVMDKStreamOptimizedExtentFile>(stream, 0, 1);
}

// A disk with data, holes of whole tables, and a partial grain at its end.
Bytes makeRaw(long long grains, unsigned seed) {
    Bytes raw = harltest::makeFileSystemLikeData(static_cast<size_t>(grains * kGrainBytes), seed);
    std::fill(raw.begin() + 8 * kGrainBytes, raw.begin() + 16 * kGrainBytes, 0);
    raw.resize(raw.size() + 3 * kSector, 0x5a);
    return raw;
}

void putLE(kz::TBuffer<unsigned char>& file, size_t offset, unsigned long long value, int bytes) {
    for (int i = 0; i < bytes; ++i) {
        file[offset + i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

// Reads the whole extent in uneven pieces and compares it with `raw`; then each whole grain
// through the prepared path. A stored grain must come out as the file holds it.
void expectReadsAs(CVMDKStreamOptimizedExtentFile& extent, const Bytes& raw,
                   const kz::TBuffer<unsigned char>& file) {
    ASSERT_EQ(extent.getSizeBytes(), static_cast<long long>(raw.size()));
    Bytes read(raw.size());
    extent.seek(0);
    for (size_t done = 0; done < raw.size();) {
        const int piece = static_cast<int>(std::min<size_t>(100003, raw.size() - done));
        extent.read(read.data() + done, piece);
        done += piece;
    }
    ASSERT_TRUE(read == raw);
    kz::P<CVMDKDataPreparer> preparer = extent.createDataPreparer();
    kz::P<kz::TBuffer<unsigned char>> prepared(new kz::TBuffer<unsigned char>);
    kz::P<kz::TBuffer<unsigned char>> plain(new kz::TBuffer<unsigned char>);
    for (long long at = 0; at + kGrainBytes <= extent.getSizeBytes(); at += kGrainBytes) {
        extent.seek(at);
        const bool stored = extent.isGrainWritten();
        extent.readPreparedGrainData(*prepared);
        const unsigned char* grain = raw.data() + at;
        ASSERT_EQ(0,
                  std::memcmp(preparer->unprepareGrainData(prepared.get(), plain.get())->getData(),
                              grain, kGrainBytes))
            << "grain at " << at;
        if (stored) {
            const unsigned char* begin = file.getData();
            const unsigned char* end = begin + file.getUsed();
            EXPECT_NE(std::search(begin, end, prepared->getData(),
                                  prepared->getData() + prepared->getUsed()),
                      end)
                << "grain at " << at << " was not passed on as stored";
        }
    }
}

// Files that qemu-img writes: the directory in front of the grains, no footer, and grains
// appended behind the old end when qemu-img writes into such a file again.
TEST(CVMDKStreamOptimizedExtentQemuTest, ReadsWhatQemuImgWritesAndAppends) {
    HARL_SKIP_WITHOUT_QEMU_IMG();
    harltest::CScratchFolder folder;
    Bytes raw = makeRaw(40, 3);
    kz::TBuffer<unsigned char> content;
    content.assign(raw.data(), raw.size());
    harltest::writeWholeFile(folder.file("raw.img"), content);
    std::string output;
    ASSERT_EQ(harltest::runQemuImg(
                  {"convert", "-f", "raw", "-O", "vmdk", "-o", "subformat=streamOptimized",
                   folder.file("raw.img"), folder.file("s.vmdk")},
                  &output),
              0)
        << output;
    // Data for two grains that the file does not hold yet: qemu-img appends them.
    Bytes extra(raw.size(), 0);
    for (long long grain : {9, 12}) {
        std::fill_n(extra.begin() + grain * kGrainBytes, 3000, static_cast<unsigned char>(grain));
        std::fill_n(raw.begin() + grain * kGrainBytes, 3000, static_cast<unsigned char>(grain));
    }
    content.assign(extra.data(), extra.size());
    harltest::writeWholeFile(folder.file("extra.img"), content);
    ASSERT_EQ(harltest::runQemuImg({"convert", "-n", "--target-is-zero", "-f", "raw", "-O", "vmdk",
                                    folder.file("extra.img"), folder.file("s.vmdk")},
                                   &output),
              0)
        << output;

    kz::P<kz::CLocalFileSystem> fs(new kz::CLocalFileSystem);
    kz::P<kz::IIOStream> stream =
        openVMDKFileStream(fs.get(), folder.uriOf("s.vmdk"), kz::IIOStream::AccessRead);
    kz::P<CVMDKStreamOptimizedExtentFile> extent = openExtent(stream.get());
    EXPECT_EQ(extent->getGrainSource(), Source::HeaderDirectory);
    expectReadsAs(*extent, raw, harltest::readWholeFile(folder.file("s.vmdk")));
}

// A file in the layout of streaming writers, with its directory told by the footer; the same
// with no usable directory anywhere, read by the marker scan; and with the directory in the
// header as well.
TEST(CVMDKStreamOptimizedExtentTest, ReadsFooterStyleFilesByDirectoryOrScan) {
    const Bytes raw = makeRaw(21, 5);
    const harltest::CStreamOptimizedLayout layout =
        harltest::buildStreamOptimizedFile(raw, "f.vmdk", 8);
    ASSERT_EQ(layout.tableSectors[1], 0);
    const size_t footer = layout.file.getUsed() - 2 * kSector;
    const std::pair<Source, std::function<void(kz::TBuffer<unsigned char>&)>> cases[] = {
        {Source::FooterDirectory, [](kz::TBuffer<unsigned char>&) {}},
        {Source::MarkerScan, [&](auto& file) { putLE(file, footer + 56, 0, 8); }},
        {Source::HeaderDirectory,
         [&](auto& file) {
             putLE(file, 56, static_cast<unsigned long long>(layout.directorySector), 8);
         }},
    };
    for (const auto& [source, change] : cases) {
        kz::TBuffer<unsigned char> file = layout.file;
        change(file);
        kz::P<kz::CBufferStream> stream(new kz::CBufferStream(file, kz::CURI("file:///f.vmdk")));
        kz::P<CVMDKStreamOptimizedExtentFile> extent = openExtent(stream.get());
        EXPECT_EQ(extent->getGrainSource(), source);
        expectReadsAs(*extent, raw, file);
        kz::P<CVMDKSpaceInfo> space = extent->gatherSpaceInfo();
        EXPECT_EQ(space->getPayloadSize(), 14 * kGrainBytes);
    }

    // The scan puts grains that were streamed out of order back in order.
    kz::TBuffer<unsigned char> file = layout.file;
    putLE(file, footer + 56, 0, 8);
    Bytes swapped = raw;
    for (size_t grain : {2, 3}) {
        putLE(file, static_cast<size_t>(layout.grainSectors[grain]) * kSector, (5 - grain) * 128,
              8);
    }
    std::swap_ranges(swapped.begin() + 2 * kGrainBytes, swapped.begin() + 3 * kGrainBytes,
                     swapped.begin() + 3 * kGrainBytes);
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream(file, kz::CURI("file:///f.vmdk")));
    expectReadsAs(*openExtent(stream.get()), swapped, file);
}

// Grains that another writer stored longer than the library's compressed form can hold come
// out of the prepared path compressed anew, and read back as they were.
TEST(CVMDKStreamOptimizedExtentTest, PreparesAnewWhatItCannotPassOn) {
    const Bytes raw = harltest::makeRandomData(3 * kGrainBytes, 9);
    const harltest::CStreamOptimizedLayout layout =
        harltest::buildStreamOptimizedFile(raw, "x.vmdk", 8, 200);
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream(layout.file, kz::CURI("file:///x.vmdk")));
    kz::P<CVMDKStreamOptimizedExtentFile> extent = openExtent(stream.get());
    kz::P<CVMDKDataPreparer> preparer = extent->createDataPreparer();
    kz::P<kz::TBuffer<unsigned char>> prepared(new kz::TBuffer<unsigned char>);
    kz::P<kz::TBuffer<unsigned char>> plain(new kz::TBuffer<unsigned char>);
    for (long long grain = 0; grain < 3; ++grain) {
        extent->readPreparedGrainData(*prepared);
        EXPECT_LE(static_cast<long long>(prepared->getUsed()),
                  preparer->getWorstCaseGrainSizeSectors() * static_cast<long long>(kSector));
        EXPECT_EQ(0,
                  std::memcmp(preparer->unprepareGrainData(prepared.get(), plain.get())->getData(),
                              raw.data() + grain * kGrainBytes, kGrainBytes));
    }
}

// Damage at named places: each ends in a CIOError code 5 that names the file, at opening or at
// the first read of the grain it concerns, never in a crash or in wrong data.
TEST(CVMDKStreamOptimizedExtentTest, DamagedFilesEndInClearErrors) {
    const Bytes raw = makeRaw(21, 7);
    const harltest::CStreamOptimizedLayout layout =
        harltest::buildStreamOptimizedFile(raw, "d.vmdk", 8);
    const size_t length = layout.file.getUsed();
    const size_t footer = length - 2 * kSector;
    const size_t lastGrain = static_cast<size_t>(layout.grainSectors[20]) * kSector;
    const size_t firstTable = static_cast<size_t>(layout.tableSectors[0]) * kSector;
    const auto scanOnly = [&](kz::TBuffer<unsigned char>& file) { putLE(file, footer + 56, 0, 8); };

    struct CCase {
        const char* name;
        std::function<void(kz::TBuffer<unsigned char>&)> damage;
        std::string message;
    };

    const CCase cases[] = {
        {"footer cut off", [&](auto& file) { file.setUsed(length - 3 * kSector); },
         "ends before its end-of-stream marker."},
        {"footer of another disk", [&](auto& file) { putLE(file, footer + 12, 8, 8); },
         "has a footer that does not match its header."},
        {"directory outside the file", [&](auto& file) { putLE(file, footer + 56, 1 << 20, 8); },
         "VMDK grain directory lies outside the file."},
        {"table outside the file",
         [&](auto& file) { putLE(file, layout.directorySector * kSector, 1 << 20, 4); },
         "VMDK grain table lies outside the file."},
        {"grain outside the file", [&](auto& file) { putLE(file, firstTable, 1 << 20, 4); },
         "VMDK grain lies outside the file."},
        {"marker length beyond the file",
         [&](auto& file) { putLE(file, lastGrain + 8, 131072, 4); },
         "VMDK grain runs past the end of the file."},
        {"marker length beyond the file, scanned",
         [&](auto& file) {
             scanOnly(file);
             putLE(file, lastGrain + 8, 131072, 4);
         },
         "VMDK grain runs past the end of the file."},
        {"empty grain marker", [&](auto& file) { putLE(file, lastGrain + 8, 0, 4); },
         "VMDK grain marker has an invalid compressed size."},
        {"metadata marker reaching past the end, scanned",
         [&](auto& file) {
             scanOnly(file);
             const long long marker = layout.directorySector - 1;
             putLE(
                 file, static_cast<size_t>(marker) * kSector,
                 static_cast<unsigned long long>(static_cast<long long>(length / kSector) - marker),
                 8);
         },
         "VMDK metadata marker runs past the end of the file."},
        {"marker length beyond any grain",
         [&](auto& file) { putLE(file, lastGrain + 8, 131073, 4); },
         "VMDK grain marker has an invalid compressed size."},
        {"marker length beyond any grain, scanned",
         [&](auto& file) {
             scanOnly(file);
             putLE(file, lastGrain + 8, 131073, 4);
         },
         "VMDK grain marker has an invalid compressed size."},
        {"marker of another grain", [&](auto& file) { putLE(file, lastGrain, 0, 8); },
         "VMDK grain marker names another grain than its table."},
        {"marker of another grain, scanned",
         [&](auto& file) {
             scanOnly(file);
             putLE(file, lastGrain, 99 * 128, 8);
         },
         "VMDK grain marker names no grain of the extent."},
        {"unknown marker, scanned",
         [&](auto& file) {
             scanOnly(file);
             putLE(file, (layout.directorySector - 1) * kSector + 12, 7, 4);
         },
         "Unknown VMDK marker in stream-optimized extent."},
        {"damaged deflate data",
         [&](auto& file) { std::memset(file.getData() + lastGrain + 14, 0xff, 64); },
         "Cannot decompress data: the compressed data is corrupt."},
    };
    for (const CCase& c : cases) {
        kz::TBuffer<unsigned char> file = layout.file;
        c.damage(file);
        kz::P<kz::CBufferStream> stream(new kz::CBufferStream(file, kz::CURI("file:///d.vmdk")));
        const std::string text = harltest::thrownText<kz::CIOError>([&] {
            kz::P<CVMDKStreamOptimizedExtentFile> extent = openExtent(stream.get());
            Bytes all(raw.size());
            extent->read(all.data(), static_cast<int>(all.size()));
        });
        EXPECT_EQ(text.rfind("5 ", 0), 0u) << c.name << ": " << text;
        EXPECT_NE(text.find(c.message), std::string::npos) << c.name << ": " << text;
        EXPECT_NE(text.find("uri=file:///d.vmdk"), std::string::npos) << c.name << ": " << text;
    }
}

}  // namespace
