#pragma once

namespace vesk {

// Throws kz::CError "<operation> failed." with the cryptographic library's queued error
// texts as the detail, and empties that queue so that no stale error is reported later.
// For failures of the library itself, never for bad input: that is checked before.
[[noreturn]] void throwOpenSSLError(const char* operation);

}  // namespace vesk
