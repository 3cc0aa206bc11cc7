#include "harl/foundation/vesk/OpenSSLErrors.h"

#include "harl/foundation/kz/CError.h"

#include <openssl/err.h>

namespace vesk {

void throwOpenSSLError(const char* operation) {
    kz::String detail;
    char text[256];
    for (unsigned long code = ERR_get_error(); code != 0; code = ERR_get_error()) {
        ERR_error_string_n(code, text, sizeof(text));
        if (!detail.isEmpty()) {
            detail += "; ";
        }
        detail += kz::String(text);
    }
    throw kz::CError(kz::String(operation) + " failed.", detail);
}

}  // namespace vesk
