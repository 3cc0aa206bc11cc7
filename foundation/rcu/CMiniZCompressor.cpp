#include "harl/foundation/rcu/CMiniZCompressor.h"

#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/SimpleCompression.h"

#include <libdeflate.h>

#include <array>
#include <cmath>
#include <cstring>
#include <new>

namespace rcu {

namespace {

const char* const kEngineName = "libdeflate";
const int kDefaultLevel = 6;
const int kMaxLevel = 12;
// Room the engine wants behind its output: it writes whole machine words and gives up
// rather than write past the end. 8 bytes suffice today; more costs nothing.
const int kOutputSlackBytes = 64;
// Each of the three windows whose byte values are counted; with 256 values in 2 KiB, random
// data shows about 7.9 bits per byte, text and code far less.
const int kWindowBytes = 2048;
const double kIncompressibleBitsPerByte = 7.5;
// The sample that is then compressed, and the share it must keep to count as incompressible:
// repeats within it are found, as deflate would find them in the whole input.
const int kSampleBytes = 8192;
const int kKeptSharePercent = 97;

}  // namespace

CMiniZCompressor::CMiniZCompressor(int level) : level(level == -1 ? kDefaultLevel : level) {
    if (this->level < 0 || this->level > kMaxLevel) {
        throw kz::CInvalidArgError("CMiniZCompressor::CMiniZCompressor",
                                   "Invalid compression level: " + kz::String::number(level));
    }
}

CMiniZCompressor::~CMiniZCompressor() {
    libdeflate_free_compressor(compressor);
    libdeflate_free_compressor(storingCompressor);
    libdeflate_free_decompressor(decompressor);
}

kz::String CMiniZCompressor::getInternalDesc() const {
    return kz::String(kEngineName) + "(level=" + kz::String::number(level) + ")";
}

int CMiniZCompressor::getCompressedSizeUpperBound(int sourceSize) const {
    // Without a compressor the bound covers every level, so it needs no engine of its own.
    const size_t bound =
        sourceSize < 0 ? 0
                       : libdeflate_zlib_compress_bound(nullptr, static_cast<size_t>(sourceSize));
    return kz::checkedCompressedSizeBound("CMiniZCompressor::getCompressedSizeUpperBound",
                                          sourceSize, bound);
}

int CMiniZCompressor::compressSingleStep(const void* source, int sourceSize, void* destination,
                                         int destinationSize) {
    kz::checkSingleStepArgs("CMiniZCompressor::compressSingleStep", source, sourceSize, destination,
                            destinationSize);
    if (compressor == nullptr) {
        compressor = allocCompressor(level);
    }
    libdeflate_compressor* engine = compressor;
    if (level > 0 && looksIncompressible(static_cast<const unsigned char*>(source), sourceSize)) {
        if (storingCompressor == nullptr) {
            storingCompressor = allocCompressor(0);
        }
        engine = storingCompressor;
    }
    const size_t bound = libdeflate_zlib_compress_bound(nullptr, static_cast<size_t>(sourceSize));
    if (static_cast<size_t>(destinationSize) >= bound) {
        const size_t written =
            libdeflate_zlib_compress(engine, source, static_cast<size_t>(sourceSize), destination,
                                     static_cast<size_t>(destinationSize));
        return written == 0 ? -1 : static_cast<int>(written);
    }
    scratch.setUsed(static_cast<size_t>(destinationSize) + kOutputSlackBytes);
    const size_t written = libdeflate_zlib_compress(
        engine, source, static_cast<size_t>(sourceSize), scratch.getData(), scratch.getUsed());
    if (written == 0 || written > static_cast<size_t>(destinationSize)) {
        return -1;
    }
    std::memcpy(destination, scratch.getData(), written);
    return static_cast<int>(written);
}

bool CMiniZCompressor::looksIncompressible(const unsigned char* source, int sourceSize) {
    if (sourceSize < kSampleMinBytes) {
        return false;
    }
    // First the cheap look: how evenly byte values spread at the start, middle and end, so
    // that zeros or text around random bytes keep the input with the engine.
    for (const int at : {0, (sourceSize - kWindowBytes) / 2, sourceSize - kWindowBytes}) {
        std::array<int, 256> counts{};
        for (int i = 0; i < kWindowBytes; ++i) {
            ++counts[source[at + i]];
        }
        double bits = 0;
        for (const int count : counts) {
            if (count > 0) {
                const double share = static_cast<double>(count) / kWindowBytes;
                bits -= share * std::log2(share);
            }
        }
        if (bits < kIncompressibleBitsPerByte) {
            return false;
        }
    }
    // Then the engine's own answer on a sample of the middle, which sees repeats that a spread
    // cannot.
    const unsigned char* sample = source + (sourceSize - kSampleBytes) / 2;
    const size_t room = libdeflate_zlib_compress_bound(nullptr, kSampleBytes);
    scratch.setUsed(room);
    const size_t written =
        libdeflate_zlib_compress(compressor, sample, kSampleBytes, scratch.getData(), room);
    return written == 0 || written * 100 >= static_cast<size_t>(kSampleBytes) * kKeptSharePercent;
}

libdeflate_compressor* CMiniZCompressor::allocCompressor(int level) {
    libdeflate_compressor* engine = libdeflate_alloc_compressor(level);
    if (engine == nullptr) {
        throw std::bad_alloc();  // The level was checked, so only memory is left.
    }
    return engine;
}

int CMiniZCompressor::decompressSingleStep(const void* source, int sourceSize, void* destination,
                                           int destinationSize) {
    kz::checkSingleStepArgs("CMiniZCompressor::decompressSingleStep", source, sourceSize,
                            destination, destinationSize);
    if (decompressor == nullptr) {
        decompressor = libdeflate_alloc_decompressor();
        if (decompressor == nullptr) {
            throw std::bad_alloc();
        }
    }
    // The engine stops at the end of the stream, so trailing bytes stay unread; it never
    // reads or writes outside the two buffers.
    size_t written = 0;
    const libdeflate_result result =
        libdeflate_zlib_decompress(decompressor, source, static_cast<size_t>(sourceSize),
                                   destination, static_cast<size_t>(destinationSize), &written);
    switch (result) {
        case LIBDEFLATE_SUCCESS:
            return static_cast<int>(written);
        case LIBDEFLATE_INSUFFICIENT_SPACE:
            kz::throwDecompressFailure(kz::DecompressFailure::DestinationTooSmall, kEngineName,
                                       sourceSize, destinationSize);
        default:
            // The engine does not tell a cut-off stream from a damaged one.
            kz::throwDecompressFailure(kz::DecompressFailure::Corrupt, kEngineName, sourceSize,
                                       destinationSize);
    }
}

}  // namespace rcu
