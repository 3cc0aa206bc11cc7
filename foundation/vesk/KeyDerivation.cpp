#include "harl/foundation/vesk/KeyDerivation.h"

#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/vesk/OpenSSLErrors.h"

#include <openssl/evp.h>

namespace vesk {

namespace {

// Stands in for an empty password or salt, which a caller may pass as a null pointer.
const unsigned char kNothing[1] = {0};

}  // namespace

void deriveKey_PKCS5_PBKDF2_HMAC_SHA1(const void* password, int passwordLength, const void* salt,
                                      int saltLength, int iterations, int keyLength,
                                      unsigned char* key) {
    const char* where = "deriveKey_PKCS5_PBKDF2_HMAC_SHA1";
    if (passwordLength < 0 || saltLength < 0 || keyLength < 0 || iterations < 1) {
        throw kz::CInvalidArgError(where, "Invalid length or iteration count",
                                   kz::CProps()
                                       .add("passwordLength", passwordLength)
                                       .add("saltLength", saltLength)
                                       .add("iterations", iterations)
                                       .add("keyLength", keyLength));
    }
    if ((password == nullptr && passwordLength > 0) || (salt == nullptr && saltLength > 0) ||
        (key == nullptr && keyLength > 0)) {
        throw kz::CInvalidArgError(where, "Null buffer with a length above 0");
    }
    if (keyLength == 0) {
        return;
    }
    const char* passwordBytes = passwordLength > 0 ? static_cast<const char*>(password)
                                                   : reinterpret_cast<const char*>(kNothing);
    const unsigned char* saltBytes =
        saltLength > 0 ? static_cast<const unsigned char*>(salt) : kNothing;
    if (PKCS5_PBKDF2_HMAC_SHA1(passwordBytes, passwordLength, saltBytes, saltLength, iterations,
                               keyLength, key) != 1) {
        throwOpenSSLError("PBKDF2 key derivation");
    }
}

}  // namespace vesk
