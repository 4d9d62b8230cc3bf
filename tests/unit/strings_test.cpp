// The foundation's edge cases that the built-in self-check (run by the tool's
// own tests) leaves out: zero bytes, malformed escapes, every byte value,
// record syntax, and the exact words of the reports.
#include <gtest/gtest.h>

#include "diag.h"
#include "keyvalues.h"
#include "strutil.h"

using namespace hvlib;
using namespace std::string_literals;

TEST(Strings, EdgeCases) {
    const std::string zero = "a\0b"s;
    const std::pair<std::string, std::string> cases[] = {
        {strip(zero), "a"},  // as text
        {strip("\v\f\t\r\n x \r\n"), "x"},
        {strip("\xa0x\xa0"), "\xa0x\xa0"},  // not white space
        {url_decode("a+b 100% %4g %zz%4"), "a+b 100% %4g %zz%4"},
        {url_decode("%41%62%e2%82%AC"), "Ab\xe2\x82\xac"},
        {url_decode("a%00b"), "a"},  // a decoded zero byte ends the text
        {url_encode("a+b=c%d\ne"), "a%2Bb%3Dc%25d%0Ae"},
        {url_encode(zero), "a"},
        {hex_encode("\0\x10\xff"s), "0010ff"},
        {backslash_escape("\0\"\x80"s), "\\x00\"\\x80"},
    };
    for (const auto& [got, want] : cases) EXPECT_EQ(got, want);
    std::string all;
    for (int c = 1; c < 256; ++c) all += static_cast<char>(c);
    EXPECT_EQ(url_decode(url_encode(all)), all);
    for (unsigned char c : backslash_escape(all)) EXPECT_TRUE(c >= 0x20 && c <= 0x7e) << int(c);
    char out[3 * 5 + 1];
    url_encode("a b/c", out, "ab");  // the buffer form takes its own safe set
    EXPECT_STREQ(out, "a%20b%2F%63");
    EXPECT_FALSE(startswith("ab", "abc"));
    EXPECT_FALSE(endswith("bc", "abc"));
    EXPECT_FALSE(endswith(".\n", "\n.\n"));
}

TEST(Strings, SplitKeepsEveryFieldAndIgnoresTheLimit) {
    const std::pair<StringList, StringList> cases[] = {
        {split("", ":", -1), {""}},
        {split("a::b", "::", -1), {"a", "b"}},
        {split("a:::b", "::", -1), {"a", ":b"}},
        {split(":a:", ":", -1), {"", "a", ""}},
        {split("a:b:c", ":", 1), {"a", "b", "c"}},
        {split_relay_server(" \thost\n"), {"host", "2223"}},
        {split_relay_server("host:"), {"host", ""}},
        {split_relay_server("fe80::1"), {"fe80", "", "1"}},
    };
    for (const auto& [got, want] : cases) EXPECT_EQ(got, want);
}

TEST(KeyValues, Syntax) {
    KeyValues kv("  a==b   =v k= flag r=1 r=2 t=1\tu=2 e=abc%20def\nmsg=Y z\0 c=3"s);
    const std::pair<std::string, std::string> present[] = {
        {"a", "=b"}, {"", "v"}, {"k", ""}, {"r", "2"}, {"t", "1\tu=2"}, {"e", "abc%20def\nmsg=Y"}};
    for (const auto& [key, value] : present) EXPECT_EQ(kv.get(key, "absent"), value) << key;
    for (const char* key : {"flag", "u", "msg", "z", "c"}) EXPECT_FALSE(kv.has_key(key)) << key;
    EXPECT_EQ(kv["r"], "2");
    EXPECT_FALSE(KeyValues("    ").has_key(""));
}

TEST(DiagDeathTest, ReportsCarryTheirExactWords) {
    EXPECT_EQ(str_sprintf("<%s>", std::string(100000, 'x').c_str()).size(), 100002u);
    EXPECT_EXIT(KeyValues("a=x\nmsg=Y")["msg"], testing::ExitedWithCode(1),
                "^Fatal Error: Key 'msg' not found\n$");
    EXPECT_EXIT(fatal_error("Couldn't write '%s': %s\n", "f", "e"), testing::ExitedWithCode(1),
                "^Fatal Error: Couldn't write 'f': e\n\n$");
    EXPECT_EXIT(precondition_failed("port >= -1", "src/relaytool", 69),
                testing::KilledBySignal(SIGABRT),
                "^src/relaytool:69: failed precondition 'port >= -1'\n$");
}
