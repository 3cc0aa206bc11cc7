// Grain look-ups through the directory and the shared table cache, on an extent of 2^20 grains
// (2048 tables of 512 entries) laid out in memory, so that the figures show the bookkeeping
// and the copying of table bytes, not a disk.
#include "harl/foundation/kz/CBufferStream.h"
#include "harl/grain/CVMDKGrainDirectory.h"
#include "harl/grain/CVMDKGrainTableCache.h"

#include "tests/support/GrainMetadataLayout.h"
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

namespace {

constexpr long long kGrainSectors = 128;
constexpr int kPerTable = 512;
constexpr long long kGrains = 1LL << 20;
constexpr long long kTables = kGrains / kPerTable;

struct CExtent {
    CExtent() {
        stream->setLength(512);
        layout = harltest::layOutGrainMetadata(*stream, {.tableCount = kTables});
        // Every grain allocated, so that each look-up returns a position.
        for (long long table = 0; table < kTables; ++table) {
            for (int entry = 0; entry < kPerTable; ++entry) {
                harltest::pokeUInt32(
                    *stream, layout.tableSectors[table] * 512 + entry * 4,
                    static_cast<unsigned int>(1000000 + table * kPerTable + entry));
            }
        }
    }

    kz::P<harl::CVMDKGrainDirectory> open(harl::CVMDKGrainTableCache* cache) {
        return new harl::CVMDKGrainDirectory(
            stream.get(), kz::IIOStream::AccessRead, layout.directorySectors,
            layout.redundantDirectorySectors, kGrains * kGrainSectors, kGrainSectors, kPerTable,
            false, cache);
    }

    kz::P<kz::CBufferStream> stream{new kz::CBufferStream};
    harltest::CGrainMetadataLayout layout;
};

CExtent& extent() {
    static CExtent shared;
    return shared;
}

// Every table cached: one map search, a list splice and the table's own look-up per grain.
void BM_GetGrainInfoHitSequential(benchmark::State& state) {
    kz::P<harl::CVMDKGrainTableCache> cache(new harl::CVMDKGrainTableCache(kTables));
    kz::P<harl::CVMDKGrainDirectory> directory = extent().open(cache.get());
    long long pos = 0, slot = 0, grain = 0;
    for (long long i = 0; i < kGrains; ++i) {
        directory->getGrainInfo(i, pos, slot);
    }
    for (auto _ : state) {
        directory->getGrainInfo(grain, pos, slot);
        benchmark::DoNotOptimize(pos);
        grain = (grain + 1) & (kGrains - 1);
    }
    state.SetItemsProcessed(state.iterations());
}

// Every table cached, grains in a seeded random order: each look-up moves a table to the front.
void BM_GetGrainInfoHitRandom(benchmark::State& state) {
    kz::P<harl::CVMDKGrainTableCache> cache(new harl::CVMDKGrainTableCache(kTables));
    kz::P<harl::CVMDKGrainDirectory> directory = extent().open(cache.get());
    std::mt19937 random(42);
    std::vector<long long> order(1 << 16);
    for (long long& grain : order) {
        grain = static_cast<long long>(random() % kGrains);
    }
    long long pos = 0, slot = 0;
    for (long long i = 0; i < kGrains; ++i) {
        directory->getGrainInfo(i, pos, slot);
    }
    size_t next = 0;
    for (auto _ : state) {
        directory->getGrainInfo(order[next], pos, slot);
        benchmark::DoNotOptimize(pos);
        next = (next + 1) & (order.size() - 1);
    }
    state.SetItemsProcessed(state.iterations());
}

// A cache of limit 0 keeps nothing: each look-up reads its batch of 32 tables again.
void BM_GetGrainInfoMiss(benchmark::State& state) {
    kz::P<harl::CVMDKGrainTableCache> cache(new harl::CVMDKGrainTableCache(0));
    kz::P<harl::CVMDKGrainDirectory> directory = extent().open(cache.get());
    long long pos = 0, slot = 0, grain = 0;
    for (auto _ : state) {
        directory->getGrainInfo(grain, pos, slot);
        benchmark::DoNotOptimize(pos);
        grain = (grain + 7 * kPerTable) & (kGrains - 1);
    }
    state.SetItemsProcessed(state.iterations());
}

// A whole walk over 2^20 grains with the disk's default cache, from a cold cache: one batch
// read per 32 tables, and the default limit of 1024 tables evicting the first half.
void BM_WalkExtentColdCache(benchmark::State& state) {
    for (auto _ : state) {
        kz::P<harl::CVMDKGrainTableCache> cache(new harl::CVMDKGrainTableCache);
        kz::P<harl::CVMDKGrainDirectory> directory = extent().open(cache.get());
        long long pos = 0, slot = 0;
        for (long long grain = 0; grain < kGrains; ++grain) {
            directory->getGrainInfo(grain, pos, slot);
        }
        benchmark::DoNotOptimize(pos);
    }
    state.SetItemsProcessed(state.iterations() * kGrains);
}

// The table reads of that walk alone, for comparison: 2048 reads of 2 KiB.
void BM_ReadAllTablesOnly(benchmark::State& state) {
    kz::TBuffer<unsigned char> table(kPerTable * 4);
    for (auto _ : state) {
        for (long long sector : extent().layout.tableSectors) {
            extent().stream->seek(sector * 512);
            extent().stream->read(table.getData(), kPerTable * 4);
        }
        benchmark::DoNotOptimize(table.getData());
    }
    state.SetItemsProcessed(state.iterations() * kGrains);
}

BENCHMARK(BM_GetGrainInfoHitSequential);
BENCHMARK(BM_GetGrainInfoHitRandom);
BENCHMARK(BM_GetGrainInfoMiss);
BENCHMARK(BM_WalkExtentColdCache)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadAllTablesOnly)->Unit(benchmark::kMillisecond);

}  // namespace
