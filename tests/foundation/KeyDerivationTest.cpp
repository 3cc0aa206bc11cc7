#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/Text.h"
#include "harl/foundation/vesk/KeyDerivation.h"

#include <gtest/gtest.h>

#include <string>

namespace {

void expectKey(const std::string& password, const std::string& salt, int iterations,
               const char* keyHex) {
    kz::TCryptBuffer<unsigned char> key(std::char_traits<char>::length(keyHex) / 2);
    vesk::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(password.data(), int(password.size()), salt.data(),
                                           int(salt.size()), iterations, int(key.getUsed()),
                                           key.getData());
    EXPECT_EQ(kz::hexEncode(key, false), keyHex) << password;
}

// The vectors of RFC 6070, less the one of 16777216 iterations.
TEST(KeyDerivationTest, PBKDF2MatchesThePublishedVectors) {
    expectKey("password", "salt", 1, "0c60c80f961f0e71f3a9b524af6012062fe037a6");
    expectKey("password", "salt", 2, "ea6c014dc72d6f8ccd1ed92ace1d41f0d8de8957");
    expectKey("password", "salt", 4096, "4b007901b765489abead49d926f721d065a429c1");
    expectKey("passwordPASSWORDpassword", "saltSALTsaltSALTsaltSALTsaltSALTsalt", 4096,
              "3d2eec4fe41c849b80c8d83662c0e44a8b291a964cf2f07038");
    expectKey(std::string("pass\0word", 9), std::string("sa\0lt", 5), 4096,
              "56fa6aa75548099dcc37d7f03425e0c3");
    expectKey("", "", 1, "1e437a1c79d75be61e91141dae20affc4892cc99");
}

TEST(KeyDerivationTest, RefusesBadArgumentsAndTakesNullForEmpty) {
    kz::TCryptBuffer<unsigned char> key(20);
    const auto derive = [&](const char* password, int passwordLength, const char* salt,
                            int saltLength, int iterations, int keyLength, bool toKey = true) {
        vesk::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(password, passwordLength, salt, saltLength,
                                               iterations, keyLength,
                                               toKey ? key.getData() : nullptr);
    };
    EXPECT_THROW(derive("p", 1, "s", 1, 0, 20), kz::CInvalidArgError);
    EXPECT_THROW(derive("p", -1, "s", 1, 1, 20), kz::CInvalidArgError);
    EXPECT_THROW(derive("p", 1, "s", -1, 1, 20), kz::CInvalidArgError);
    EXPECT_THROW(derive("p", 1, "s", 1, 1, -1), kz::CInvalidArgError);
    EXPECT_THROW(derive(nullptr, 1, "s", 1, 1, 20), kz::CInvalidArgError);
    EXPECT_THROW(derive("p", 1, nullptr, 1, 1, 20), kz::CInvalidArgError);
    EXPECT_THROW(derive("p", 1, "s", 1, 1, 20, false), kz::CInvalidArgError);
    derive("p", 1, "s", 1, 1, 0, false);    // a key of length 0 asks for nothing
    derive(nullptr, 0, nullptr, 0, 1, 20);  // null stands for empty at length 0
    EXPECT_EQ(kz::hexEncode(key, false), "1e437a1c79d75be61e91141dae20affc4892cc99");
}

}  // namespace
