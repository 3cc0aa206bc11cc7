// Importing a stream-optimized file that qemu-img made, on the local file system: 1 GiB of
// file-system-like data with a hole every 8 MiB, converted once by qemu-img (not timed). Each
// case converts it into the same target form, a stream-optimized (compressed) disk, and ends
// with the target's data synced to the medium:
//
// - harl, prepared grains: the file opened by CVMDKImportDisk, and each stored grain moved into
//   a compressed disk of this library as it stands, without decompressing and compressing it;
// - harl, bytes: the same through byte reads and writes, so the grains are decompressed and
//   compressed again (level 1), as any import of another form would do;
// - `qemu-img convert -O vmdk -o subformat=streamOptimized` of the same file.
//
// The counter "bytes_per_second" counts bytes of the virtual disk.
//
// Environment: HARL_BENCH_KEEP keeps the scratch folder (its path goes to stderr).

#include "harl/disk/CVMDKDisk.h"
#include "harl/disk/CVMDKImportDisk.h"
#include "harl/foundation/kz/CLocalFileSystem.h"

#include "bench/CBenchScratchFolder.h"
#include "tests/support/SampleData.h"
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using harl::CVMDKDisk;

constexpr long long kMiB = 1 << 20;
constexpr long long kDiskBytes = 1024 * kMiB;
constexpr long long kHoleEveryBytes = 8 * kMiB;
constexpr int kChunkBytes = 1 << 20;

class CScratch : public CBenchScratchFolder {
public:
    CScratch() : CBenchScratchFolder("harl-import") { makeSource(); }

private:
    // The raw image, then qemu-img's stream-optimized file of it; the raw image goes again.
    void makeSource() {
        {
            std::ofstream raw(file("raw.img"), std::ios::binary);
            for (long long at = 0; at < kDiskBytes; at += kChunkBytes) {
                harltest::Bytes chunk(kChunkBytes, 0);
                if (at % kHoleEveryBytes != 0) {
                    chunk = harltest::makeFileSystemLikeData(kChunkBytes,
                                                             static_cast<unsigned>(at / kMiB));
                }
                raw.write(reinterpret_cast<const char*>(chunk.data()), kChunkBytes);
            }
        }
        const std::string command =
            "qemu-img convert -f raw -O vmdk -o subformat=streamOptimized " + file("raw.img") +
            " " + file("source.vmdk");
        if (std::system(command.c_str()) != 0) {
            throw std::runtime_error("qemu-img convert failed: " + command);
        }
        std::filesystem::remove(file("raw.img"));
    }

};

CScratch& scratch() {
    static CScratch instance;
    return instance;
}

void syncFile(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0 || ::fsync(fd) != 0) {
        throw std::runtime_error("Cannot sync " + path);
    }
    ::close(fd);
}

// One import of the source into a new compressed disk of this library.
void importSource(bool prepared) {
    kz::P<CVMDKDisk> source =
        harl::CVMDKImportDisk::open(scratch().fs.get(), scratch().uri("source.vmdk"), "", 1);
    kz::P<CVMDKDisk> target =
        CVMDKDisk::create(scratch().fs.get(), scratch().uri("target.vmdk"), source->getSizeBytes(),
                          "", true, 1, -1, "", 0xFFFFFFFFu, false);
    const long long grainBytes = source->getGrainSizeBytes();
    kz::TBuffer<unsigned char> buffer(prepared ? 0 : kChunkBytes);
    const long long step = prepared ? grainBytes : kChunkBytes;
    for (long long at = 0; at < source->getSizeBytes(); at += step) {
        source->seek(at);
        target->seek(at);
        if (!prepared) {
            source->read(buffer.getData(), kChunkBytes);
            target->write(buffer.getData(), kChunkBytes);
        } else if (source->isGrainWritten()) {
            source->readPreparedGrainData(buffer);
            target->writePreparedGrainData(buffer);
        }
    }
    target->flushChanges();
    target = nullptr;
    syncFile(scratch().file("target.vmdk"));
}

void BM_ImportStreamOptimized(benchmark::State& state) {
    const bool prepared = state.range(0) == 1;
    scratch();
    for (auto _ : state) {
        importSource(prepared);
    }
    state.SetBytesProcessed(state.iterations() * kDiskBytes);
    state.SetLabel(prepared ? "harl, prepared grains" : "harl, bytes");
}

BENCHMARK(BM_ImportStreamOptimized)
    ->DenseRange(0, 1)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();

void BM_QemuImgConvertStreamOptimized(benchmark::State& state) {
    scratch();
    const std::string command = "qemu-img convert -f vmdk -O vmdk -o subformat=streamOptimized " +
                                scratch().file("source.vmdk") + " " + scratch().file("qemu.vmdk");
    for (auto _ : state) {
        if (std::system(command.c_str()) != 0) {
            state.SkipWithError("qemu-img convert failed");
            return;
        }
        syncFile(scratch().file("qemu.vmdk"));
    }
    state.SetBytesProcessed(state.iterations() * kDiskBytes);
    state.SetLabel("qemu-img convert");
}

BENCHMARK(BM_QemuImgConvertStreamOptimized)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();

}  // namespace
