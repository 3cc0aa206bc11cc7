// Loads a sparse extent header from arbitrary bytes. A header that loads must store as 512
// bytes that load again to the same record.
#include "harl/format/CVMDKSparseExtentHeader.h"
#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CError.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

kz::TBuffer<unsigned char> storeHeader(harl::CVMDKSparseExtentHeader& header) {
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream);
    kz::CDataOutStream out(stream.get());
    header.store(out);
    return stream->getBuffer();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kz::TBuffer<unsigned char> bytes(size);
    if (size > 0) {
        std::memcpy(bytes.getData(), data, size);
    }
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream(bytes));
    kz::CDataInStream in(stream.get());
    kz::P<harl::CVMDKSparseExtentHeader> header(new harl::CVMDKSparseExtentHeader);
    try {
        header->load(in);
    } catch (const kz::CError&) {
        return 0;
    }
    const kz::TBuffer<unsigned char> stored = storeHeader(*header);
    if (stored.getUsed() != static_cast<size_t>(harl::kVMDKSparseHeaderSizeBytes)) {
        std::abort();
    }
    kz::P<kz::CBufferStream> again(new kz::CBufferStream(stored));
    kz::CDataInStream againIn(again.get());
    kz::P<harl::CVMDKSparseExtentHeader> reloaded(new harl::CVMDKSparseExtentHeader);
    reloaded->load(againIn);
    if (storeHeader(*reloaded) != stored) {
        std::abort();
    }
    return 0;
}
