#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/Text.h"
#include "harl/foundation/vesk/CDigestType_SHA256.h"

#include <gtest/gtest.h>

#include <string>

namespace {

const char* const kEmptyHex = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

kz::P<vesk::IDigest> newDigest() {
    kz::P<vesk::IDigest> digest;
    kz::makeP<vesk::CDigestType_SHA256>()->createDigest(digest);
    return digest;
}

kz::String resultHex(const vesk::IDigest& digest) {
    return kz::hexEncode(digest.getData(), size_t(digest.getSize()), false);
}

// The vectors of FIPS 180-2, fed in pieces of 1, 2, 3, ... bytes to one re-used digest.
TEST(CDigestType_SHA256Test, MatchesThePublishedVectors) {
    const std::pair<std::string, const char*> vectors[] = {
        {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"", kEmptyHex},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
    };
    EXPECT_EQ(kz::makeP<vesk::CDigestType_SHA256>()->getID(), "sha256");
    kz::P<vesk::IDigest> digest = newDigest();
    for (const auto& [message, hex] : vectors) {
        digest->reset();
        for (size_t at = 0, piece = 1; at < message.size(); at += piece++) {
            digest->update(message.data() + at, int(std::min(piece, message.size() - at)));
        }
        digest->finish();
        EXPECT_EQ(resultHex(*digest), hex) << message;
    }
}

TEST(CDigestType_SHA256Test, RefusesCallsOutOfOrder) {
    kz::P<vesk::IDigest> digest = newDigest();
    EXPECT_THROW(digest->getData(), kz::CError);
    EXPECT_THROW(digest->update(nullptr, 1), kz::CInvalidArgError);
    EXPECT_THROW(digest->update("x", -1), kz::CInvalidArgError);
    digest->update(nullptr, 0);  // nothing, from nowhere
    digest->finish();
    EXPECT_TRUE(digest->isFinished());
    EXPECT_THROW(digest->update("x", 1), kz::CError);
    EXPECT_THROW(digest->finish(), kz::CError);
    EXPECT_EQ(resultHex(*digest), kEmptyHex);
}

}  // namespace
