#pragma once

#include "harl/descriptor/CVMDKDescriptor.h"
#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/IIOStream.h"
#include "harl/foundation/kz/P.h"

namespace harl {

// Finds the descriptor of an open file, loads it, and writes it back into the same space:
// the reserved sectors of a sparse extent with an embedded descriptor, or the whole of a
// standalone descriptor file. The text never grows beyond that space, and a standalone file
// is neither lengthened nor shortened.
//
// Every operation leaves the stream's position where it found it, also when it fails, so an
// accessor can work on a stream that is in the middle of other work. Destruction closes
// nothing.
class CVMDKDescriptorAccessor : public kz::CBase {
public:
    // The largest descriptor accepted, in bytes (5 MiB itself is allowed): far above any real
    // descriptor, and small enough that a hostile file cannot make us buffer much.
    static constexpr long long kMaxDescriptorSizeBytes = 0x500000;

    // Reads the descriptor. Throws CIOError code 6 for an unsupported header version, code 5
    // for a sparse extent without a descriptor or a descriptor above the limit, and what the
    // stream and the header throw.
    CVMDKDescriptorAccessor(kz::IIOStream* stream, kz::IIOStream::Access access);

    kz::P<CVMDKDescriptor> getDescriptor() const { return descriptor; }

    bool getEmbeddedInSparseExtentFile() const { return embeddedInSparseExtentFile; }

    // Writes the text followed by zeros into exactly the descriptor's space, and flushes the
    // stream if `flush`. An internal CError without write access; the descriptor's own error,
    // with nothing written, when the text does not fit.
    void storeDescriptor(bool flush);

    // Gives the descriptor in memory a new random content ID, never 0, 0xFFFFFFFF (which
    // means "no parent") or the current one, and returns it. Writes nothing.
    unsigned int changeContentID();

private:
    void locateDescriptor();
    kz::CProps uriProps() const;

    kz::P<kz::IIOStream> stream;
    kz::IIOStream::Access access;
    bool embeddedInSparseExtentFile = false;
    long long descriptorOffset = 0;
    long long descriptorSize = 0;
    kz::P<CVMDKDescriptor> descriptor;
};

}  // namespace harl
