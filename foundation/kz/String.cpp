#include "harl/foundation/kz/String.h"

#include "harl/foundation/kz/CError.h"

namespace kz {

namespace {

bool isBlank(wxUniChar c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

}  // namespace

namespace {

// wxString::FromUTF8 answers most invalid input with an empty string, but lets sequences
// through that decode to no Unicode character (above U+10FFFF, or a surrogate); text that
// holds one cannot be encoded again, so it is refused as the rest is.
wxString decodeUTF8(const char* data, size_t length) {
    wxString text = wxString::FromUTF8(data, length);
    for (const wxUniChar c : text) {
        const wxUint32 code = c.GetValue();
        if (code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
            return wxString();
        }
    }
    return text;
}

// Text from a literal or an exception's what() must never fail to convert: bytes that are
// not UTF-8 are taken one byte to one character.
String lenientFromUTF8(const char* data, size_t length) {
    if (length == 0) {
        return String();
    }
    const wxString text = decodeUTF8(data, length);
    return text.empty() ? String::fromLatin1(data, length) : String(text);
}

}  // namespace

String::String(const char* utf8) {
    if (utf8 != nullptr) {
        *this = lenientFromUTF8(utf8, std::char_traits<char>::length(utf8));
    }
}

String::String(const std::string& utf8) {
    *this = lenientFromUTF8(utf8.data(), utf8.size());
}

String String::fromUTF8(const void* data, size_t length) {
    String result;
    if (length == 0) {
        return result;
    }
    result.text = decodeUTF8(static_cast<const char*>(data), length);
    if (result.text.empty()) {
        throw CError("Invalid UTF-8 text.");
    }
    return result;
}

String String::fromLatin1(const void* data, size_t length) {
    String result;
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    std::wstring wide(length, L'\0');
    for (size_t i = 0; i < length; ++i) {
        wide[i] = static_cast<wchar_t>(bytes[i]);
    }
    result.text = wxString(wide);
    return result;
}

String String::number(long long value) {
    return String(std::to_string(value));
}

String String::numberUnsigned(unsigned long long value) {
    return String(std::to_string(value));
}

String String::hex(unsigned long long value) {
    static const char digits[] = "0123456789abcdef";
    char buffer[17];
    int pos = 16;
    buffer[pos] = '\0';
    do {
        buffer[--pos] = digits[value & 0xF];
        value >>= 4;
    } while (value != 0);
    return String(buffer + pos);
}

std::string String::toUTF8() const {
    const wxScopedCharBuffer utf8 = text.utf8_str();
    return std::string(utf8.data(), utf8.length());
}

void String::appendUTF8(std::vector<unsigned char>& out) const {
    const wxScopedCharBuffer utf8 = text.utf8_str();
    out.insert(out.end(), utf8.data(), utf8.data() + utf8.length());
}

String String::toLower() const {
    return String(text.Lower());
}

String String::toUpper() const {
    return String(text.Upper());
}

String String::trimmed() const {
    return trimmedLeft().trimmedRight();
}

String String::trimmedLeft() const {
    size_t start = 0;
    while (start < text.length() && isBlank(text[start])) {
        ++start;
    }
    return String(text.Mid(start));
}

String String::trimmedRight() const {
    size_t end = text.length();
    while (end > 0 && isBlank(text[end - 1])) {
        --end;
    }
    return String(text.Left(end));
}

String String::substring(size_t start, size_t length) const {
    if (start >= text.length()) {
        return String();
    }
    return String(text.Mid(start, length == npos ? wxString::npos : length));
}

size_t String::find(const String& what, size_t from) const {
    const size_t pos = text.find(what.text, from);
    return pos == wxString::npos ? npos : pos;
}

size_t String::find(wchar_t what, size_t from) const {
    const size_t pos = text.find(wxUniChar(static_cast<wxUint32>(what)), from);
    return pos == wxString::npos ? npos : pos;
}

bool String::startsWith(const String& prefix) const {
    return text.StartsWith(prefix.text);
}

bool String::endsWith(const String& suffix) const {
    return text.EndsWith(suffix.text);
}

String String::replaced(const String& from, const String& to) const {
    wxString copy = text;
    copy.Replace(from.text, to.text, true);
    return String(copy);
}

std::vector<String> String::split(wchar_t separator) const {
    // The pieces of wxStringTokenizer in mode wxTOKEN_RET_EMPTY_ALL: every separator ends a
    // piece, empty ones and the one behind a final separator included. The tokenizer itself
    // rescans each run of separators before every piece in it, which makes a text of many
    // empty lines cost quadratic time; descriptors from other writers may be such texts.
    std::vector<String> pieces;
    if (text.empty()) {
        return pieces;
    }
    const wxUniChar wanted(static_cast<wxUint32>(separator));
    size_t start = 0;
    for (;;) {
        const size_t end = text.find(wanted, start);
        if (end == wxString::npos) {
            pieces.emplace_back(text.substr(start));
            return pieces;
        }
        pieces.emplace_back(text.substr(start, end - start));
        start = end + 1;
    }
}

}  // namespace kz
