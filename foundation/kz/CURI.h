#pragma once

#include "foundation/kz/String.h"

namespace kz {

template <class Traits>
class TPathImpl;
class CWindowsPathTraits;
class CUnixPathTraits;

// A URI reference (RFC 3986): every file of the system is named by one. Components are kept
// decoded; toString() percent-encodes what needs it.
//
// Paths of the host are turned into URIs through TPathImpl: an absolute path becomes a
// "file:" URI ("/a/b" -> "file:///a/b", "C:\a\b" -> "file:///C:/a/b", "\\host\share\x" ->
// "file://host/share/x"); a relative path becomes a relative reference with "/" separators.
class CURI {
public:
    CURI() = default;
    // Parses a URI or a relative reference; malformed text (a bad percent escape, a bad
    // port) throws a CError.
    explicit CURI(const String& text);
    // `asFolder` adds a final "/" so that the URI names a folder.
    CURI(const TPathImpl<CWindowsPathTraits>& path, bool asFolder);
    CURI(const TPathImpl<CUnixPathTraits>& path, bool asFolder);
    // From components; `port` -1: none. `host` empty with a scheme of "file" gives "file:///".
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
    CURI getParent() const;

    // Resolves a reference against this URI (RFC 3986, section 5.2).
    CURI operator<<(const CURI& reference) const;
    CURI operator<<(const String& reference) const;

    // Removes "." and ".." segments and lower-cases scheme and host, so that two URIs of one
    // file compare equal.
    CURI toNormalized() const;

    // The text. `readable` keeps non-ASCII characters and blanks as they are, for messages;
    // false percent-encodes them, for a text that parses back to the same URI.
    String toString(bool readable) const;

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
