#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/String.h"

#include <gtest/gtest.h>

namespace {

TEST(StringTest, DecodesUTF8AndLatin1) {
    const char utf8[] = "gr\xc3\xbc\xc3\x9f";
    const kz::String text = kz::String::fromUTF8(utf8, sizeof(utf8) - 1);
    EXPECT_EQ(text.getLength(), 4u);
    EXPECT_EQ(text.at(2), 0xfc);
    EXPECT_EQ(text.toUTF8(), utf8);

    const unsigned char latin1[] = {'g', 'r', 0xfc, 0xdf};
    EXPECT_EQ(kz::String::fromLatin1(latin1, 4), text);

    // Bytes that are no UTF-8, and sequences of no Unicode character (above U+10FFFF: found by
    // fuzzing file references; a surrogate).
    for (const std::string invalid : {"a\xff"
                                      "b",
                                      "\\\xf4\x9f\x8a\xa5", "\xed\xa0\x80"}) {
        EXPECT_THROW(kz::String::fromUTF8(invalid.data(), invalid.size()), kz::CError) << invalid;
    }
    // Construction from a C string never throws: bad bytes read as Latin-1.
    EXPECT_EQ(kz::String("a\xff").getLength(), 2u);
}

TEST(StringTest, SplitsKeepingEmptyPieces) {
    using Pieces = std::vector<kz::String>;
    EXPECT_EQ(kz::String("a\nb").split('\n'), (Pieces{"a", "b"}));
    EXPECT_EQ(kz::String("a\n").split('\n'), (Pieces{"a", ""}));
    EXPECT_EQ(kz::String("a\n\n").split('\n'), (Pieces{"a", "", ""}));
    EXPECT_EQ(kz::String("\n").split('\n'), (Pieces{"", ""}));
    EXPECT_TRUE(kz::String("").split('\n').empty());
}

TEST(StringTest, EditsAndNumbers) {
    EXPECT_EQ(kz::String(" \ta b\r\n").trimmed(), "a b");
    EXPECT_EQ(kz::String("  x").trimmedLeft(), "x");
    EXPECT_EQ(kz::String("AbC").toLower(), "abc");
    EXPECT_EQ(kz::String("abc").substring(1), "bc");
    EXPECT_EQ(kz::String("abc").substring(5), "");
    EXPECT_EQ(kz::String("a=b=c").find('='), 1u);
    EXPECT_EQ(kz::String("abc").find('x'), kz::String::npos);
    EXPECT_EQ(kz::String::number(-12), "-12");
    EXPECT_EQ(kz::String::hex(0), "0");
    EXPECT_EQ(kz::String::hex(0x1f2e), "1f2e");
    EXPECT_EQ(kz::String::numberUnsigned(18446744073709551615ULL), "18446744073709551615");
}

}  // namespace
