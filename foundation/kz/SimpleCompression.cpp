#include "harl/foundation/kz/SimpleCompression.h"

#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"

#include <climits>

namespace kz {

void checkSingleStepArgs(const char* where, const void* source, int sourceSize,
                         const void* destination, int destinationSize) {
    if (sourceSize < 0 || destinationSize < 0) {
        throw CInvalidArgError(
            where, "Negative buffer size",
            CProps().add("sourceSize", sourceSize).add("destinationSize", destinationSize));
    }
    if ((source == nullptr && sourceSize > 0) || (destination == nullptr && destinationSize > 0)) {
        throw CInvalidArgError(where, "Null buffer with a size above 0");
    }
}

int checkedCompressedSizeBound(const char* where, int sourceSize, unsigned long long bound) {
    if (sourceSize < 0) {
        throw CInvalidArgError(where, "Negative source size",
                               CProps().add("sourceSize", sourceSize));
    }
    if (bound > static_cast<unsigned long long>(INT_MAX)) {
        throw CInvalidArgError(where, "Source too large for compression in one step",
                               CProps().add("sourceSize", sourceSize));
    }
    return static_cast<int>(bound);
}

void throwDecompressFailure(DecompressFailure failure, const String& engine, int sourceSize,
                            int destinationSize, const String& engineReason) {
    String message;
    switch (failure) {
        case DecompressFailure::Corrupt:
            message = "Cannot decompress data: the compressed data is corrupt.";
            break;
        case DecompressFailure::Truncated:
            message = "Cannot decompress data: the compressed data ends before its stream does.";
            break;
        case DecompressFailure::DestinationTooSmall:
            message = "Cannot decompress data: it decompresses to more than " +
                      String::number(destinationSize) + " bytes.";
            break;
    }
    CProps props;
    props.add("engine", engine)
        .add("compressedSize", sourceSize)
        .add("destinationSize", destinationSize);
    if (!engineReason.isEmpty()) {
        props.add("reason", engineReason);
    }
    throw CIOError(CIOError::CorruptFormat, message, props);
}

}  // namespace kz
