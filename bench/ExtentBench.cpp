// Whole extents on the local file system: a raw image of file-system-like data converted into a
// fresh sparse extent (uncompressed and compressed at level 1) and read back sequentially, the
// creation of the empty metadata of a 2 TiB extent, and a plain copy of the raw image with the
// same chunks, as the floor against which the extent path is judged.
//
// The raw image is written once into a scratch folder and then read from the file in 1 MiB
// chunks, as a converting tool would read it; the page cache holds it after the first pass.
// A conversion includes the creation of the empty extent and the final flush, whose two
// fdatasync calls are part of the cost. The plain copy does not sync; "CopyRawFileAndSync"
// does, once at its end.
//
// Environment:
//   HARL_BENCH_EXTENT_MIB  size of the raw image in MiB, a multiple of 1 (default 256);
//   HARL_BENCH_KEEP        if set, keep the scratch folder (its path goes to stderr), so that
//                          other tools can be timed on the same raw image.

#include "harl/descriptor/CVMDKDescriptor.h"
#include "harl/descriptor/CVMDKDescriptorAccessor.h"
#include "harl/extent/CVMDKContentIDUpdater.h"
#include "harl/extent/CVMDKSparseExtentFile.h"
#include "harl/format/VMDKFileStream.h"
#include "harl/foundation/kz/CLocalFileSystem.h"
#include "harl/grain/CVMDKGrainTableCache.h"
#include "harl/grain/VMDKEmptyExtent.h"

#include "bench/CBenchScratchFolder.h"
#include "tests/support/SampleData.h"
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace harl;

constexpr long long kMiB = 1 << 20;
constexpr long long kGrainSectors = 128;
constexpr long long kGrainBytes = kGrainSectors * 512;
constexpr int kChunkBytes = static_cast<int>(kMiB);
constexpr long long kDescriptorSectors = 20;
constexpr long long kLargeExtentBytes = 2LL << 40;

kz::TBuffer<unsigned char> zeros(size_t size) {
    kz::TBuffer<unsigned char> buffer(size);
    buffer.fill(0);
    return buffer;
}

long long imageBytes() {
    const char* text = std::getenv("HARL_BENCH_EXTENT_MIB");
    const long long mib = text != nullptr ? std::atoll(text) : 256;
    if (mib <= 0) {
        throw std::invalid_argument("HARL_BENCH_EXTENT_MIB must be a positive number of MiB");
    }
    return mib * kMiB;
}

// The scratch folder with the raw image, made on first use and removed at exit unless kept.
class CScratch : public CBenchScratchFolder {
public:
    CScratch() : CBenchScratchFolder("harl-bench"), bytes(imageBytes()) { writeRawImage(); }

    kz::CURI uriOf(const std::string& name) const { return uri(name); }

    kz::IFileSystem* fileSystem() const { return fs.get(); }

    long long getImageBytes() const { return bytes; }

private:
    // Each MiB has a seed of its own, so that no two grains are equal.
    void writeRawImage() {
        kz::P<kz::IIOStream> out = fs->open(uriOf("image.raw"), kz::IIOStream::AccessReadWrite, 0);
        for (long long offset = 0; offset < bytes; offset += kChunkBytes) {
            const harltest::Bytes chunk =
                harltest::makeFileSystemLikeData(kChunkBytes, unsigned(offset / kChunkBytes));
            out->write(chunk.data(), kChunkBytes, nullptr);
        }
        out->close();
    }

    long long bytes;
};

CScratch& scratch() {
    static CScratch instance;
    return instance;
}

std::string extentName(bool compressed) {
    return compressed ? "stream.vmdk" : "sparse.vmdk";
}

kz::P<CVMDKDescriptor> makeDescriptor(bool compressed, long long bytes) {
    const std::string text = std::string("# Disk DescriptorFile\nversion=1\nCID=abcdef01\n") +
                             "parentCID=ffffffff\ncreateType=\"" +
                             (compressed ? "streamOptimized" : "monolithicSparse") + "\"\nRW " +
                             std::to_string(bytes / 512) + " SPARSE \"" + extentName(compressed) +
                             "\"\n";
    kz::TBuffer<unsigned char> buffer;
    buffer.assign(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    return kz::P<CVMDKDescriptor>(new CVMDKDescriptor(buffer));
}

// The extent and what it depends on, opened as a disk opens its extents.
struct COpenExtent {
    COpenExtent(bool compressed, kz::IIOStream::Access access) {
        CScratch& s = scratch();
        const kz::CURI uri = s.uriOf(extentName(compressed));
        kz::P<kz::IIOStream> stream = openVMDKFileStream(s.fileSystem(), uri, access);
        if (access == kz::IIOStream::AccessReadWrite) {
            kz::P<CVMDKDescriptorAccessor> accessor(
                new CVMDKDescriptorAccessor(stream.get(), kz::IIOStream::AccessRead));
            updater =
                new CVMDKContentIDUpdater(s.fileSystem(), uri, accessor->getDescriptor().get());
        }
        extent = new CVMDKSparseExtentFile(stream.get(), access, 0, 1, cache.get(), nullptr,
                                           updater.get(), nullptr, kz::TCryptBuffer<>(),
                                           kz::TBuffer<unsigned char>());
    }

    kz::P<CVMDKGrainTableCache> cache{new CVMDKGrainTableCache};
    kz::P<CVMDKContentIDUpdater> updater;
    kz::P<CVMDKSparseExtentFile> extent;
};

// Creates the extent afresh and converts the raw image into it, flush included.
void convertImage(bool compressed) {
    CScratch& s = scratch();
    const long long bytes = s.getImageBytes();
    const kz::CURI uri = s.uriOf(extentName(compressed));
    s.fileSystem()->deleteFile(uri, true);
    createEmptyVMDKSparseExtentFile(
        s.fileSystem(), uri, compressed, bytes / kGrainBytes, kGrainSectors, zeros(kGrainBytes),
        makeDescriptor(compressed, bytes).get(), kDescriptorSectors, kz::TBuffer<unsigned char>());
    COpenExtent open(compressed, kz::IIOStream::AccessReadWrite);
    kz::P<kz::IIOStream> in =
        s.fileSystem()->open(s.uriOf("image.raw"), kz::IIOStream::AccessRead, 0);
    std::vector<unsigned char> chunk(kChunkBytes);
    for (long long offset = 0; offset < bytes; offset += kChunkBytes) {
        in->read(chunk.data(), kChunkBytes);
        open.extent->write(chunk.data(), kChunkBytes);
    }
    open.extent->flushChanges();
}

void BM_ConvertRawImage(benchmark::State& state) {
    const bool compressed = state.range(0) != 0;
    for (auto _ : state) {
        convertImage(compressed);
    }
    state.SetBytesProcessed(state.iterations() * scratch().getImageBytes());
}

BENCHMARK(BM_ConvertRawImage)
    ->ArgName("compressed")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1);

void BM_ReadExtent(benchmark::State& state) {
    const bool compressed = state.range(0) != 0;
    if (!std::filesystem::exists(scratch().file(extentName(compressed)))) {
        convertImage(compressed);
    }
    const long long bytes = scratch().getImageBytes();
    std::vector<unsigned char> chunk(kChunkBytes);
    for (auto _ : state) {
        COpenExtent open(compressed, kz::IIOStream::AccessRead);
        for (long long offset = 0; offset < bytes; offset += kChunkBytes) {
            open.extent->read(chunk.data(), kChunkBytes);
            benchmark::DoNotOptimize(chunk.data());
        }
    }
    state.SetBytesProcessed(state.iterations() * bytes);
}

BENCHMARK(BM_ReadExtent)
    ->ArgName("compressed")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(2);

// The floor: the same chunks from the raw image into a plain file through the same file system.
void BM_CopyRawFile(benchmark::State& state) {
    CScratch& s = scratch();
    const long long bytes = s.getImageBytes();
    std::vector<unsigned char> chunk(kChunkBytes);
    for (auto _ : state) {
        s.fileSystem()->deleteFile(s.uriOf("copy.raw"), true);
        kz::P<kz::IIOStream> in =
            s.fileSystem()->open(s.uriOf("image.raw"), kz::IIOStream::AccessRead, 0);
        kz::P<kz::IIOStream> out =
            s.fileSystem()->open(s.uriOf("copy.raw"), kz::IIOStream::AccessReadWrite, 0);
        for (long long offset = 0; offset < bytes; offset += kChunkBytes) {
            in->read(chunk.data(), kChunkBytes);
            out->write(chunk.data(), kChunkBytes, nullptr);
        }
        if (state.range(0) != 0) {
            out->flush();
        }
        out->close();
    }
    state.SetBytesProcessed(state.iterations() * bytes);
}

BENCHMARK(BM_CopyRawFile)
    ->ArgName("sync")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1);

// The metadata of a 2 TiB extent without compression: 65536 tables, twice, about 256 MiB.
void BM_CreateEmptyExtent2TiB(benchmark::State& state) {
    CScratch& s = scratch();
    const kz::CURI uri = s.uriOf("large.vmdk");
    const kz::TBuffer<unsigned char> zeroBuffer = zeros(kGrainBytes);
    for (auto _ : state) {
        state.PauseTiming();
        s.fileSystem()->deleteFile(uri, true);
        state.ResumeTiming();
        createEmptyVMDKSparseExtentFile(s.fileSystem(), uri, false, kLargeExtentBytes / kGrainBytes,
                                        kGrainSectors, zeroBuffer, nullptr, 0,
                                        kz::TBuffer<unsigned char>());
    }
    state.counters["fileMiB"] = double(std::filesystem::file_size(s.file("large.vmdk"))) / kMiB;
    s.fileSystem()->deleteFile(uri, true);
}

BENCHMARK(BM_CreateEmptyExtent2TiB)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

}  // namespace
