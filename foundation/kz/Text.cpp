#include "harl/foundation/kz/Text.h"

#include "harl/foundation/kz/CError.h"

#include <limits>

namespace kz {

namespace {

[[noreturn]] void malformed(const char* what, const String& text) {
    throw CError(String("Invalid ") + what + " text", String(), -1, CProps().add("text", text));
}

int hexDigit(wchar_t c) {
    if (c >= L'0' && c <= L'9') {
        return c - L'0';
    }
    if (c >= L'a' && c <= L'f') {
        return c - L'a' + 10;
    }
    if (c >= L'A' && c <= L'F') {
        return c - L'A' + 10;
    }
    return -1;
}

}  // namespace

long long parseInt64(const String& text, bool allowBlanks) {
    const String body = allowBlanks ? text.trimmed() : text;
    size_t pos = 0;
    bool negative = false;
    if (pos < body.getLength() && (body.at(pos) == L'-' || body.at(pos) == L'+')) {
        negative = body.at(pos) == L'-';
        ++pos;
    }
    if (pos == body.getLength()) {
        malformed("decimal number", text);
    }
    // Accumulate as a negative number so that the most negative value fits.
    const long long min = std::numeric_limits<long long>::min();
    long long value = 0;
    for (; pos < body.getLength(); ++pos) {
        const wchar_t c = body.at(pos);
        if (c < L'0' || c > L'9') {
            malformed("decimal number", text);
        }
        const int digit = c - L'0';
        if (value < (min + digit) / 10) {
            malformed("decimal number", text);
        }
        value = value * 10 - digit;
    }
    if (!negative) {
        if (value == min) {
            malformed("decimal number", text);
        }
        value = -value;
    }
    return value;
}

long long parseHexInt64(const String& text, bool allowBlanks) {
    const String body = allowBlanks ? text.trimmed() : text;
    if (body.isEmpty() || body.getLength() > 16) {
        malformed("hexadecimal number", text);
    }
    unsigned long long value = 0;
    for (size_t pos = 0; pos < body.getLength(); ++pos) {
        const int digit = hexDigit(body.at(pos));
        if (digit < 0) {
            malformed("hexadecimal number", text);
        }
        value = (value << 4) | static_cast<unsigned long long>(digit);
    }
    return static_cast<long long>(value);
}

bool parseBool(const String& text) {
    const String lower = text.toLower();
    if (lower == "true" || lower == "1") {
        return true;
    }
    if (lower == "false" || lower == "0") {
        return false;
    }
    malformed("boolean", text);
}

String hexEncode(const unsigned char* data, size_t length, bool upperCase) {
    const char* digits = upperCase ? "0123456789ABCDEF" : "0123456789abcdef";
    std::string out(length * 2, '0');
    for (size_t i = 0; i < length; ++i) {
        out[2 * i] = digits[data[i] >> 4];
        out[2 * i + 1] = digits[data[i] & 0xF];
    }
    return String(out);
}

String hexEncode(const TBuffer<unsigned char>& data, bool upperCase) {
    return hexEncode(data.getData(), data.getUsed(), upperCase);
}

TBuffer<unsigned char> hexDecode(const String& text) {
    if (text.getLength() % 2 != 0) {
        malformed("hexadecimal byte string", text);
    }
    TBuffer<unsigned char> out(text.getLength() / 2);
    for (size_t i = 0; i < out.getUsed(); ++i) {
        const int high = hexDigit(text.at(2 * i));
        const int low = hexDigit(text.at(2 * i + 1));
        if (high < 0 || low < 0) {
            malformed("hexadecimal byte string", text);
        }
        out[i] = static_cast<unsigned char>(high << 4 | low);
    }
    return out;
}

}  // namespace kz
