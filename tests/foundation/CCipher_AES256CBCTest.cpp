#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/Text.h"
#include "harl/foundation/vesk/CCipher_AES256CBC.h"

#include "tests/support/SampleData.h"
#include <gtest/gtest.h>

#include <cstring>

namespace {

using Buffer = kz::TBuffer<unsigned char>;
using Key = kz::TCryptBuffer<unsigned char>;

// CBC-AES256 of NIST SP 800-38A, F.2.5 and F.2.6.
const char* const kKeyHex = "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4";
const char* const kPlainHex =
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";
const char* const kCipherHex =
    "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
    "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b";

class CCipher_AES256CBCTest : public testing::Test {
protected:
    CCipher_AES256CBCTest() {
        const Buffer bytes = kz::hexDecode(kKeyHex);
        key.assign(bytes.getData(), bytes.getUsed());
    }

    // Operation 0 encrypt, 1 decrypt, 2 encryptData, 3 decryptData.
    void run(int operation, const Key& k, const void* source, int length, Buffer& destination,
             bool append) {
        using Op = void (vesk::ICipher::*)(const Key&, const unsigned char*, int, Buffer&, bool,
                                           const unsigned char*);
        const Op ops[] = {&vesk::ICipher::encrypt, &vesk::ICipher::decrypt,
                          &vesk::ICipher::encryptData, &vesk::ICipher::decryptData};
        (cipher.get()->*ops[operation])(k, static_cast<const unsigned char*>(source), length,
                                        destination, append, iv.getData());
    }

    kz::P<vesk::ICipher> cipher{new vesk::CCipher_AES256CBC};
    Key key;
    Buffer iv = kz::hexDecode("000102030405060708090a0b0c0d0e0f");
    Buffer plain = kz::hexDecode(kPlainHex);
    Buffer expected = kz::hexDecode(kCipherHex);
};

TEST_F(CCipher_AES256CBCTest, BothPairsMatchThePublishedVectorsAndAppend) {
    EXPECT_EQ(cipher->getID(), "aes256cbc");
    EXPECT_EQ(cipher->getKeySize(), 32);
    EXPECT_EQ(cipher->getIVSize(), 16);
    for (int pair = 0; pair < 2; ++pair) {
        Buffer out(12), back(3);
        out.fill(0xAB);
        run(2 * pair, key, plain.getData(), 64, out, true);
        ASSERT_EQ(out.getUsed(), 76u);
        EXPECT_EQ(out.getData()[11], 0xAB);
        EXPECT_EQ(0, std::memcmp(out.getData() + 12, expected.getData(), 64));
        run(2 * pair + 1, key, out.getData() + 12, 64, back, true);
        ASSERT_EQ(back.getUsed(), 67u);
        EXPECT_EQ(0, std::memcmp(back.getData() + 3, plain.getData(), 64));
        // Without append the output replaces; whole blocks from the start decrypt to the
        // start of the plaintext.
        run(2 * pair + 1, key, expected.getData(), 32, back, false);
        ASSERT_EQ(back.getUsed(), 32u);
        EXPECT_EQ(0, std::memcmp(back.getData(), plain.getData(), 32));
    }
}

TEST_F(CCipher_AES256CBCTest, RoundsInputUpToWholeBlocksWithZeros) {
    Buffer padded(32);
    padded.fill(0);
    std::memcpy(padded.getData(), plain.getData(), 17);
    Buffer fromPadded, fromShort, empty(5);
    run(0, key, padded.getData(), 32, fromPadded, false);
    for (int op : {0, 2}) {
        run(op, key, plain.getData(), 17, fromShort, false);
        EXPECT_EQ(fromShort, fromPadded);
        run(op, key, nullptr, 0, empty, false);
        EXPECT_EQ(empty.getUsed(), 0u);
    }
}

// The bulk pair keeps its context between calls; switching key and direction must not leak.
TEST_F(CCipher_AES256CBCTest, PairsAgreeOnGrainsAcrossKeysAndDirections) {
    const harltest::Bytes grain = harltest::makeRandomData(65536, 11);
    Key otherKey = key;
    otherKey[31] ^= 1;
    Buffer once, bulk, back;
    for (Key* k : {&key, &otherKey, &key}) {
        for (int length : {65536, 65524, 1}) {
            run(0, *k, grain.data(), length, once, false);
            run(2, *k, grain.data(), length, bulk, false);
            EXPECT_EQ(once, bulk);
            run(3, *k, bulk.getData(), int(bulk.getUsed()), back, false);
            EXPECT_EQ(0, std::memcmp(back.getData(), grain.data(), size_t(length)));
        }
    }
    run(2, otherKey, grain.data(), 64, bulk, false);
    run(0, key, grain.data(), 64, once, false);
    EXPECT_NE(once, bulk);
}

TEST_F(CCipher_AES256CBCTest, RefusesBadArgumentsAndLeavesTheDestination) {
    Buffer out(7);
    for (int op = 0; op < 4; ++op) {
        EXPECT_THROW(run(op, Key(31), plain.getData(), 64, out, true), kz::CInvalidArgError);
        EXPECT_THROW(run(op, key, plain.getData(), -16, out, true), kz::CInvalidArgError);
        EXPECT_THROW(run(op, key, out.getData(), 4, out, true), kz::CInvalidArgError);
    }
    EXPECT_THROW(run(1, key, expected.getData(), 15, out, true), kz::CInvalidArgError);
    EXPECT_THROW(run(3, key, expected.getData(), 33, out, true), kz::CInvalidArgError);
    EXPECT_THROW(cipher->encryptData(key, plain.getData(), 16, out, true, nullptr),
                 kz::CInvalidArgError);
    EXPECT_EQ(out.getUsed(), 7u);
}

}  // namespace
