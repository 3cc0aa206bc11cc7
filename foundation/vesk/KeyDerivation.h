#pragma once

namespace vesk {

// Key derivation from a password.

// PBKDF2 with HMAC-SHA1: writes `keyLength` bytes derived from the password and the salt
// to `key`. The caller keeps the result in a kz::TCryptBuffer. Negative lengths, fewer than
// one iteration, or a null pointer with a length above 0 throw kz::CInvalidArgError.
void deriveKey_PKCS5_PBKDF2_HMAC_SHA1(const void* password, int passwordLength, const void* salt,
                                      int saltLength, int iterations, int keyLength,
                                      unsigned char* key);

}  // namespace vesk
