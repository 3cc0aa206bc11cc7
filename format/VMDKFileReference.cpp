#include "harl/format/VMDKFileReference.h"

#include "harl/foundation/kz/TPathImpl.h"

namespace harl {

namespace {

bool isAsciiLetter(wchar_t c) {
    return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z');
}

bool isSeparator(wchar_t c) {
    return c == L'/' || c == L'\\';
}

bool isWindowsPathWithDrive(const kz::String& reference) {
    return reference.getLength() >= 3 && isAsciiLetter(reference.at(0)) &&
           reference.at(1) == L':' && isSeparator(reference.at(2));
}

bool isURI(const kz::String& reference) {
    const size_t colon = reference.find(L':');
    if (colon == kz::String::npos || colon == 0) {
        return false;
    }
    for (size_t i = 0; i < colon; ++i) {
        if (isSeparator(reference.at(i))) {
            return false;
        }
    }
    return true;
}

// A path without a root gives a URI without a scheme; it is rebuilt from its parts so that
// nothing of a scheme survives and what remains is a pure relative reference.
kz::CURI asRelativeReference(const kz::CURI& uri) {
    if (uri.isAbsolute()) {
        return uri;
    }
    return kz::CURI("", uri.getUser(), uri.getAuthInfo(), uri.getHost(), uri.getPort(),
                    uri.getPath(), uri.getQuery(), uri.getFragment());
}

}  // namespace

kz::CURI vmdkFileReferenceToURI(const kz::CURI& folder, const kz::String& reference) {
    kz::CURI result;
    if (isWindowsPathWithDrive(reference)) {
        result = kz::CURI(kz::TPathImpl<kz::CWindowsPathTraits>(reference), false);
    } else if (isURI(reference)) {
        result = kz::CURI(reference);
    } else if (reference.find(L'\\') != kz::String::npos) {
        result =
            asRelativeReference(kz::CURI(kz::TPathImpl<kz::CWindowsPathTraits>(reference), false));
    } else {
        result =
            asRelativeReference(kz::CURI(kz::TPathImpl<kz::CUnixPathTraits>(reference), false));
    }
    if (!result.isAbsolute()) {
        result = folder << result;
    }
    return result.toNormalized();
}

}  // namespace harl
