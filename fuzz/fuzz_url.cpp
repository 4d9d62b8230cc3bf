// URL encoding and decoding, both forms.
//   - decoding what was encoded gives the input back, up to its first zero
//     byte, and the encoding uses only safe characters and "%XX" with two
//     upper-case hex digits;
//   - the buffer forms stay inside the sizes they document (decode: length
//     + 1, encode: 3 * length + 1); the buffers are exact-size heap blocks,
//     so AddressSanitizer catches a byte read or written past them;
//   - a custom safe set is honoured at both extremes (nothing safe,
//     everything safe).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "strutil.h"

namespace {

const char kSafe[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.-~/";

bool is_upper_hex(char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'); }

// The encoding of TEXT into an exact-size buffer with the given safe set.
std::string encode_exact(const std::string& text, const char* safe) {
    std::unique_ptr<char[]> out(new char[3 * text.size() + 1]);
    hvlib::url_encode(text.c_str(), out.get(), safe);
    return out.get();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::string text = input.c_str();  // up to the first zero byte

    // Decoding arbitrary text: the input in an exact-size block (its zero
    // included), the output in length + 1 bytes.
    std::unique_ptr<char[]> in(new char[text.size() + 1]);
    memcpy(in.get(), text.c_str(), text.size() + 1);
    std::unique_ptr<char[]> decoded(new char[text.size() + 1]);
    hvlib::url_decode(in.get(), decoded.get());
    const std::string decoded_text = decoded.get();
    FUZZ_CHECK(hvlib::url_decode(input) == decoded_text, input);
    FUZZ_CHECK(decoded_text.size() <= text.size(), input);
    if (text.find('%') == std::string::npos) FUZZ_CHECK(decoded_text == text, input);

    // Encoding: only safe characters and %XX escapes, and it decodes back.
    const std::string encoded = hvlib::url_encode(input);
    FUZZ_CHECK(encoded == encode_exact(text, nullptr), input);
    for (size_t i = 0; i < encoded.size(); ++i) {
        if (encoded[i] == '%') {
            FUZZ_CHECK(i + 2 < encoded.size() && is_upper_hex(encoded[i + 1]) &&
                           is_upper_hex(encoded[i + 2]),
                       input);
            i += 2;
        } else {
            FUZZ_CHECK(strchr(kSafe, encoded[i]) != nullptr, input);
        }
    }
    FUZZ_CHECK(hvlib::url_decode(encoded) == text, input);
    // Decoded text encodes canonically: encode(decode(encode(x))) == encode(x).
    FUZZ_CHECK(hvlib::url_encode(hvlib::url_decode(encoded)) == encoded, input);
    // Re-encoding what arbitrary text decodes to round-trips as well.
    FUZZ_CHECK(hvlib::url_decode(hvlib::url_encode(decoded_text)) == decoded_text, input);

    // Custom safe sets at both extremes: nothing safe uses every byte of the
    // 3 * length + 1 buffer; everything safe copies the text.
    const std::string all_encoded = encode_exact(text, "");
    FUZZ_CHECK(all_encoded.size() == 3 * text.size(), input);
    FUZZ_CHECK(hvlib::url_decode(all_encoded) == text, input);
    FUZZ_CHECK(text.empty() || encode_exact(text, text.c_str()) == text, input);
    return 0;
}
