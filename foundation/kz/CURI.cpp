#include "harl/foundation/kz/CURI.h"

#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/TPathImpl.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace kz {

namespace {

// Where a character stands decides whether it may appear literally (RFC 3986, section 3).
enum class Part { User, AuthInfo, Host, Path, FirstSegment, QueryOrFragment };

[[noreturn]] void throwInvalid(const String& text, const char* detail) {
    throw CError("Invalid URI: " + text, detail);
}

bool isAlpha(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

int hexValue(char c) {
    if (isDigit(c)) {
        return c - '0';
    }
    if ((c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F')) {
        return (c | 0x20) - 'a' + 10;
    }
    return -1;
}

bool isValidScheme(const std::string& s) {
    if (s.empty() || !isAlpha(s[0])) {
        return false;
    }
    for (char c : s) {
        if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') {
            return false;
        }
    }
    return true;
}

bool keepsLiteral(unsigned char c, Part part) {
    if (isAlpha(c) || isDigit(c) || (c != 0 && std::strchr("-._~!$&'()*+,;=", c) != nullptr)) {
        return true;
    }
    switch (part) {
        case Part::AuthInfo:
            return c == ':';
        case Part::Path:
            return c == '/' || c == ':' || c == '@';
        case Part::FirstSegment:
            return c == '/' || c == '@';
        case Part::QueryOrFragment:
            return c == '/' || c == ':' || c == '@' || c == '?';
        default:
            return false;
    }
}

// Percent-encodes the UTF-8 bytes that may not stand literally. `readable` keeps blanks and
// non-ASCII characters, for messages. Only the first segment of a relative path encodes ":",
// which would otherwise read as the end of a scheme.
std::string encode(const String& text, Part part, bool readable) {
    static const char kHexDigits[] = "0123456789ABCDEF";
    std::string out;
    for (const unsigned char c : text.toUTF8()) {
        if (part == Part::FirstSegment && c == '/') {
            part = Part::Path;
        }
        if (keepsLiteral(c, part) || (readable && (c >= 0x80 || c == ' '))) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += kHexDigits[c >> 4];
            out += kHexDigits[c & 0xF];
        }
    }
    return out;
}

// Decodes percent escapes; the bytes must form UTF-8 text without NUL or control characters.
String decode(const std::string& raw, const String& text) {
    std::string bytes;
    for (size_t i = 0; i < raw.size(); ++i) {
        const unsigned char c = raw[i];
        if (c < 0x20 || c == 0x7F) {
            throwInvalid(text, "control character");
        }
        if (c != '%') {
            bytes += static_cast<char>(c);
            continue;
        }
        const int high = i + 2 < raw.size() ? hexValue(raw[i + 1]) : -1;
        const int low = high >= 0 ? hexValue(raw[i + 2]) : -1;
        if (low < 0 || (high == 0 && low == 0)) {
            throwInvalid(text, "bad percent escape");
        }
        bytes += static_cast<char>(high * 16 + low);
        i += 2;
    }
    try {
        return String::fromUTF8(bytes.data(), bytes.size());
    } catch (const CError&) {
        throwInvalid(text, "percent-encoded bytes are not UTF-8");
    }
}

int parsePort(const std::string& raw, const String& text) {
    if (raw.empty()) {
        return -1;
    }
    int port = 0;
    for (char c : raw) {
        if (!isDigit(c) || (port = port * 10 + (c - '0')) > 65535) {
            throwInvalid(text, "bad port");
        }
    }
    return port;
}

// "[v6address]" or "[v1.future]": the parser keeps it as it stands and toString() writes it
// back so. Any other host text is encoded, brackets included.
bool isIPLiteral(const std::string& host) {
    if (host.size() < 2 || host.front() != '[' || host.back() != ']') {
        return false;
    }
    for (size_t i = 1; i + 1 < host.size(); ++i) {
        if (!keepsLiteral(host[i], Part::AuthInfo) && host[i] != '%') {
            return false;
        }
    }
    return true;
}

// Splits "user:authInfo@host:port" into its decoded parts. A host in brackets is an IP
// literal and stays as it is.
void parseAuthority(std::string rest, const String& text, String& user, String& authInfo,
                    String& host, int& port) {
    const size_t at = rest.rfind('@');
    if (at != std::string::npos) {
        const size_t colon = rest.find(':');
        user = decode(rest.substr(0, std::min(colon, at)), text);
        authInfo = colon < at ? decode(rest.substr(colon + 1, at - colon - 1), text) : String();
        rest.erase(0, at + 1);
    }
    size_t hostEnd = rest.rfind(':');
    if (!rest.empty() && rest[0] == '[') {
        hostEnd = rest.find(']');
        if (hostEnd == std::string::npos || !isIPLiteral(rest.substr(0, hostEnd + 1)) ||
            (hostEnd + 1 < rest.size() && rest[hostEnd + 1] != ':')) {
            throwInvalid(text, "bad host");
        }
        host = String(rest.substr(0, ++hostEnd));
    } else {
        host = decode(rest.substr(0, hostEnd), text);
    }
    port = hostEnd < rest.size() ? parsePort(rest.substr(hostEnd + 1), text) : -1;
}

size_t lastIndexOf(const String& text, wchar_t c) {
    for (size_t i = text.getLength(); i > 0; --i) {
        if (text.at(i - 1) == c) {
            return i - 1;
        }
    }
    return String::npos;
}

bool hasNul(const String& text) {
    return text.find(L'\0') != String::npos;
}

bool isFileScheme(const String& scheme) {
    return scheme.toLower() == "file";
}

// True when a path starts with a Windows drive segment: "/C:" or "/C:/...".
bool hasDrive(const String& path) {
    return path.getLength() >= 3 && path.at(0) == L'/' && path.at(2) == L':' &&
           (path.getLength() == 3 || path.at(3) == L'/') && path.at(1) < 0x80 &&
           isAlpha(static_cast<char>(path.at(1)));
}

// Applies "." and ".." (RFC 3986, section 5.2.4). A path without a leading "/" keeps the
// ".." it cannot apply; with `keepDrive` the first segment (a drive) is never removed.
String removeDotSegments(const String& path, bool keepDrive) {
    const bool rooted = path.startsWith("/");
    const std::vector<String> segments = (rooted ? path.substring(1) : path).split(L'/');
    std::vector<String> out;
    for (size_t i = 0; i < segments.size(); ++i) {
        const String& s = segments[i];
        if (s != "." && s != "..") {
            out.push_back(s);
            continue;
        }
        if (s == ".." && !out.empty() && out.back() != ".." && !(keepDrive && out.size() == 1)) {
            out.pop_back();
        } else if (s == ".." && !rooted) {
            out.push_back(s);
        }
        if (i + 1 == segments.size()) {
            out.emplace_back();
        }
    }
    String result = rooted ? String("/") : String();
    for (size_t i = 0; i < out.size(); ++i) {
        result += i == 0 ? out[i] : "/" + out[i];
    }
    // A relative path must not vanish or turn into a rooted one.
    if (!rooted && !path.isEmpty() && (result.isEmpty() || result.startsWith("/"))) {
        result = "./" + result;
    }
    return result;
}

String joinComponents(const std::vector<String>& components) {
    String joined;
    for (const String& c : components) {
        joined += joined.isEmpty() ? c : "/" + c;
    }
    return joined;
}

template <class Traits>
CURI uriFromPath(const TPathImpl<Traits>& p, const String& scheme, const String& host, String path,
                 bool asFolder) {
    if ((asFolder || p.hasTrailingSeparator()) && !path.isEmpty() && !path.endsWith("/")) {
        path += "/";
    }
    return CURI(scheme, "", "", host, -1, path, "", "");
}

}  // namespace

CURI::CURI(const String& text) {
    const std::string s = text.toUTF8();
    size_t pos = 0;
    const size_t delimiter = s.find_first_of(":/?#");
    if (delimiter != std::string::npos && s[delimiter] == ':') {
        if (!isValidScheme(s.substr(0, delimiter))) {
            throwInvalid(text, "bad scheme");
        }
        scheme = String(s.substr(0, delimiter));
        pos = delimiter + 1;
    }
    if (s.compare(pos, 2, "//") == 0) {
        authority = true;
        const size_t end = std::min(s.find_first_of("/?#", pos + 2), s.size());
        const std::string rest = s.substr(pos + 2, end - pos - 2);
        pos = end;
        parseAuthority(rest, text, user, authInfo, host, port);
    }
    const size_t pathEnd = std::min(s.find_first_of("?#", pos), s.size());
    path = decode(s.substr(pos, pathEnd - pos), text);
    pos = pathEnd;
    if (pos < s.size() && s[pos] == '?') {
        const size_t queryEnd = std::min(s.find('#', pos), s.size());
        queryPresent = true;
        query = decode(s.substr(pos + 1, queryEnd - pos - 1), text);
        pos = queryEnd;
    }
    if (pos < s.size()) {
        fragmentPresent = true;
        fragment = decode(s.substr(pos + 1), text);
    }
}

CURI::CURI(const String& scheme, const String& user, const String& authInfo, const String& host,
           int port, const String& path, const String& query, const String& fragment)
    : scheme(scheme),
      user(user),
      authInfo(authInfo),
      host(host),
      port(port),
      path(path),
      query(query),
      fragment(fragment),
      authority(!user.isEmpty() || !authInfo.isEmpty() || !host.isEmpty() || port >= 0 ||
                isFileScheme(scheme)),
      queryPresent(!query.isEmpty()),
      fragmentPresent(!fragment.isEmpty()) {
    if (!scheme.isEmpty() && !isValidScheme(scheme.toUTF8())) {
        throw CError("Invalid URI scheme: " + scheme);
    }
    for (const String* c : {&user, &authInfo, &host, &path, &query, &fragment}) {
        if (hasNul(*c)) {
            throw CError("Invalid URI component: it holds a NUL character.");
        }
    }
    if (port < -1 || port > 65535) {
        throw CError("Invalid URI port: " + String::number(port));
    }
    if (authority && !path.isEmpty() && !path.startsWith("/")) {
        this->path = "/" + path;
    }
}

CURI::CURI(const TPathImpl<CWindowsPathTraits>& p, bool asFolder) : CURI() {
    const String joined = joinComponents(p.getComponents());
    if (!p.isAbsolute()) {
        *this = uriFromPath(p, "", "", joined, asFolder);
        return;
    }
    const String root = CWindowsPathTraits::normalizeRoot(p.getRoot());
    if (root.getLength() >= 2 && root.at(1) == L':') {
        *this = uriFromPath(p, "file", "", "/" + root.substring(0, 2) + "/" + joined, asFolder);
    } else if (root.startsWith("\\\\")) {
        std::vector<String> hostAndShare = root.substring(2).split(L'\\');
        hostAndShare.resize(2);
        const String& share = hostAndShare[1];
        const String path = "/" + (share.isEmpty() ? joined : share + "/" + joined);
        *this = uriFromPath(p, "file", hostAndShare[0], path, asFolder);
    } else {
        *this = uriFromPath(p, "", "", "/" + joined, asFolder);
    }
}

CURI::CURI(const TPathImpl<CUnixPathTraits>& p, bool asFolder) : CURI() {
    const String joined = joinComponents(p.getComponents());
    *this = p.isAbsolute() ? uriFromPath(p, "file", "", "/" + joined, asFolder)
                           : uriFromPath(p, "", "", joined, asFolder);
}

bool CURI::isEmpty() const {
    return scheme.isEmpty() && !authority && path.isEmpty() && !queryPresent && !fragmentPresent;
}

String CURI::getName() const {
    const size_t slash = lastIndexOf(path, L'/');
    return slash == String::npos ? path : path.substring(slash + 1);
}

String CURI::getTitle() const {
    const String name = getName();
    return name.substring(0, name.getLength() - getExtension().getLength());
}

String CURI::getExtension() const {
    const String name = getName();
    const size_t dot = lastIndexOf(name, L'.');
    return dot == String::npos || dot == 0 ? String() : name.substring(dot);
}

CURI CURI::getParent() const {
    CURI parent = *this;
    parent.query = parent.fragment = String();
    parent.queryPresent = parent.fragmentPresent = false;
    const String folder = path.endsWith("/") ? path.substring(0, path.getLength() - 1) : path;
    const size_t slash = lastIndexOf(folder, L'/');
    if (path != "/") {
        parent.path = slash == String::npos ? String() : folder.substring(0, slash + 1);
    }
    return parent;
}

CURI CURI::operator<<(const CURI& reference) const {
    CURI target = reference;
    if (!reference.scheme.isEmpty() || reference.authority) {
        target.scheme = reference.scheme.isEmpty() ? scheme : reference.scheme;
        const bool keepDrive = isFileScheme(target.scheme) && hasDrive(target.path);
        target.path = removeDotSegments(reference.path, keepDrive);
        return target;
    }
    target.scheme = scheme;
    target.user = user;
    target.authInfo = authInfo;
    target.host = host;
    target.port = port;
    target.authority = authority;
    if (reference.path.isEmpty()) {
        target.path = path;
        if (!reference.queryPresent) {
            target.query = query;
            target.queryPresent = queryPresent;
        }
        return target;
    }
    String merged = reference.path;
    const bool keepDrive = isFileScheme(scheme) && hasDrive(path);
    if (!reference.path.startsWith("/")) {
        const size_t slash = lastIndexOf(path, L'/');
        merged = authority && path.isEmpty() ? "/" + merged
                 : slash == String::npos     ? merged
                                             : path.substring(0, slash + 1) + merged;
    } else if (keepDrive && !hasDrive(reference.path)) {
        // A path rooted without a drive stays on the drive of the base.
        merged = path.substring(0, 3) + merged;
    }
    target.path = removeDotSegments(merged, keepDrive);
    return target;
}

CURI CURI::operator<<(const String& reference) const {
    return *this << CURI(reference);
}

CURI CURI::toNormalized() const {
    CURI n = *this;
    n.scheme = scheme.toLower();
    n.host = host.toLower();
    const bool file = n.scheme == "file";
    if (file) {
        n.authority = true;
        if (n.host == "localhost") {
            n.host = String();
        }
    }
    if (n.authority && !n.path.startsWith("/")) {
        n.path = "/" + n.path;
    }
    const bool drive = file && hasDrive(n.path);
    if (drive) {
        n.path = "/" + n.path.substring(1, 1).toUpper() + n.path.substring(2);
    }
    n.path = removeDotSegments(n.path, drive);
    return n;
}

String CURI::toString(bool readable) const {
    // Appended piece by piece: "x" + std::string temporaries trip a false -Wrestrict in g++ 12
    // at -O3.
    std::string out;
    if (!scheme.isEmpty()) {
        out += scheme.toUTF8();
        out += ':';
    }
    if (authority) {
        out += "//";
        if (!user.isEmpty() || !authInfo.isEmpty()) {
            out += encode(user, Part::User, readable);
            if (!authInfo.isEmpty()) {
                out += ':';
                out += encode(authInfo, Part::AuthInfo, readable);
            }
            out += '@';
        }
        out += isIPLiteral(host.toUTF8()) ? host.toUTF8() : encode(host, Part::Host, readable);
        if (port >= 0) {
            out += ':';
            out += std::to_string(port);
        }
    }
    const bool relative = scheme.isEmpty() && !authority;
    if (!authority && path.startsWith("//")) {
        // Without an authority the path may not begin with "//"; "/%2F" decodes to the same.
        out += "/%2F";
        out += encode(path.substring(2), Part::Path, readable);
    } else {
        out += encode(path, relative ? Part::FirstSegment : Part::Path, readable);
    }
    if (queryPresent) {
        out += '?';
        out += encode(query, Part::QueryOrFragment, readable);
    }
    if (fragmentPresent) {
        out += '#';
        out += encode(fragment, Part::QueryOrFragment, readable);
    }
    return String(out);
}

bool operator==(const CURI& a, const CURI& b) {
    return a.scheme == b.scheme && a.user == b.user && a.authInfo == b.authInfo &&
           a.host == b.host && a.port == b.port && a.path == b.path && a.query == b.query &&
           a.fragment == b.fragment && a.authority == b.authority &&
           a.queryPresent == b.queryPresent && a.fragmentPresent == b.fragmentPresent;
}

}  // namespace kz
