#pragma once

#include <wx/string.h>

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

namespace kz {

// The text type of the system: a sequence of Unicode characters on wxString. Byte
// conversions are explicit (UTF-8 or Latin-1), because the descriptor's bytes may be either.
class String {
public:
    String() = default;
    // UTF-8 text from a literal or a C string; a null pointer gives an empty string. Bytes
    // that are not valid UTF-8 are taken as Latin-1, so this never throws.
    String(const char* utf8);
    String(const std::string& utf8);

    explicit String(const wxString& text) : text(text) {}

    // Decodes bytes. fromUTF8 throws a CError on invalid UTF-8; fromLatin1 never fails.
    static String fromUTF8(const void* data, size_t length);
    static String fromLatin1(const void* data, size_t length);
    static String number(long long value);
    static String numberUnsigned(unsigned long long value);
    // Lower-case hexadecimal without leading zeros.
    static String hex(unsigned long long value);

    bool isEmpty() const { return text.empty(); }

    size_t getLength() const { return text.length(); }

    // The character at `index` as a code point; index must be below getLength().
    wchar_t at(size_t index) const { return static_cast<wchar_t>(text[index].GetValue()); }

    std::string toUTF8() const;
    // Appends the UTF-8 bytes to `out`.
    void appendUTF8(std::vector<unsigned char>& out) const;

    String toLower() const;
    String toUpper() const;
    String trimmed() const;
    String trimmedLeft() const;
    String trimmedRight() const;
    // `length` npos: to the end. Out-of-range arguments are clamped.
    String substring(size_t start, size_t length = npos) const;
    // Position of the first occurrence at or behind `from`, or npos.
    size_t find(const String& what, size_t from = 0) const;
    size_t find(wchar_t what, size_t from = 0) const;
    bool startsWith(const String& prefix) const;
    bool endsWith(const String& suffix) const;
    String replaced(const String& from, const String& to) const;
    // Splits at every `separator`; empty pieces count, also the one behind a final
    // separator. An empty string gives no pieces.
    std::vector<String> split(wchar_t separator) const;

    const wxString& wx() const { return text; }

    String& operator=(const char* utf8) { return *this = String(utf8); }

    String& operator+=(const String& other) {
        text += other.text;
        return *this;
    }

    String& operator+=(wchar_t c) {
        text += wxUniChar(static_cast<wxUint32>(c));
        return *this;
    }

    friend String operator+(String a, const String& b) { return a += b; }

    friend String operator+(String a, const char* b) { return a += String(b); }

    friend String operator+(const char* a, const String& b) { return String(a) += b; }

    friend bool operator==(const String& a, const String& b) { return a.text == b.text; }

    friend bool operator!=(const String& a, const String& b) { return a.text != b.text; }

    friend bool operator<(const String& a, const String& b) { return a.text < b.text; }

    friend std::ostream& operator<<(std::ostream& out, const String& s) {
        return out << s.toUTF8();
    }

    static constexpr size_t npos = static_cast<size_t>(-1);

private:
    wxString text;
};

}  // namespace kz
