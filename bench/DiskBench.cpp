// Whole disks on the local file system, each case beside its bound in the same run:
//
// - opening a 2 TiB monolithic disk, beside reading its descriptor alone;
// - opening an encrypted disk, beside one PBKDF2 derivation of 10,000 iterations;
// - reading a grain through a chain of three parents, beside reading one of the top disk;
// - creating 2 TiB disks (monolithic, split at the default limit into 1024 files, and split
//   with extent files on demand), beside `qemu-img create -f vmdk` of the same kind;
// - the space account of a 2 TiB monolithic disk with 1 % of its grains written, and of a
//   2 TiB split disk with on-demand extents of which three exist. The counters give the cost
//   per grain and the grain tables cached afterwards, which must stay within the cache limit.
//
// The written grains of the space account are entered into the grain tables directly, with
// slots past the metadata in a sparse file: the walk reads tables and the file's length, never
// grain data, and 21 GB of grain data would only cost disk space.
//
// Environment: HARL_BENCH_KEEP keeps the scratch folder (its path goes to stderr).

#include "harl/descriptor/CVMDKDescriptorAccessor.h"
#include "harl/disk/CVMDKDisk.h"
#include "harl/format/CVMDKSparseExtentHeader.h"
#include "harl/format/VMDKFileStream.h"
#include "harl/foundation/kz/CDataInStream.h"
#include "harl/foundation/kz/CLocalFileSystem.h"
#include "harl/foundation/vesk/KeyDerivation.h"

#include "bench/CBenchScratchFolder.h"
#include "tests/support/SampleData.h"
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace {

using harl::CVMDKDisk;

constexpr long long kGrainBytes = 65536;
constexpr long long kTwoTiB = 2LL << 40;
const kz::IIOStream::Access kRead = kz::IIOStream::AccessRead;

CBenchScratchFolder& scratch() {
    static CBenchScratchFolder instance("harl-disk");
    return instance;
}

kz::P<CVMDKDisk> createDisk(const std::string& name, long long size, const std::string& password,
                            long long limit, bool onDemand, const std::string& parent = "",
                            unsigned int parentCID = 0xFFFFFFFF) {
    return CVMDKDisk::create(scratch().fs.get(), scratch().uri(name), size, password, false, 1,
                             limit, parent, parentCID, onDemand);
}

kz::P<CVMDKDisk> openDisk(const std::string& name, const std::string& password = "") {
    return kz::makeP<CVMDKDisk>(scratch().fs.get(), scratch().uri(name), kRead, password, 1,
                                nullptr, nullptr);
}

// Made once, on first use.
const std::string& bigMonolithic() {
    static const std::string name = [] {
        createDisk("big.vmdk", kTwoTiB, "", -1, false);
        return std::string("big.vmdk");
    }();
    return name;
}

void BM_OpenMonolithic2TiB(benchmark::State& state) {
    const std::string& name = bigMonolithic();
    for (auto _ : state) {
        benchmark::DoNotOptimize(openDisk(name));
    }
}

BENCHMARK(BM_OpenMonolithic2TiB)->Unit(benchmark::kMicrosecond);

// The bound of opening: the main file's descriptor read and parsed, nothing else.
void BM_ReadDescriptorOnly(benchmark::State& state) {
    const std::string& name = bigMonolithic();
    for (auto _ : state) {
        const kz::P<kz::IIOStream> stream =
            harl::openVMDKFileStream(scratch().fs.get(), scratch().uri(name), kRead);
        benchmark::DoNotOptimize(kz::makeP<harl::CVMDKDescriptorAccessor>(stream.get(), kRead));
    }
}

BENCHMARK(BM_ReadDescriptorOnly)->Unit(benchmark::kMicrosecond);

void BM_OpenEncrypted(benchmark::State& state) {
    static bool made = (createDisk("secret.vmdk", 0, "password", -1, false), true);
    benchmark::DoNotOptimize(made);
    for (auto _ : state) {
        benchmark::DoNotOptimize(openDisk("secret.vmdk", "password"));
    }
}

BENCHMARK(BM_OpenEncrypted)->Unit(benchmark::kMillisecond);

void BM_Pbkdf2TenThousand(benchmark::State& state) {
    const std::vector<unsigned char> salt(32, 7);
    unsigned char key[32];
    for (auto _ : state) {
        vesk::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("password", 8, salt.data(), 32, 10000, 32, key);
        benchmark::DoNotOptimize(key);
    }
}

BENCHMARK(BM_Pbkdf2TenThousand)->Unit(benchmark::kMillisecond);

// A chain base <- a <- b <- top: grain 0 lies in the base only, grain 1 in the top.
void makeChain() {
    static bool made = [] {
        const harltest::Bytes data = harltest::makeFileSystemLikeData(kGrainBytes, 1);
        std::string parent;
        unsigned int parentCID = 0xFFFFFFFF;
        for (const char* name : {"base.vmdk", "a.vmdk", "b.vmdk", "top.vmdk"}) {
            auto disk = createDisk(name, 0, "", -1, false, parent, parentCID);
            disk->seek(parent.empty() ? 0 : kGrainBytes);
            disk->write(data.data(), static_cast<int>(kGrainBytes));
            parentCID = disk->getDescriptor()->getContentID();
            parent = name;
        }
        return true;
    }();
    benchmark::DoNotOptimize(made);
}

void readGrainRepeatedly(benchmark::State& state, long long grain) {
    makeChain();
    auto top = openDisk("top.vmdk");
    std::vector<unsigned char> buffer(kGrainBytes);
    for (auto _ : state) {
        top->seek(grain * kGrainBytes);
        top->read(buffer.data(), static_cast<int>(kGrainBytes));
    }
    state.SetBytesProcessed(state.iterations() * kGrainBytes);
}

void BM_ReadGrainOfTheTop(benchmark::State& state) {
    readGrainRepeatedly(state, 1);
}

BENCHMARK(BM_ReadGrainOfTheTop)->Unit(benchmark::kMicrosecond);

void BM_ReadGrainThroughThreeParents(benchmark::State& state) {
    readGrainRepeatedly(state, 0);
}

BENCHMARK(BM_ReadGrainThroughThreeParents)->Unit(benchmark::kMicrosecond);

// Creating 2 TiB disks: range(0) 0 monolithic, 1 split, 2 split on demand.
void BM_Create2TiB(benchmark::State& state) {
    const long long kind = state.range(0);
    for (auto _ : state) {
        createDisk("new.vmdk", kTwoTiB, "", kind == 0 ? -1 : CVMDKDisk::getDefaultFileSizeLimit(),
                   kind == 2);
        state.PauseTiming();
        ::sync();
        state.ResumeTiming();
    }
    state.SetLabel(kind == 0 ? "monolithic" : kind == 1 ? "split" : "split on demand");
}

BENCHMARK(BM_Create2TiB)->DenseRange(0, 2)->Unit(benchmark::kMillisecond)->Iterations(2);

void BM_QemuImgCreate2TiB(benchmark::State& state) {
    const std::string subformat = state.range(0) == 0 ? "monolithicSparse" : "twoGbMaxExtentSparse";
    const std::string command = "qemu-img create -q -f vmdk -o subformat=" + subformat + " " +
                                scratch().file("qemu.vmdk") + " 2T";
    for (auto _ : state) {
        if (std::system(command.c_str()) != 0) {
            state.SkipWithError("qemu-img create failed");
            return;
        }
    }
    state.SetLabel(subformat);
}

BENCHMARK(BM_QemuImgCreate2TiB)->DenseRange(0, 1)->Unit(benchmark::kMillisecond)->Iterations(2);

// Enters every `stride`-th grain of an extent file into its grain tables (primary and
// redundant), each in its own slot behind the metadata, and extends the file sparsely over them.
long long fakeWrittenGrains(const std::string& path, long long stride) {
    const int fd = ::open(path.c_str(), O_RDWR);
    harl::CVMDKSparseExtentHeader header;
    {
        const kz::P<kz::IIOStream> stream =
            scratch().fs->open(kz::CURI("file://" + path), kRead, 0);
        kz::CDataInStream in(stream.get());
        header.load(in);
    }
    const long long entries = header.getGrainTableEntryCount();
    const long long grains = static_cast<long long>(header.getCapacitySectors()) / 128;
    const long long tables = (grains + entries - 1) / entries;
    long long slot = static_cast<long long>(header.getOverheadSectors());
    long long written = 0;
    for (const uint64_t directory : {header.getGrainDirectoryOffsetSectors(),
                                     header.getRedundantGrainDirectoryOffsetSectors()}) {
        std::vector<uint32_t> tableSectors(static_cast<size_t>(tables));
        ::pread(fd, tableSectors.data(), tableSectors.size() * 4,
                static_cast<off_t>(directory * 512));
        slot = static_cast<long long>(header.getOverheadSectors());
        written = 0;
        std::vector<uint32_t> table(static_cast<size_t>(entries));
        for (long long t = 0; t < tables; ++t) {
            for (long long e = 0; e < entries; ++e) {
                const long long grain = t * entries + e;
                table[e] = grain % stride == 0 && grain < grains ? static_cast<uint32_t>(slot) : 0;
                if (table[e] != 0) {
                    slot += 128;
                    ++written;
                }
            }
            ::pwrite(fd, table.data(), table.size() * 4, static_cast<off_t>(tableSectors[t]) * 512);
        }
    }
    ::ftruncate(fd, slot * 512);
    ::close(fd);
    return written;
}

void reportSpaceWalk(benchmark::State& state, CVMDKDisk& disk, long long grains) {
    state.counters["ns_per_grain"] =
        benchmark::Counter(static_cast<double>(grains) * static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["cached_tables"] = disk.getGrainTableCache()->getCachedTableCount();
    struct rusage usage = {};
    ::getrusage(RUSAGE_SELF, &usage);
    state.counters["max_rss_MiB"] = static_cast<double>(usage.ru_maxrss) / 1024;
}

void BM_SpaceInfoMonolithicOnePercent(benchmark::State& state) {
    static const long long written = [] {
        createDisk("space.vmdk", kTwoTiB, "", -1, false);
        return fakeWrittenGrains(scratch().file("space.vmdk"), 100);
    }();
    auto disk = openDisk("space.vmdk");
    for (auto _ : state) {
        const auto space = disk->gatherSpaceInfo();
        if (space->getPayloadSize() != written * kGrainBytes) {
            state.SkipWithError("wrong payload");
        }
    }
    reportSpaceWalk(state, *disk, kTwoTiB / kGrainBytes);
}

BENCHMARK(BM_SpaceInfoMonolithicOnePercent)->Unit(benchmark::kMillisecond)->Iterations(2);

void BM_SpaceInfoSplitOnDemandThreeFiles(benchmark::State& state) {
    static bool made = [] {
        auto disk =
            createDisk("holes.vmdk", kTwoTiB, "", CVMDKDisk::getDefaultFileSizeLimit(), true);
        const harltest::Bytes data(kGrainBytes, 1);
        for (long long position : {3LL << 30, 1000LL << 30}) {
            disk->seek(position);
            disk->write(data.data(), static_cast<int>(kGrainBytes));
        }
        return true;
    }();
    benchmark::DoNotOptimize(made);
    auto disk = openDisk("holes.vmdk");
    for (auto _ : state) {
        benchmark::DoNotOptimize(disk->gatherSpaceInfo());
    }
    reportSpaceWalk(state, *disk, kTwoTiB / kGrainBytes);
}

BENCHMARK(BM_SpaceInfoSplitOnDemandThreeFiles)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace
