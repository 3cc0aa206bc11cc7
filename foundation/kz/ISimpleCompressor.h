#pragma once

#include "harl/foundation/kz/IBase.h"
#include "harl/foundation/kz/String.h"

namespace kz {

// A compression engine that handles one whole input per call, in the zlib format (a deflate
// stream with its two-byte header and Adler-32 trailer). Every engine reads what any other
// wrote, so the engine that decompresses need not be the one that compressed.
//
// An engine keeps its working state between calls, so a call per grain allocates nothing
// once the engine has been used; it is therefore not to be shared by callers that overlap.
class ISimpleCompressor : public virtual IBase {
public:
    // Names the engine and its level, for logs and messages.
    virtual String getInternalDesc() const = 0;

    // The largest output that compressSingleStep can give for `sourceSize` bytes. A negative
    // size, or a bound beyond the range of int, throws CInvalidArgError.
    virtual int getCompressedSizeUpperBound(int sourceSize) const = 0;

    // Compresses `sourceSize` bytes into `destination` and returns the number of bytes
    // written, or -1 when they do not fit into `destinationSize` bytes; the destination's
    // content is then undefined. Negative sizes, or a null pointer with a size above 0,
    // throw CInvalidArgError.
    virtual int compressSingleStep(const void* source, int sourceSize, void* destination,
                                   int destinationSize) = 0;

    // Decompresses one stream that starts at `source` and returns the number of bytes
    // written to `destination`. Bytes behind the end of the stream are ignored, so a stream
    // padded to whole sectors reads as it is. Nothing is read outside the source or written
    // outside the destination: corrupt or truncated input, or output of more than
    // `destinationSize` bytes, throws CIOError code 5. Arguments as for compressSingleStep.
    virtual int decompressSingleStep(const void* source, int sourceSize, void* destination,
                                     int destinationSize) = 0;
};

}  // namespace kz
