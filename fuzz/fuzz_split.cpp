// split: the text (up to its first zero byte) with n non-overlapping
// occurrences of the separator, counted from the left, gives n + 1 fields;
// no field holds the separator; joining the fields with the separator gives
// the text back; and limit has no effect.
//
// Input: byte 0 chooses the separator's length (1 to 4 bytes) and the limit,
// the separator follows, the rest is the string to split.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "strutil.h"

namespace {

size_t count_occurrences(const std::string& text, const std::string& sep) {
    size_t n = 0;
    size_t i = 0;
    while (i + sep.size() <= text.size()) {
        if (memcmp(text.data() + i, sep.data(), sep.size()) == 0) {
            ++n;
            i += sep.size();
        } else {
            ++i;
        }
    }
    return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const size_t sep_len = 1 + data[0] % 4;
    if (size < 1 + sep_len) return 0;
    const std::string sep(reinterpret_cast<const char*>(data) + 1, sep_len);
    const std::string s(reinterpret_cast<const char*>(data) + 1 + sep_len, size - 1 - sep_len);
    const std::string text = s.c_str();
    const int32_t limit = static_cast<int32_t>(data[0] >> 2) - 32;
    const std::string detail = sep + "|" + s;

    const hvlib::StringList fields = hvlib::split(s, sep, limit);
    FUZZ_CHECK(fields.size() == count_occurrences(text, sep) + 1, detail);
    std::string joined;
    for (size_t i = 0; i < fields.size(); ++i) {
        FUZZ_CHECK(fields[i].find(sep) == std::string::npos, detail);
        if (i > 0) joined += sep;
        joined += fields[i];
    }
    FUZZ_CHECK(joined == text, detail);
    FUZZ_CHECK(hvlib::split(s, sep, -1) == fields, detail);
    return 0;
}
