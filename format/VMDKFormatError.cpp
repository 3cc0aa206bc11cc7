#include "harl/format/VMDKFormatError.h"

#include "harl/foundation/kz/CIOError.h"

namespace harl {

namespace {

kz::CProps joined(const kz::CURI& uri, const kz::CProps& first, const kz::CProps& second) {
    kz::CProps all = kz::CProps().add("uri", uri.toString(true));
    for (const kz::CProps* props : {&first, &second}) {
        for (size_t i = 0; i < props->getCount(); ++i) {
            all.add(props->getKey(i), props->getValue(i));
        }
    }
    return all;
}

}  // namespace

void throwVMDKFormatError(const kz::CURI& uri, const kz::String& message, const kz::CProps& props) {
    throw kz::CIOError(kz::CIOError::CorruptFormat, message, joined(uri, props, kz::CProps()));
}

void rethrowVMDKFormatErrorNamingFile(const kz::CURI& uri, const kz::CProps& props) {
    try {
        throw;
    } catch (const kz::CIOError& error) {
        if (error.getCode() != kz::CIOError::CorruptFormat || error.getProps().has("uri")) {
            throw;
        }
        throw kz::CIOError(kz::CIOError::CorruptFormat, error.getMessage(),
                           joined(uri, props, error.getProps()));
    }
}

}  // namespace harl
