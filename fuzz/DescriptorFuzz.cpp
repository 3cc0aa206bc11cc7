// Parses arbitrary bytes as a descriptor text, reads the keys, and stores it. Parsing must
// never fail, and a stored text must parse back to the same text.
#include "harl/descriptor/CVMDKDescriptor.h"
#include "harl/descriptor/CVMDKExtentInfo.h"
#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/Log.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// Getters may throw on malformed values; that is their contract, not a fault.
void readKeys(const harl::CVMDKDescriptor& descriptor) {
    try {
        descriptor.getVersion();
    } catch (const kz::CError&) {
    }
    try {
        descriptor.getContentID();
    } catch (const kz::CError&) {
    }
    try {
        descriptor.getParentContentID();
    } catch (const kz::CError&) {
    }
    try {
        descriptor.getKzEncryptionIV();
    } catch (const kz::CError&) {
    }
    try {
        descriptor.getGeometryCylinders();
    } catch (const kz::CError&) {
    }
    kz::TArray<kz::P<harl::CVMDKExtentInfo>> extents;
    descriptor.getExtentEntries(extents);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const kz::LogSink quiet = kz::setLogSink([](kz::LogLevel, const kz::String&) {});
    kz::TBuffer<unsigned char> bytes(size);
    if (size > 0) {
        std::memcpy(bytes.getData(), data, size);
    }
    kz::P<harl::CVMDKDescriptor> descriptor(new harl::CVMDKDescriptor(bytes));
    readKeys(*descriptor);
    descriptor->setEncodingUTF8();
    const kz::String text = descriptor->toString();
    const int targetSize = static_cast<int>(text.toUTF8().size()) + 100;
    kz::TBuffer<unsigned char> pad(100);
    pad.fill(0);
    kz::P<kz::CBufferStream> out(new kz::CBufferStream);
    descriptor->store(*out, targetSize, pad);
    if (out->getLength() != targetSize) {
        std::abort();
    }
    kz::P<harl::CVMDKDescriptor> reread(new harl::CVMDKDescriptor(out->getBuffer()));
    if (reread->toString() != text) {
        std::abort();
    }
    return 0;
}
