// backslash_escape: every byte of the input (zero bytes included) becomes
// printable output (0x20..0x7E only), the rendering is unambiguous (it reads
// back to the input), and printable bytes other than the backslash are shown
// as themselves.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "strutil.h"

namespace {

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;  // the escaper writes lower-case digits only
}

// Reads an escaped rendering back; false for anything the escaper never writes.
bool unescape(const std::string& s, std::string& out) {
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '\\') {
            out += s[i];
            continue;
        }
        if (++i == s.size()) return false;
        switch (s[i]) {
            case '\\':
                out += '\\';
                break;
            case 't':
                out += '\t';
                break;
            case 'n':
                out += '\n';
                break;
            case 'r':
                out += '\r';
                break;
            case 'x': {
                if (i + 2 >= s.size()) return false;
                int hi = hex_digit(s[i + 1]);
                int lo = hex_digit(s[i + 2]);
                if (hi < 0 || lo < 0) return false;
                out += static_cast<char>(hi * 16 + lo);
                i += 2;
                break;
            }
            default:
                return false;
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::string escaped = hvlib::backslash_escape(input);

    size_t printable = 0;
    for (unsigned char c : input) printable += (c >= 0x20 && c <= 0x7e && c != '\\') ? 1 : 0;
    for (unsigned char c : escaped) FUZZ_CHECK(c >= 0x20 && c <= 0x7e, input);
    FUZZ_CHECK(escaped.size() >= input.size() && escaped.size() <= 4 * input.size(), input);

    std::string back;
    FUZZ_CHECK(unescape(escaped, back), input);
    FUZZ_CHECK(back == input, input);
    // Printable bytes are kept as one character each, so an all-printable
    // input without backslashes comes out unchanged.
    if (printable == input.size()) FUZZ_CHECK(escaped == input, input);
    return 0;
}
