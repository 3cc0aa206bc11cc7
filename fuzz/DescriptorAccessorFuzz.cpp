// Finds and loads the descriptor of a file made of arbitrary bytes, a sparse extent header with
// hostile descriptor offsets and sizes or a text file, gives it a new content ID and stores it
// back. Any input must end in the system's errors; a store must leave the file's length and,
// for an embedded descriptor, its header as they were, and a stored descriptor must load again
// with the new content ID.
#include "harl/descriptor/CVMDKDescriptorAccessor.h"
#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/Log.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const kz::LogSink quiet = kz::setLogSink([](kz::LogLevel, const kz::String&) {});
    kz::TBuffer<unsigned char> bytes(size);
    if (size > 0) {
        std::memcpy(bytes.getData(), data, size);
    }
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream(bytes));
    unsigned int contentID = 0;
    bool embedded = false;
    try {
        kz::P<harl::CVMDKDescriptorAccessor> accessor(
            new harl::CVMDKDescriptorAccessor(stream.get(), kz::IIOStream::AccessReadWrite));
        embedded = accessor->getEmbeddedInSparseExtentFile();
        contentID = accessor->changeContentID();
        accessor->storeDescriptor(true);
    } catch (const kz::CError&) {
        return 0;
    }
    const kz::TBuffer<unsigned char>& stored = stream->getBuffer();
    if (stored.getUsed() != size || (embedded && std::memcmp(stored.getData(), data, 512) != 0)) {
        std::abort();
    }
    stream->seek(0);
    kz::P<harl::CVMDKDescriptorAccessor> again(
        new harl::CVMDKDescriptorAccessor(stream.get(), kz::IIOStream::AccessRead));
    if (again->getDescriptor()->getContentID() != contentID) {
        std::abort();
    }
    return 0;
}
