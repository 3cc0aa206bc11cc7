// The CPU bounds of harl-img's conversions, for scripts/bench-tool.sh: one pass over the
// grains of a raw image that are not all zero, compressing each with libdeflate at level 1 (the
// bound of a compressed conversion on one thread), or encrypting each with AES-256-CBC through
// OpenSSL (the bound of an encrypted one). The image is read in grains from the page cache, as
// the tool reads it; nothing is written.
//
// Environment: HARL_BENCH_RAW_IMAGE, the raw image (required).

#include <benchmark/benchmark.h>
#include <libdeflate.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <stdexcept>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t kGrainBytes = 65536;

// Calls `work` with each grain of the image that holds a byte other than zero.
long long forEachDataGrain(const std::function<void(const unsigned char*)>& work) {
    const char* path = std::getenv("HARL_BENCH_RAW_IMAGE");
    const int fd = path != nullptr ? open(path, O_RDONLY) : -1;
    if (fd < 0) {
        throw std::runtime_error("HARL_BENCH_RAW_IMAGE must name a readable raw image");
    }
    std::vector<unsigned char> grain(kGrainBytes);
    long long bytes = 0;
    for (ssize_t count; (count = read(fd, grain.data(), kGrainBytes)) > 0;) {
        std::fill(grain.begin() + count, grain.end(), 0);
        if (grain[0] != 0 || std::memcmp(grain.data(), grain.data() + 1, kGrainBytes - 1) != 0) {
            work(grain.data());
        }
        bytes += count;
    }
    close(fd);
    return bytes;
}

void BM_DeflateGrainsLevel1(benchmark::State& state) {
    libdeflate_compressor* compressor = libdeflate_alloc_compressor(1);
    std::vector<unsigned char> out(libdeflate_zlib_compress_bound(compressor, kGrainBytes));
    for (auto _ : state) {
        const long long bytes = forEachDataGrain([&](const unsigned char* grain) {
            benchmark::DoNotOptimize(
                libdeflate_zlib_compress(compressor, grain, kGrainBytes, out.data(), out.size()));
        });
        state.SetBytesProcessed(bytes);
    }
    libdeflate_free_compressor(compressor);
}

BENCHMARK(BM_DeflateGrainsLevel1)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

void BM_EncryptGrainsAes256Cbc(benchmark::State& state) {
    const std::vector<unsigned char> key(32, 7);
    const std::vector<unsigned char> iv(16, 9);
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    std::vector<unsigned char> out(kGrainBytes + 16);
    for (auto _ : state) {
        const long long bytes = forEachDataGrain([&](const unsigned char* grain) {
            int length = 0;
            EVP_EncryptInit_ex(context, EVP_aes_256_cbc(), nullptr, key.data(), iv.data());
            EVP_CIPHER_CTX_set_padding(context, 0);
            EVP_EncryptUpdate(context, out.data(), &length, grain, kGrainBytes);
            benchmark::DoNotOptimize(out.data());
        });
        state.SetBytesProcessed(bytes);
    }
    EVP_CIPHER_CTX_free(context);
}

BENCHMARK(BM_EncryptGrainsAes256Cbc)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

}  // namespace
