#include "harl/foundation/rcu/CMiniZCompressor.h"

#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/SimpleCompression.h"

#include <libdeflate.h>

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

}  // namespace

CMiniZCompressor::CMiniZCompressor(int level) : level(level == -1 ? kDefaultLevel : level) {
    if (this->level < 0 || this->level > kMaxLevel) {
        throw kz::CInvalidArgError("CMiniZCompressor::CMiniZCompressor",
                                   "Invalid compression level: " + kz::String::number(level));
    }
}

CMiniZCompressor::~CMiniZCompressor() {
    libdeflate_free_compressor(compressor);
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
        compressor = libdeflate_alloc_compressor(level);
        if (compressor == nullptr) {
            throw std::bad_alloc();  // The level was checked, so only memory is left.
        }
    }
    const size_t bound = libdeflate_zlib_compress_bound(nullptr, static_cast<size_t>(sourceSize));
    if (static_cast<size_t>(destinationSize) >= bound) {
        const size_t written =
            libdeflate_zlib_compress(compressor, source, static_cast<size_t>(sourceSize),
                                     destination, static_cast<size_t>(destinationSize));
        return written == 0 ? -1 : static_cast<int>(written);
    }
    scratch.setUsed(static_cast<size_t>(destinationSize) + kOutputSlackBytes);
    const size_t written = libdeflate_zlib_compress(
        compressor, source, static_cast<size_t>(sourceSize), scratch.getData(), scratch.getUsed());
    if (written == 0 || written > static_cast<size_t>(destinationSize)) {
        return -1;
    }
    std::memcpy(destination, scratch.getData(), written);
    return static_cast<int>(written);
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
