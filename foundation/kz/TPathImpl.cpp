#include "harl/foundation/kz/TPathImpl.h"

#include "harl/foundation/kz/CBadPathError.h"

namespace kz {

namespace {

bool isWindowsSeparator(wchar_t c) {
    return c == L'\\' || c == L'/';
}

bool isAsciiLetter(wchar_t c) {
    return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z');
}

bool hasDriveAt(const String& text, size_t pos) {
    return text.getLength() >= pos + 2 && isAsciiLetter(text.at(pos)) && text.at(pos + 1) == L':';
}

// The length of a literal prefix "\\?\" or "\\.\", or 0.
size_t literalPrefixLength(const String& text) {
    if (text.getLength() >= 4 && isWindowsSeparator(text.at(0)) && isWindowsSeparator(text.at(1)) &&
        (text.at(2) == L'?' || text.at(2) == L'.') && isWindowsSeparator(text.at(3))) {
        return 4;
    }
    return 0;
}

// The end of the component that starts at `pos`: the next separator or the end.
size_t componentEnd(const String& text, size_t pos) {
    while (pos < text.getLength() && !isWindowsSeparator(text.at(pos))) {
        ++pos;
    }
    return pos;
}

// Past the separator at `pos`, if there is one.
size_t skipSeparator(const String& text, size_t pos) {
    return pos < text.getLength() && isWindowsSeparator(text.at(pos)) ? pos + 1 : pos;
}

// The root of a UNC path whose host name starts at `pos`: host, share and their separators.
size_t uncRootEnd(const String& text, size_t pos) {
    const size_t hostEnd = componentEnd(text, pos);
    if (hostEnd >= text.getLength()) {
        return hostEnd;
    }
    return skipSeparator(text, componentEnd(text, hostEnd + 1));
}

}  // namespace

String CWindowsPathTraits::normalizeSeparators(const String& text) {
    return text.replaced("/", "\\");
}

int CWindowsPathTraits::getRootLength(const String& text, int& rootLength) {
    size_t end = 0;
    const size_t prefix = literalPrefixLength(text);
    if (hasDriveAt(text, prefix)) {
        end = skipSeparator(text, prefix + 2);
    } else if (prefix > 0 && text.substring(prefix, 4).toUpper() == "UNC\\") {
        end = uncRootEnd(text, prefix + 4);
    } else if (text.getLength() >= 3 && isWindowsSeparator(text.at(0)) &&
               isWindowsSeparator(text.at(1)) && !isWindowsSeparator(text.at(2))) {
        end = uncRootEnd(text, 2);
    } else if (!text.isEmpty() && isWindowsSeparator(text.at(0))) {
        end = 1;
    } else {
        rootLength = 0;
        return -1;
    }
    rootLength = static_cast<int>(end);
    return rootLength;
}

bool CWindowsPathTraits::pathNeedsToBeNormalizedToBeValid(const String& text) {
    // Windows hands a literal path to the file system as it stands.
    if (literalPrefixLength(text) > 0 && text.at(2) == L'?') {
        return false;
    }
    if (text.find(L'/') != String::npos) {
        return true;
    }
    int rootLength = 0;
    const int start = getRootLength(text, rootLength);
    if (start >= 0 &&
        normalizeRoot(text.substring(0, rootLength)) != text.substring(0, rootLength)) {
        return true;
    }
    const std::vector<String> components = text.substring(start < 0 ? 0 : start).split(L'\\');
    for (size_t i = 0; i < components.size(); ++i) {
        const String& c = components[i];
        const bool last = i + 1 == components.size();
        if ((c.isEmpty() && !last) || c == "." || c == ".." || normalizeComponent(c) != c) {
            return true;
        }
    }
    return false;
}

String CWindowsPathTraits::normalizeComponent(const String& component) {
    size_t end = component.getLength();
    while (end > 0 && (component.at(end - 1) == L'.' || component.at(end - 1) == L' ')) {
        --end;
    }
    return component.substring(0, end);
}

String CWindowsPathTraits::normalizeRoot(const String& root) {
    String result = normalizeSeparators(root);
    const size_t prefix = literalPrefixLength(result);
    if (prefix > 0 && result.substring(prefix, 4).toUpper() == "UNC\\") {
        result = "\\\\" + result.substring(prefix + 4);
    } else if (prefix > 0 && hasDriveAt(result, prefix)) {
        result = result.substring(prefix);
    }
    if (hasDriveAt(result, 0)) {
        result = result.substring(0, 1).toUpper() + result.substring(1);
    }
    return result;
}

String CWindowsPathTraits::finalizeNormalizedPath(const String& text) {
    return text.isEmpty() ? String(".") : text;
}

int CUnixPathTraits::getRootLength(const String& text, int& rootLength) {
    rootLength = !text.isEmpty() && text.at(0) == L'/' ? 1 : 0;
    return rootLength > 0 ? rootLength : -1;
}

template <class Traits>
TPathImpl<Traits>::TPathImpl(const String& text)
    : text(Traits::pathNeedsToBeNormalizedToBeValid(text) ? normalize(text) : text) {
}

template <class Traits>
bool TPathImpl<Traits>::isAbsolute() const {
    int rootLength = 0;
    return Traits::getRootLength(text, rootLength) >= 0;
}

template <class Traits>
String TPathImpl<Traits>::getRoot() const {
    int rootLength = 0;
    Traits::getRootLength(text, rootLength);
    return text.substring(0, rootLength);
}

template <class Traits>
std::vector<String> TPathImpl<Traits>::getComponents() const {
    int rootLength = 0;
    const int start = Traits::getRootLength(text, rootLength);
    std::vector<String> components;
    for (String& c : Traits::normalizeSeparators(text.substring(start < 0 ? 0 : start))
                         .split(Traits::separator())) {
        if (!c.isEmpty()) {
            components.push_back(std::move(c));
        }
    }
    return components;
}

template <class Traits>
bool TPathImpl<Traits>::hasTrailingSeparator() const {
    const String separated = Traits::normalizeSeparators(text);
    return separated.endsWith(String() += Traits::separator()) && !getComponents().empty();
}

template <class Traits>
TPathImpl<Traits> TPathImpl<Traits>::toNormalized() const {
    return TPathImpl(normalize(text), CNormalized());
}

template <class Traits>
String TPathImpl<Traits>::normalize(const String& text) {
    const String separated = Traits::normalizeSeparators(text);
    int rootLength = 0;
    const int start = Traits::getRootLength(separated, rootLength);
    std::vector<String> kept;
    for (const String& c : separated.substring(start < 0 ? 0 : start).split(Traits::separator())) {
        if (c.isEmpty() || c == ".") {
            continue;
        }
        if (c == "..") {
            if (!kept.empty() && kept.back() != "..") {
                kept.pop_back();
            } else if (start >= 0) {
                throw CBadPathError(text);
            } else {
                kept.push_back(c);
            }
            continue;
        }
        String normalized = Traits::normalizeComponent(c);
        if (!normalized.isEmpty()) {
            kept.push_back(std::move(normalized));
        }
    }
    String result =
        start < 0 ? String() : Traits::normalizeRoot(separated.substring(0, rootLength));
    for (const String& c : kept) {
        if (!result.isEmpty() && !result.endsWith(String() += Traits::separator()) &&
            !result.endsWith("/")) {
            result += Traits::separator();
        }
        result += c;
    }
    return Traits::finalizeNormalizedPath(result);
}

template class TPathImpl<CWindowsPathTraits>;
template class TPathImpl<CUnixPathTraits>;

}  // namespace kz
