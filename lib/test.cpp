// The built-in self-check. Every check's text is what a failure report
// quotes, so each condition is written exactly as it is to be reported.
#include "test.h"

#include <cstdio>
#include <string>

#include "diag.h"
#include "strutil.h"

#define CHECK(cond) HV_PRECONDITION(cond, "lib/test", __LINE__)

namespace hvlib {

namespace {

const unsigned char kEncodeBytes[17] = {0x61, 0x20, 0x62, 0x20, 0x63, 0x20, 0x01, 0x11, 0x7F,
                                        0xFF, 0xF0, 0x20, 0x2E, 0x5F, 0x2D, 0x2F, 0x7E};
const unsigned char kHexBytes[7] = {0x61, 0x62, 0x63, 0x01, 0x7F, 0xFF, 0xF0};
const unsigned char kEscapeBytes[12] = {0x61, 0x62, 0x63, 0x0D, 0x0A, 0x09,
                                        0x5C, 0x20, 0x01, 0x7F, 0xFF, 0xF0};

template <size_t N>
std::string bytes(const unsigned char (&b)[N]) {
    return std::string(reinterpret_cast<const char*>(b), N);
}

void test_string_sprintf() {
    std::string s = str_sprintf("hello");
    CHECK(s == "hello");
    s = str_sprintf("");
    CHECK(s == "");
    s = str_sprintf("%d %d %s", 123, -1, "hi");
    CHECK(s == "123 -1 hi");
}

void test_string_startswith() {
    CHECK(startswith("abc def", ""));
    CHECK(startswith("abc def", "a"));
    CHECK(startswith("abc def", "abc "));
    CHECK(startswith("abc def", "abc def"));
    CHECK(!startswith("abc def", "b"));
    CHECK(!startswith("abc def", "abc def g"));
    CHECK(startswith("", ""));
    CHECK(!startswith("", "a"));
}

void test_string_endswith() {
    CHECK(endswith("abc def", ""));
    CHECK(endswith("abc def", "f"));
    CHECK(endswith("abc def", " def"));
    CHECK(endswith("abc def", "abc def"));
    CHECK(!endswith("abc def", "b"));
    CHECK(!endswith("abc def", "x abc def"));
    CHECK(endswith("", ""));
    CHECK(!endswith("", "a"));
}

void test_string_strip() {
    CHECK(strip("") == "");
    CHECK(strip(" ") == "");
    CHECK(strip("   \n") == "");
    CHECK(strip(" \n\n") == "");
    CHECK(strip("1") == "1");
    CHECK(strip(" 1") == "1");
    CHECK(strip("1 ") == "1");
    CHECK(strip("123") == "123");
    CHECK(strip("  123  ") == "123");
    CHECK(strip(" \n1 2\n 3 4 \n") == "1 2\n 3 4");
}

void test_string_split() {
    StringList v = split("abc d efg", " ", -1);
    CHECK(v.size() == 3);
    CHECK(v[0] == "abc");
    CHECK(v[1] == "d");
    CHECK(v[2] == "efg");
    v = split("abc d efg", "x", -1);
    CHECK(v.size() == 1);
    CHECK(v[0] == "abc d efg");
    v = split("abc d efg ", " ", -1);
    CHECK(v.size() == 4);
    CHECK(v[0] == "abc");
    CHECK(v[1] == "d");
    CHECK(v[2] == "efg");
    CHECK(v[3] == "");
    v = split("xx", "x", -1);
    CHECK(v.size() == 3);
    CHECK(v[0] == "");
    CHECK(v[1] == "");
    CHECK(v[2] == "");
}

void test_string_urlencode() {
    CHECK(url_encode("") == "");
    CHECK(url_encode("abc def") == "abc%20def");
    std::string s = url_encode(bytes(kEncodeBytes));
    CHECK(s == "a%20b%20c%20%01%11%7F%FF%F0%20._-/~");
}

void test_string_urldecode() {
    std::string s = "a%20b%20c%20%01%11%7F%FF%F0%20._-/~";
    std::string s2 = bytes(kEncodeBytes);
    CHECK(url_decode(s) == s2);
}

void test_string_hexencode() {
    std::string s = hex_encode(bytes(kHexBytes));
    CHECK(s == "616263017ffff0");
    printf("%s\n", s.c_str());
}

void test_string_backslash_escape() {
    std::string s = backslash_escape(bytes(kEscapeBytes));
    CHECK(s == "abc\\r\\n\\t\\\\ \\x01\\x7f\\xff\\xf0");
    printf("%s\n", s.c_str());
}

void run_group(const char* name, void (*group)()) {
    fprintf(stderr, "[%s] Start...\n", name);
    group();
    fprintf(stderr, "[%s] OK\n", name);
}

}  // namespace

void run_unit_tests() {
    run_group("test_string_sprintf", test_string_sprintf);
    run_group("test_string_startswith", test_string_startswith);
    run_group("test_string_endswith", test_string_endswith);
    run_group("test_string_strip", test_string_strip);
    run_group("test_string_split", test_string_split);
    run_group("test_string_urlencode", test_string_urlencode);
    run_group("test_string_urldecode", test_string_urldecode);
    run_group("test_string_hexencode", test_string_hexencode);
    run_group("test_string_backslash_escape", test_string_backslash_escape);
}

}  // namespace hvlib
