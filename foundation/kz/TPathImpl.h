#pragma once

#include "harl/foundation/kz/String.h"

#include <vector>

namespace kz {

// The rules of one path syntax. Each Traits class gives:
//   static wchar_t separator();
//   static String normalizeSeparators(const String& text);
//   // Where the components begin, or -1 for a relative path; `rootLength` receives the
//   // length of the root with its separator (0 for a relative path).
//   static int getRootLength(const String& text, int& rootLength);
//   static bool pathNeedsToBeNormalizedToBeValid(const String& text);
//   static String normalizeComponent(const String& component);
//   static String normalizeRoot(const String& root);
//   static String finalizeNormalizedPath(const String& text);

// Windows paths: "\" and "/" separate. Roots are "C:\" (the drive-relative "C:" counts as the
// drive's root: this library has no current folder per drive), "\\host\share\", "\" (the root
// of the drive of whatever the path is resolved against) and the literal forms "\\?\C:\" and
// "\\?\UNC\host\share\", which are never normalized.
class CWindowsPathTraits {
public:
    static wchar_t separator() { return L'\\'; }

    // Turns every "/" into "\".
    static String normalizeSeparators(const String& text);
    static int getRootLength(const String& text, int& rootLength);
    // True when the text holds a "/", an empty, "." or ".." component, a component that
    // normalizeComponent changes, or a root that normalizeRoot changes.
    static bool pathNeedsToBeNormalizedToBeValid(const String& text);
    // Drops the trailing dots and blanks that Windows ignores in a name.
    static String normalizeComponent(const String& component);
    // Upper-cases the drive letter and drops a literal "\\?\" prefix: "\\?\c:\" -> "C:\",
    // "\\?\UNC\host\share\" -> "\\host\share\".
    static String normalizeRoot(const String& root);
    // An empty result, from a relative path that cancels out ("a\.."), becomes ".".
    static String finalizeNormalizedPath(const String& text);
};

// Unix paths: "/" separates, the only root is "/". Text is taken as it is.
class CUnixPathTraits {
public:
    static wchar_t separator() { return L'/'; }

    static String normalizeSeparators(const String& text) { return text; }

    static int getRootLength(const String& text, int& rootLength);

    static bool pathNeedsToBeNormalizedToBeValid(const String&) { return false; }

    static String normalizeComponent(const String& component) { return component; }

    static String normalizeRoot(const String& root) { return root; }

    static String finalizeNormalizedPath(const String& text) { return text; }
};

// A path of one syntax. A path that the Traits say needs normalizing to be valid is
// normalized at construction; a ".." above the root of a path with a root throws
// CBadPathError with the text as given.
template <class Traits>
class TPathImpl {
public:
    explicit TPathImpl(const String& text);

    const String& toString() const { return text; }

    // True when the path has a root.
    bool isAbsolute() const;
    // The root as it stands in the text ("C:\", "/", "\\host\share\"), empty for a relative
    // path.
    String getRoot() const;
    // The components behind the root, empty ones skipped.
    std::vector<String> getComponents() const;
    // True when the text ends in a separator behind at least one component: "a\b\".
    bool hasTrailingSeparator() const;
    // The normalized form: separators unified, "." dropped, ".." applied, the root and each
    // component normalized. Throws CBadPathError as the constructor does.
    TPathImpl toNormalized() const;

private:
    struct CNormalized {};

    TPathImpl(const String& text, CNormalized) : text(text) {}

    static String normalize(const String& text);

    String text;
};

extern template class TPathImpl<CWindowsPathTraits>;
extern template class TPathImpl<CUnixPathTraits>;

}  // namespace kz
