#include <gtest/gtest.h>

#include "keyvalues.h"

using hvlib::KeyValues;

TEST(KeyValues, ParsesTokensSeparatedByRunsOfSpaces) {
    KeyValues kv("  a=1   b=2  ");
    EXPECT_EQ(kv["a"], "1");
    EXPECT_EQ(kv["b"], "2");
    KeyValues login("msg=LOGIN_S ep_display_name=x web_ux_url=y");
    EXPECT_EQ(login["msg"], "LOGIN_S");
    EXPECT_EQ(login["web_ux_url"], "y");
}

TEST(KeyValues, SplitsEachTokenAtItsFirstEqualsSign) {
    KeyValues kv("a==b =v k= flag a2=1 a2=2");
    EXPECT_EQ(kv["a"], "=b");
    EXPECT_EQ(kv[""], "v");
    EXPECT_TRUE(kv.has_key("k"));
    EXPECT_EQ(kv["k"], "");
    EXPECT_FALSE(kv.has_key("flag"));
    EXPECT_EQ(kv["a2"], "2");  // last wins
}

TEST(KeyValues, OnlySpaceSeparatesAndValuesStayEncoded) {
    KeyValues kv("a=1\tb=2 c=abc%20def");
    EXPECT_EQ(kv["a"], "1\tb=2");
    EXPECT_FALSE(kv.has_key("b"));
    EXPECT_EQ(kv["c"], "abc%20def");
    KeyValues cut(std::string("a=1\0 b=2", 8));
    EXPECT_FALSE(cut.has_key("b"));
}

TEST(KeyValues, GetFallsBackOnlyForAbsentKeys) {
    KeyValues kv("e=");
    EXPECT_EQ(kv.get("x", "d"), "d");
    EXPECT_EQ(kv.get("e", "d"), "");
    EXPECT_FALSE(KeyValues("").has_key(""));
    EXPECT_FALSE(KeyValues("    ").has_key(""));
}

TEST(KeyValuesDeathTest, MissingKeyIsFatal) {
    KeyValues kv("a=x\nmsg=Y");
    EXPECT_EQ(kv["a"], "x\nmsg=Y");
    EXPECT_EXIT(kv["msg"], testing::ExitedWithCode(1), "^Fatal Error: Key 'msg' not found\n$");
}
