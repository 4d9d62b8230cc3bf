// Edge cases of the string functions beyond the built-in self-check.
#include <gtest/gtest.h>

#include "strutil.h"

using namespace hvlib;

TEST(Strip, StopsAtZeroByteAndKnowsOnlyAsciiWhiteSpace) {
    EXPECT_EQ(strip(std::string("a\0b", 3)), "a");
    EXPECT_EQ(strip("\v\fx\v\f"), "x");
    EXPECT_EQ(strip("\xa0x\xa0"), "\xa0x\xa0");
    EXPECT_EQ(strip("\r\n id \r\n"), "id");
}

TEST(Split, KeepsEveryEmptyFieldAndTakesLongSeparators) {
    EXPECT_EQ(split("", ":", -1), StringList({""}));
    EXPECT_EQ(split("a::b", "::", -1), StringList({"a", "b"}));
    EXPECT_EQ(split(":a:", ":", -1), StringList({"", "a", ""}));
    EXPECT_EQ(split("a:b:c", ":", 1), StringList({"a", "b", "c"}));  // limit has no effect
    EXPECT_EQ(split("host:", ":", -1), StringList({"host", ""}));
    EXPECT_EQ(split("a:::b", "::", -1), StringList({"a", ":b"}));
}

TEST(UrlDecode, PassesMalformedEscapesAndPlusThrough) {
    EXPECT_EQ(url_decode("a+b"), "a+b");
    EXPECT_EQ(url_decode("100%"), "100%");
    EXPECT_EQ(url_decode("%4g"), "%4g");
    EXPECT_EQ(url_decode("%zz%"), "%zz%");
    EXPECT_EQ(url_decode("%4"), "%4");
    EXPECT_EQ(url_decode("%41%62"), "Ab");
    EXPECT_EQ(url_decode("%e2%82%AC"), "\xe2\x82\xac");
    EXPECT_EQ(url_decode("a%00b"), "a");  // a decoded zero byte ends the text
}

TEST(UrlEncode, EncodesEverythingOutsideTheSafeSet) {
    EXPECT_EQ(url_encode("a+b=c%d\ne"), "a%2Bb%3Dc%25d%0Ae");
    EXPECT_EQ(url_encode("AZaz09_.-~/"), "AZaz09_.-~/");
    EXPECT_EQ(url_encode(std::string("a\0b", 3)), "a");  // as text
    std::string all;
    for (int c = 1; c < 256; ++c) all += static_cast<char>(c);
    EXPECT_EQ(url_decode(url_encode(all)), all);
}

TEST(UrlEncode, BufferFormTakesACustomSafeSet) {
    char out[3 * 5 + 1];
    url_encode("a b/c", out, "ab");
    EXPECT_STREQ(out, "a%20b%2F%63");
    char decoded[6];
    url_decode("a%20b", decoded);
    EXPECT_STREQ(decoded, "a b");
}

TEST(HexEncode, UsesEveryByteIncludingZero) {
    EXPECT_EQ(hex_encode(""), "");
    EXPECT_EQ(hex_encode(std::string("\x00\x10\xff", 3)), "0010ff");
}

TEST(StartsEndsWith, ShortTextsNeverMatch) {
    EXPECT_FALSE(startswith("ab", "abc"));
    EXPECT_FALSE(endswith("bc", "abc"));
    EXPECT_TRUE(endswith("msg\n.\n", "\n.\n"));
    EXPECT_FALSE(endswith(".\n", "\n.\n"));
}

TEST(BackslashEscape, OutputIsPrintableForEveryByte) {
    for (int c = 0; c < 256; ++c) {
        std::string out = backslash_escape(std::string(1, static_cast<char>(c)));
        for (unsigned char o : out) EXPECT_TRUE(o >= 0x20 && o <= 0x7e) << c;
    }
    EXPECT_EQ(backslash_escape(std::string("\0\"", 2)), "\\x00\"");
}
