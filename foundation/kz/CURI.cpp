// Interim implementation: keeps the text of a URI whole. The full parser replaces it.
#include "foundation/kz/CURI.h"

namespace kz {

CURI::CURI(const String& text) : path(text) {}

bool CURI::isEmpty() const {
    return scheme.isEmpty() && path.isEmpty();
}

String CURI::getName() const {
    const size_t slash = path.wx().find_last_of("/");
    return slash == wxString::npos ? path : path.substring(slash + 1);
}

CURI CURI::toNormalized() const {
    return *this;
}

String CURI::toString(bool) const {
    return path;
}

bool operator==(const CURI& a, const CURI& b) {
    return a.scheme == b.scheme && a.path == b.path;
}

}  // namespace kz
