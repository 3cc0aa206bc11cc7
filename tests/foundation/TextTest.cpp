#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/Text.h"

#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

namespace {

TEST(TextTest, ParsesDecimalNumbersStrictly) {
    EXPECT_EQ(kz::parseInt64("0", false), 0);
    EXPECT_EQ(kz::parseInt64("-42", false), -42);
    EXPECT_EQ(kz::parseInt64("+7", false), 7);
    EXPECT_EQ(kz::parseInt64("9223372036854775807", false), INT64_MAX);
    EXPECT_EQ(kz::parseInt64("-9223372036854775808", false), INT64_MIN);
    EXPECT_EQ(kz::parseInt64(" 12 ", true), 12);
    for (const char* bad : {"", "-", "1a", " 12", "12 ", "9223372036854775808",
                            "-9223372036854775809", "0x10", "1.5"}) {
        EXPECT_THROW(kz::parseInt64(bad, false), kz::CError) << bad;
    }
    EXPECT_EQ(harltest::thrownText<kz::CError>([] { kz::parseInt64("abc", false); }),
              "-1 Invalid decimal number text [text=abc]");
}

TEST(TextTest, ParsesHexadecimalAsUnsignedBits) {
    EXPECT_EQ(kz::parseHexInt64("ffffffff", false), 4294967295LL);
    EXPECT_EQ(kz::parseHexInt64("FfFe", false), 0xfffe);
    EXPECT_EQ(kz::parseHexInt64("ffffffffffffffff", false), -1);
    EXPECT_EQ(kz::parseHexInt64(" 1f\t", true), 0x1f);
    for (const char* bad : {"", "g", "0x1f", "-1", "12345678901234567", " 1f"}) {
        EXPECT_THROW(kz::parseHexInt64(bad, false), kz::CError) << bad;
    }
}

TEST(TextTest, ParsesBooleans) {
    EXPECT_TRUE(kz::parseBool("true"));
    EXPECT_TRUE(kz::parseBool("TRUE"));
    EXPECT_TRUE(kz::parseBool("1"));
    EXPECT_FALSE(kz::parseBool("False"));
    EXPECT_FALSE(kz::parseBool("0"));
    EXPECT_THROW(kz::parseBool("yes"), kz::CError);
    EXPECT_THROW(kz::parseBool(""), kz::CError);
}

TEST(TextTest, HexEncodesAndDecodesBytes) {
    const unsigned char bytes[] = {0x00, 0x7f, 0xab, 0xff};
    EXPECT_EQ(kz::hexEncode(bytes, 4, false), "007fabff");
    EXPECT_EQ(kz::hexEncode(bytes, 4, true), "007FABFF");
    const kz::TBuffer<unsigned char> decoded = kz::hexDecode("007FabfF");
    ASSERT_EQ(decoded.getUsed(), 4u);
    EXPECT_EQ(kz::hexEncode(decoded, false), "007fabff");
    EXPECT_EQ(kz::hexDecode("").getUsed(), 0u);
    EXPECT_THROW(kz::hexDecode("abc"), kz::CError);
    EXPECT_THROW(kz::hexDecode("zz"), kz::CError);
    EXPECT_THROW(kz::hexDecode("0z"), kz::CError);
}

}  // namespace
