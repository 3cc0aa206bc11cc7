#pragma once

#include "harl/foundation/kz/String.h"

namespace kz {

template <class Traits>
class TPathImpl;
class CWindowsPathTraits;
class CUnixPathTraits;

// A URI reference (RFC 3986): every file of the system is named by one. Components are kept
// decoded; toString() percent-encodes what needs it. The parser is lenient with characters
// that a URI should have encoded (blanks, non-ASCII, "\"), so that the readable text of
// toString(true) parses as well; it refuses a bad scheme, a bad percent escape (or one that
// is not UTF-8, or "%00"), a control character, an unclosed "[" in the host and a bad port.
//
// Paths of the host are turned into URIs through TPathImpl: an absolute path becomes a
// "file:" URI ("/a/b" -> "file:///a/b", "C:\a\b" -> "file:///C:/a/b", "\\host\share\x" ->
// "file://host/share/x"); a relative path becomes a relative reference with "/" separators.
// A Windows path rooted without a drive ("\a\b") becomes the reference "/a/b", which takes
// its drive from the "file:" URI it is resolved against.
class CURI {
public:
    CURI() = default;
    // Parses a URI or a relative reference; malformed text throws a CError "Invalid URI:
    // <text>" whose detail says what is wrong.
    explicit CURI(const String& text);
    // `asFolder` adds a final "/" so that the URI names a folder; a path that ends in its
    // separator names one anyway.
    CURI(const TPathImpl<CWindowsPathTraits>& path, bool asFolder);
    CURI(const TPathImpl<CUnixPathTraits>& path, bool asFolder);
    // From decoded components; `port` -1: none. There is an authority when any of user,
    // authInfo, host or port is given, or the scheme is "file" ("file:///a"). With an
    // authority, a path that does not start with "/" gets one. A bad scheme or port, or a NUL
    // character in a component, throws.
    CURI(const String& scheme, const String& user, const String& authInfo, const String& host,
         int port, const String& path, const String& query, const String& fragment);

    bool isEmpty() const;

    // True when the URI has a scheme.
    bool isAbsolute() const { return !scheme.isEmpty(); }

    const String& getScheme() const { return scheme; }

    const String& getUser() const { return user; }

    const String& getAuthInfo() const { return authInfo; }

    const String& getHost() const { return host; }

    int getPort() const { return port; }

    const String& getPath() const { return path; }

    const String& getQuery() const { return query; }

    const String& getFragment() const { return fragment; }

    bool hasAuthority() const { return authority; }

    bool hasQuery() const { return queryPresent; }

    bool hasFragment() const { return fragmentPresent; }

    // The last path segment: "disk.vmdk" of "file:///a/disk.vmdk"; empty for a folder URI.
    String getName() const;
    // The name without its extension: "disk".
    String getTitle() const;
    // The extension with its dot: ".vmdk"; empty when the name has no dot past its first
    // character.
    String getExtension() const;
    // The folder that holds this: "file:///a/" of "file:///a/disk.vmdk" and of "file:///a/b/".
    // Query and fragment are dropped; a root is its own parent.
    CURI getParent() const;

    // Resolves a reference against this URI (RFC 3986, section 5.2). For "file:" URIs a
    // Windows drive stays: "/x" against "file:///C:/a/" gives "file:///C:/x", and ".." does
    // not climb above "/C:/".
    CURI operator<<(const CURI& reference) const;
    CURI operator<<(const String& reference) const;

    // Removes "." and ".." segments (a relative reference keeps its leading ".."), lower-cases
    // scheme and host, gives an empty path behind an authority a "/", and for "file:" drops
    // the host "localhost" and upper-cases a drive letter, so that two URIs of one file
    // compare equal. Percent-encoding needs no work: components are kept decoded and
    // toString() encodes them one way only.
    CURI toNormalized() const;

    // The text. `readable` keeps non-ASCII characters and blanks as they are, for messages;
    // false percent-encodes them, for a text that parses back to the same URI.
    String toString(bool readable) const;

    // Component by component, no normalization.
    friend bool operator==(const CURI& a, const CURI& b);

    friend bool operator!=(const CURI& a, const CURI& b) { return !(a == b); }

private:
    String scheme;
    String user;
    String authInfo;
    String host;
    int port = -1;
    String path;
    String query;
    String fragment;
    bool authority = false;
    bool queryPresent = false;
    bool fragmentPresent = false;
};

}  // namespace kz
