#include "harl/foundation/pcu/CZLibCompressor.h"

#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/SimpleCompression.h"

#include <new>

// Gives z_stream a const next_in, as the input is never written.
#define ZLIB_CONST
#include <zlib.h>

namespace pcu {

namespace {

const char* const kEngineName = "zlib";
const int kDefaultLevel = 6;  // What zlib takes for Z_DEFAULT_COMPRESSION.

// zlib reports failures of its own state (not of the data) this way.
[[noreturn]] void throwEngineFailure(const char* operation, int status, const z_stream& stream) {
    if (status == Z_MEM_ERROR) {
        throw std::bad_alloc();
    }
    kz::String detail = "status " + kz::String::number(status);
    if (stream.msg != nullptr) {
        detail += kz::String(": ") + stream.msg;
    }
    throw kz::CError(kz::String("zlib ") + operation + " failed.", detail);
}

}  // namespace

// The two zlib streams; each is set up on its first use, as an object often only ever
// compresses or only decompresses, and a deflate stream costs a few hundred KiB.
struct CZLibCompressor::CStreams {
    z_stream deflater{};
    z_stream inflater{};
    bool deflaterReady = false;
    bool inflaterReady = false;
    // zlib refuses a null output pointer even with no room behind it; an empty destination
    // points here instead, and nothing is ever written to it.
    Bytef noOutput = 0;

    Bytef* output(void* destination) {
        return destination != nullptr ? static_cast<Bytef*>(destination) : &noOutput;
    }

    ~CStreams() {
        if (deflaterReady) {
            deflateEnd(&deflater);
        }
        if (inflaterReady) {
            inflateEnd(&inflater);
        }
    }
};

CZLibCompressor::CZLibCompressor(int level)
    : level(level == Z_DEFAULT_COMPRESSION ? kDefaultLevel : level), streams(new CStreams) {
    if (level < Z_DEFAULT_COMPRESSION || level > Z_BEST_COMPRESSION) {
        throw kz::CInvalidArgError("CZLibCompressor::CZLibCompressor",
                                   "Invalid zlib compression level: " + kz::String::number(level));
    }
}

CZLibCompressor::~CZLibCompressor() = default;

kz::String CZLibCompressor::getInternalDesc() const {
    return kz::String(kEngineName) + "(level=" + kz::String::number(level) + ")";
}

int CZLibCompressor::getCompressedSizeUpperBound(int sourceSize) const {
    // compressBound holds for the default window and memory level, which are the ones used.
    const uLong bound = sourceSize < 0 ? 0 : compressBound(static_cast<uLong>(sourceSize));
    return kz::checkedCompressedSizeBound("CZLibCompressor::getCompressedSizeUpperBound",
                                          sourceSize, bound);
}

int CZLibCompressor::compressSingleStep(const void* source, int sourceSize, void* destination,
                                        int destinationSize) {
    kz::checkSingleStepArgs("CZLibCompressor::compressSingleStep", source, sourceSize, destination,
                            destinationSize);
    z_stream& stream = streams->deflater;
    if (!streams->deflaterReady) {
        const int status = deflateInit(&stream, level);
        if (status != Z_OK) {
            throwEngineFailure("deflateInit", status, stream);
        }
        streams->deflaterReady = true;
    } else {
        deflateReset(&stream);
    }
    stream.next_in = static_cast<const Bytef*>(source);
    stream.avail_in = static_cast<uInt>(sourceSize);
    stream.next_out = streams->output(destination);
    stream.avail_out = static_cast<uInt>(destinationSize);
    const int status = deflate(&stream, Z_FINISH);
    if (status == Z_STREAM_END) {
        return static_cast<int>(stream.total_out);
    }
    if (status == Z_OK || status == Z_BUF_ERROR) {
        return -1;  // Out of room; the next call resets the stream.
    }
    throwEngineFailure("deflate", status, stream);
}

int CZLibCompressor::decompressSingleStep(const void* source, int sourceSize, void* destination,
                                          int destinationSize) {
    kz::checkSingleStepArgs("CZLibCompressor::decompressSingleStep", source, sourceSize,
                            destination, destinationSize);
    z_stream& stream = streams->inflater;
    if (!streams->inflaterReady) {
        stream.next_in = Z_NULL;
        stream.avail_in = 0;
        const int status = inflateInit(&stream);
        if (status != Z_OK) {
            throwEngineFailure("inflateInit", status, stream);
        }
        streams->inflaterReady = true;
    } else {
        inflateReset(&stream);
    }
    stream.next_in = static_cast<const Bytef*>(source);
    stream.avail_in = static_cast<uInt>(sourceSize);
    stream.next_out = streams->output(destination);
    stream.avail_out = static_cast<uInt>(destinationSize);
    // One call with Z_FINISH: inflate stops at the end of the stream, so trailing bytes stay
    // unread, and it never reads or writes beyond avail_in and avail_out.
    const int status = inflate(&stream, Z_FINISH);
    switch (status) {
        case Z_STREAM_END:
            return static_cast<int>(stream.total_out);
        case Z_DATA_ERROR:
        case Z_NEED_DICT:
            kz::throwDecompressFailure(kz::DecompressFailure::Corrupt, kEngineName, sourceSize,
                                       destinationSize,
                                       stream.msg != nullptr ? stream.msg : "preset dictionary");
        case Z_OK:
        case Z_BUF_ERROR:
            // Input left over means the output ran out first.
            kz::throwDecompressFailure(stream.avail_in > 0
                                           ? kz::DecompressFailure::DestinationTooSmall
                                           : kz::DecompressFailure::Truncated,
                                       kEngineName, sourceSize, destinationSize);
        default:
            throwEngineFailure("inflate", status, stream);
    }
}

}  // namespace pcu
