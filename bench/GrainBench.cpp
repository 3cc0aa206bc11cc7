// Writing and reading whole 64 KiB grains through CVMDKGrain in the four stored forms, over an
// extent file of the in-memory file system, beside the raw speed of the compressor, the cipher and
// a plain copy on the same data in the same run: the difference is what the grain path costs.
//
// Counter "allocs": heap allocations (operator new) per grain in the timed loop, 0 in steady
// state. "fileRatio": bytes of the extent file per byte of grain data.

#include "harl/foundation/kz/CMemoryFileSystem.h"
#include "harl/foundation/vesk/CCipher_AES256CBC.h"
#include "harl/grain/CVMDKCompressor.h"
#include "harl/grain/CVMDKGrain.h"

#include "tests/support/SampleData.h"
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

namespace {

long long allocationCount = 0;

}  // namespace

// The replaced operators below pair malloc with free; g++ cannot see that and warns at the
// call sites that it inlines.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(size_t size) {
    ++allocationCount;
    if (void* block = std::malloc(size == 0 ? 1 : size)) {
        return block;
    }
    throw std::bad_alloc();
}

void* operator new(size_t size, std::align_val_t align) {
    ++allocationCount;
    const size_t alignment = static_cast<size_t>(align);
    if (void* block =
            std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment)) {
        return block;
    }
    throw std::bad_alloc();
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, size_t) noexcept {
    std::free(block);
}

void operator delete(void* block, std::align_val_t) noexcept {
    std::free(block);
}

void operator delete(void* block, size_t, std::align_val_t) noexcept {
    std::free(block);
}

namespace {

constexpr long long kGrainSectors = 128;
constexpr int kGrainBytes = 65536;
// Grains the loop cycles over: 16 MiB of extent, so that the data does not sit in a cache.
constexpr long long kGrains = 256;

enum Content { FileSystemLike, Random };

harltest::Bytes makeGrain(long long content, unsigned seed) {
    return content == FileSystemLike ? harltest::makeFileSystemLikeData(kGrainBytes, seed)
                                     : harltest::makeRandomData(kGrainBytes, seed);
}

// Appends slots at the end of the data and keeps them as the directory would.
class CBenchAllocator : public kz::CBase, public harl::IVMDKGrainAllocator {
public:
    explicit CBenchAllocator(kz::IIOStream* stream) : stream(stream), slots(kGrains) {}

    void flushChangesToStream() override {}

    long long allocNewGrain(long long index, const void* data, int size, int slot) override {
        stream->seek(nextSectors * 512);
        stream->write(data, size, nullptr);
        const std::vector<unsigned char> fill(size_t(slot) * 512 - size_t(size), 0);
        stream->write(fill.data(), int(fill.size()), nullptr);
        slots[size_t(index)] = {nextSectors, slot};
        nextSectors += slot;
        return slots[size_t(index)].first;
    }

    long long allocNewGrainKeepBuffer(long long index,
                                      const kz::TConstBufferSlice<unsigned char>& data,
                                      int slot) override {
        return allocNewGrain(index, data.getData(), int(data.getLength()), slot);
    }

    kz::P<kz::IIOStream> stream;
    std::vector<std::pair<long long, long long>> slots;
    long long nextSectors = 1;
};

// An extent of kGrains grains of one form, each written once with its own content.
struct CExtent {
    CExtent(long long form, long long content) : compressed(form >= 2), encrypted(form % 2) {
        kz::TCryptBuffer<unsigned char> key(32);
        key.fill(0x5a);
        kz::TBuffer<unsigned char> iv(16);
        iv.fill(0xa5);
        kz::P<vesk::ICipher> cipher;
        if (encrypted) {
            cipher = new vesk::CCipher_AES256CBC;
        }
        grain =
            new harl::CVMDKGrain(stream.get(), kz::IIOStream::AccessReadWrite, kGrainSectors,
                                 allocator.get(), compressed, 1, nullptr, cipher.get(), key, iv);
        for (unsigned i = 0; i < 8; ++i) {
            data.push_back(makeGrain(content, i + 1));
        }
        for (long long i = 0; i < kGrains; ++i) {
            open(i);
            grain->write(data[size_t(i % 8)].data(), kGrainBytes);
        }
        grain->close();
    }

    void open(long long index) {
        const auto& slot = allocator->slots[size_t(index)];
        grain->open(index, index, slot.first, slot.second);
    }

    bool compressed;
    bool encrypted;
    kz::P<kz::CMemoryFileSystem> fileSystem{new kz::CMemoryFileSystem};
    kz::P<kz::IIOStream> stream =
        fileSystem->open(kz::CURI("mem:///bench/grains.vmdk"), kz::IIOStream::AccessReadWrite, 0);
    kz::P<CBenchAllocator> allocator{new CBenchAllocator(stream.get())};
    kz::P<harl::CVMDKGrain> grain;
    std::vector<harltest::Bytes> data;
};

const char* const kFormNames[] = {"plain", "encrypted", "compressed", "compressed+encrypted"};

void setLabels(benchmark::State& state, const CExtent& extent, long long allocations) {
    state.SetBytesProcessed(state.iterations() * kGrainBytes);
    state.SetLabel(std::string(kFormNames[state.range(0)]) +
                   (state.range(1) == FileSystemLike ? " fs-like" : " random"));
    const double grains = double(state.iterations());
    state.counters["allocs"] = double(allocations) / grains;
    state.counters["fileRatio"] =
        double(extent.stream->getLength()) / double(kGrains * kGrainBytes);
}

// Rewrites whole grains in order; each is stored when the next one is opened.
void BM_WriteGrain(benchmark::State& state) {
    CExtent extent(state.range(0), state.range(1));
    long long index = 0;
    const long long allocations = allocationCount;
    for (auto _ : state) {
        extent.open(index);
        extent.grain->write(extent.data[size_t(index % 8)].data(), kGrainBytes);
        index = (index + 1) % kGrains;
    }
    extent.grain->close();
    setLabels(state, extent, allocationCount - allocations);
}

// Reads whole grains in order from the file into the caller's buffer.
void BM_ReadGrain(benchmark::State& state) {
    CExtent extent(state.range(0), state.range(1));
    std::vector<unsigned char> out(kGrainBytes);
    long long index = 0;
    const long long allocations = allocationCount;
    for (auto _ : state) {
        extent.open(index);
        extent.grain->read(out.data(), kGrainBytes);
        benchmark::DoNotOptimize(out.data());
        index = (index + 1) % kGrains;
    }
    setLabels(state, extent, allocationCount - allocations);
}

void formArgs(benchmark::internal::Benchmark* b) {
    for (int form = 0; form < 4; ++form) {
        for (int content : {FileSystemLike, Random}) {
            b->Args({form, content});
        }
    }
}

// The raw parts on the same grains: range 0 picks compress, decompress, encrypt, decrypt, copy.
void BM_Raw(benchmark::State& state) {
    static const char* const names[] = {"compress", "decompress", "encrypt", "decrypt", "copy"};
    std::vector<harltest::Bytes> grains;
    for (unsigned i = 0; i < 8; ++i) {
        grains.push_back(makeGrain(state.range(1), i + 1));
    }
    kz::P<harl::CVMDKCompressor> compressor(new harl::CVMDKCompressor(1));
    kz::P<vesk::ICipher> cipher(new vesk::CCipher_AES256CBC);
    kz::TCryptBuffer<unsigned char> key(32);
    key.fill(0x5a);
    const unsigned char iv[16] = {1};
    const int bound = compressor->getCompressedSizeUpperBound(kGrainBytes);
    std::vector<harltest::Bytes> packed;
    for (const auto& grain : grains) {
        harltest::Bytes out(static_cast<size_t>(bound));
        out.resize(
            size_t(compressor->compressSingleStep(grain.data(), kGrainBytes, out.data(), bound)));
        packed.push_back(out);
    }
    std::vector<unsigned char> out(static_cast<size_t>(bound));
    kz::TBuffer<unsigned char> cipherOut(kGrainBytes);
    size_t i = 0;
    for (auto _ : state) {
        const auto& grain = grains[i % 8];
        switch (state.range(0)) {
            case 0:
                compressor->compressSingleStep(grain.data(), kGrainBytes, out.data(), bound);
                break;
            case 1:
                compressor->decompressSingleStep(packed[i % 8].data(), int(packed[i % 8].size()),
                                                 out.data(), kGrainBytes);
                break;
            case 2:
                cipher->encryptData(key, grain.data(), kGrainBytes, cipherOut, false, iv);
                break;
            case 3:
                cipher->decryptData(key, grain.data(), kGrainBytes, cipherOut, false, iv);
                break;
            default:
                std::memcpy(out.data(), grain.data(), kGrainBytes);
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::DoNotOptimize(cipherOut.getData());
        ++i;
    }
    state.SetBytesProcessed(state.iterations() * kGrainBytes);
    state.SetLabel(std::string(names[state.range(0)]) +
                   (state.range(1) == FileSystemLike ? " fs-like" : " random"));
}

void rawArgs(benchmark::internal::Benchmark* b) {
    for (int part = 0; part < 5; ++part) {
        for (int content : {FileSystemLike, Random}) {
            b->Args({part, content});
        }
    }
}

BENCHMARK(BM_WriteGrain)->Apply(formArgs);
BENCHMARK(BM_ReadGrain)->Apply(formArgs);
BENCHMARK(BM_Raw)->Apply(rawArgs);

}  // namespace
