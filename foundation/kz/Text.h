#pragma once

#include "harl/foundation/kz/String.h"
#include "harl/foundation/kz/TBuffer.h"

#include <cstddef>

namespace kz {

// Number and byte-string conversions of the text formats. Malformed text throws a CError
// whose properties name the text; nothing is guessed.

// Decimal with an optional sign. `allowBlanks` accepts blanks around the number; without it
// the text must be the number alone. Out-of-range values are malformed.
long long parseInt64(const String& text, bool allowBlanks);

// Hexadecimal digits of either case, without prefix or sign, read as an unsigned 64-bit
// value and returned as its bit pattern: "ffffffff" gives 4294967295. `allowBlanks` as above.
long long parseHexInt64(const String& text, bool allowBlanks);

// "true" or "false" in any case, or "1" or "0".
bool parseBool(const String& text);

// Two hexadecimal digits per byte, lower case unless `upperCase`.
String hexEncode(const unsigned char* data, size_t length, bool upperCase);
String hexEncode(const TBuffer<unsigned char>& data, bool upperCase);

// The inverse of hexEncode, either case; an odd length or a non-digit throws.
TBuffer<unsigned char> hexDecode(const String& text);

}  // namespace kz
