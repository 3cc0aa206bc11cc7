#pragma once

#include <vector>

#include "foundation/kz/String.h"

namespace kz {

// The rules of one path syntax. Each Traits class gives:
//   static wchar_t separator();
//   static String normalizeSeparators(const String& text);
//   static int getRootLength(const String& text, int& rootLength);  // components' start, or -1
//   static bool pathNeedsToBeNormalizedToBeValid(const String& text);
//   static String normalizeComponent(const String& component);
//   static String normalizeRoot(const String& root);
//   static String finalizeNormalizedPath(const String& text);

// Windows paths: "\" and "/" separate, roots are "C:\", "\\host\share\" and "\".
class CWindowsPathTraits {
public:
    static wchar_t separator() { return L'\\'; }
    static String normalizeSeparators(const String& text);
    static int getRootLength(const String& text, int& rootLength);
    static bool pathNeedsToBeNormalizedToBeValid(const String& text);
    // Drops the trailing dots and blanks that Windows ignores in a name.
    static String normalizeComponent(const String& component);
    static String normalizeRoot(const String& root);
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

// A path of one syntax. A Windows path that needs normalizing to be valid is normalized at
// construction; a ".." above the root of an absolute path throws CBadPathError.
template <class Traits>
class TPathImpl {
public:
    explicit TPathImpl(const String& text);

    const String& toString() const { return text; }
    bool isAbsolute() const;
    // The root as written ("C:\", "/", "\\host\share\"), empty for a relative path.
    String getRoot() const;
    // The components behind the root, empty ones skipped.
    std::vector<String> getComponents() const;
    // The normalized form: separators unified, "." dropped, ".." applied.
    TPathImpl toNormalized() const;

private:
    String text;
};

extern template class TPathImpl<CWindowsPathTraits>;
extern template class TPathImpl<CUnixPathTraits>;

}  // namespace kz
