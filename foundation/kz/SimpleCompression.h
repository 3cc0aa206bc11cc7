#pragma once

#include "harl/foundation/kz/String.h"

namespace kz {

// Helpers shared by the implementations of ISimpleCompressor, so that every engine checks
// its arguments and reports bad input in the same words.

// Throws CInvalidArgError, with `where` as the origin, for a negative size or a null
// pointer with a size above 0.
void checkSingleStepArgs(const char* where, const void* source, int sourceSize,
                         const void* destination, int destinationSize);

// Turns an engine's bound, computed in a wide type, into an int, or throws
// CInvalidArgError when the input is too large for one step.
int checkedCompressedSizeBound(const char* where, int sourceSize, unsigned long long bound);

// Why a stream could not be decompressed.
enum class DecompressFailure {
    Corrupt,             // The data is not a valid stream.
    Truncated,           // The input ends before the stream does.
    DestinationTooSmall  // The stream holds more than the destination takes.
};

// Throws CIOError code 5 with properties "engine", "compressedSize" and "destinationSize".
// `engineReason` is what the engine said, if anything; it is added as "reason".
[[noreturn]] void throwDecompressFailure(DecompressFailure failure, const String& engine,
                                         int sourceSize, int destinationSize,
                                         const String& engineReason = String());

}  // namespace kz
