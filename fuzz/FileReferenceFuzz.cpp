// Parses arbitrary text as a URI and resolves it as a file reference of a descriptor against
// folders of the three kinds a disk may live in. Any input must end in the system's errors;
// a parsed URI must print as text that parses back to it, normalizing twice must change
// nothing the second time, and a resolved reference must already be normalized.
//
// Input: one byte that picks the folder, then the text in UTF-8, or else in Latin-1.
#include "harl/format/VMDKFileReference.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/Log.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

void checkParsed(const kz::CURI& uri) {
    if (kz::CURI(uri.toString(false)) != uri) {
        std::abort();
    }
    const kz::CURI normalized = uri.toNormalized();
    if (normalized.toNormalized() != normalized) {
        std::abort();
    }
    uri.getParent();
    uri.getTitle();
    uri.getExtension();
    uri.toString(true);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const kz::LogSink quiet = kz::setLogSink([](kz::LogLevel, const kz::String&) {});
    static const kz::CURI folders[] = {kz::CURI("file:///home/user/disks/"),
                                       kz::CURI("file:///C:/Disks/"),
                                       kz::CURI("file://server/share/vms/")};
    if (size < 1) {
        return 0;
    }
    const kz::CURI& folder = folders[data[0] % 3];
    // Text that is no UTF-8 reaches the library as Latin-1, as a descriptor in that encoding.
    kz::String text;
    try {
        text = kz::String::fromUTF8(data + 1, size - 1);
    } catch (const kz::CError&) {
        text = kz::String::fromLatin1(data + 1, size - 1);
    }
    try {
        const kz::CURI uri(text);
        checkParsed(uri);
        checkParsed(folder << uri);
    } catch (const kz::CError&) {
    }
    try {
        const kz::CURI resolved = harl::vmdkFileReferenceToURI(folder, text);
        if (resolved.toNormalized() != resolved) {
            std::abort();
        }
        checkParsed(resolved);
    } catch (const kz::CError&) {
    }
    return 0;
}
