// Speed of the grain path's codecs on 64 KiB grains: both deflate engines at level 1 and
// AES-256-CBC, on data that compresses like a used file system and on random data.

#include "harl/foundation/kz/P.h"
#include "harl/foundation/pcu/CZLibCompressor.h"
#include "harl/foundation/rcu/CMiniZCompressor.h"
#include "harl/foundation/vesk/CCipher_AES256CBC.h"

#include "tests/support/SampleData.h"
#include <benchmark/benchmark.h>

namespace {

const int kGrainSizeBytes = 65536;
const int kHeaderBytes = 12;

enum Engine { ZLib, LibDeflate };

enum Content { FileSystemLike, Random };

harltest::Bytes makeGrain(int content) {
    return content == FileSystemLike ? harltest::makeFileSystemLikeData(kGrainSizeBytes, 1)
                                     : harltest::makeRandomData(kGrainSizeBytes, 2);
}

kz::P<kz::ISimpleCompressor> makeEngine(int engine) {
    if (engine == ZLib) {
        return kz::P<kz::ISimpleCompressor>(new pcu::CZLibCompressor(1));
    }
    return kz::P<kz::ISimpleCompressor>(new rcu::CMiniZCompressor(1));
}

void setLabels(benchmark::State& state, int compressedBytes) {
    state.SetBytesProcessed(state.iterations() * kGrainSizeBytes);
    state.SetLabel(std::string(state.range(0) == ZLib ? "zlib" : "libdeflate") +
                   (state.range(1) == FileSystemLike ? " fs-like" : " random"));
    state.counters["ratio"] = double(compressedBytes) / kGrainSizeBytes;
}

void BM_Compress(benchmark::State& state) {
    const harltest::Bytes grain = makeGrain(int(state.range(1)));
    kz::P<kz::ISimpleCompressor> engine = makeEngine(int(state.range(0)));
    harltest::Bytes out(size_t(engine->getCompressedSizeUpperBound(kGrainSizeBytes)));
    int n = 0;
    for (auto _ : state) {
        n = engine->compressSingleStep(grain.data(), kGrainSizeBytes, out.data(), int(out.size()));
        benchmark::DoNotOptimize(n);
    }
    setLabels(state, n);
}

void BM_Decompress(benchmark::State& state) {
    const harltest::Bytes grain = makeGrain(int(state.range(1)));
    kz::P<kz::ISimpleCompressor> engine = makeEngine(int(state.range(0)));
    harltest::Bytes stored(size_t(engine->getCompressedSizeUpperBound(kGrainSizeBytes)));
    const int n = engine->compressSingleStep(grain.data(), kGrainSizeBytes, stored.data(),
                                             int(stored.size()));
    harltest::Bytes out(kGrainSizeBytes);
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            engine->decompressSingleStep(stored.data(), n, out.data(), kGrainSizeBytes));
    }
    setLabels(state, n);
}

// As a compressed grain is stored: the data behind a 12-byte clear header, appended to it.
// Range 0 picks the pair: 0 the per-call pair, 1 the bulk pair of the grain path.
void BM_Encrypt(benchmark::State& state) {
    const harltest::Bytes grain = makeGrain(Random);
    kz::P<vesk::ICipher> cipher(new vesk::CCipher_AES256CBC);
    kz::TCryptBuffer<unsigned char> key(32);
    key.fill(0x5a);
    const unsigned char iv[16] = {1};
    kz::TBuffer<unsigned char> out(kGrainSizeBytes + kHeaderBytes);
    for (auto _ : state) {
        out.setUsed(kHeaderBytes);
        if (state.range(0) == 0) {
            cipher->encrypt(key, grain.data(), kGrainSizeBytes - kHeaderBytes, out, true, iv);
        } else {
            cipher->encryptData(key, grain.data(), kGrainSizeBytes - kHeaderBytes, out, true, iv);
        }
        benchmark::DoNotOptimize(out.getData());
    }
    state.SetBytesProcessed(state.iterations() * kGrainSizeBytes);
    state.SetLabel(state.range(0) == 0 ? "encrypt" : "encryptData");
}

void BM_Decrypt(benchmark::State& state) {
    const harltest::Bytes grain = makeGrain(Random);
    kz::P<vesk::ICipher> cipher(new vesk::CCipher_AES256CBC);
    kz::TCryptBuffer<unsigned char> key(32);
    key.fill(0x5a);
    const unsigned char iv[16] = {1};
    kz::TBuffer<unsigned char> out(kGrainSizeBytes);
    for (auto _ : state) {
        if (state.range(0) == 0) {
            cipher->decrypt(key, grain.data(), kGrainSizeBytes, out, false, iv);
        } else {
            cipher->decryptData(key, grain.data(), kGrainSizeBytes, out, false, iv);
        }
        benchmark::DoNotOptimize(out.getData());
    }
    state.SetBytesProcessed(state.iterations() * kGrainSizeBytes);
    state.SetLabel(state.range(0) == 0 ? "decrypt" : "decryptData");
}

void codecArgs(benchmark::internal::Benchmark* b) {
    for (int engine : {ZLib, LibDeflate}) {
        for (int content : {FileSystemLike, Random}) {
            b->Args({engine, content});
        }
    }
}

BENCHMARK(BM_Compress)->Apply(codecArgs);
BENCHMARK(BM_Decompress)->Apply(codecArgs);
BENCHMARK(BM_Encrypt)->Arg(0)->Arg(1);
BENCHMARK(BM_Decrypt)->Arg(0)->Arg(1);

}  // namespace
