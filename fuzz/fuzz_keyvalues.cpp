// The record parser (hvlib::KeyValues) against a plain model of the record
// syntax: the text up to its first zero byte, tokens separated by runs of
// spaces, each token split at its first '=', tokens without '=' dropped, the
// last occurrence of a key winning.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "fuzz_support.h"
#include "keyvalues.h"

namespace {

std::map<std::string, std::string> model_of(const std::string& input) {
    const std::string text = input.c_str();
    std::map<std::string, std::string> model;
    size_t i = 0;
    while (i < text.size()) {
        if (text[i] == ' ') {
            ++i;
            continue;
        }
        size_t end = text.find(' ', i);
        if (end == std::string::npos) end = text.size();
        const std::string token = text.substr(i, end - i);
        const size_t eq = token.find('=');
        if (eq != std::string::npos) model[token.substr(0, eq)] = token.substr(eq + 1);
        i = end;
    }
    return model;
}

// A key that is surely absent: one that contains a space.
const std::string kAbsent = "no such key";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const hvlib::KeyValues record(input);
    const std::map<std::string, std::string> model = model_of(input);

    for (const auto& [key, value] : model) {
        FUZZ_CHECK(record.has_key(key), input);
        FUZZ_CHECK(record[key] == value, input);
        FUZZ_CHECK(record.get(key, "\x01 fallback") == value, input);
        // Neighbours of a present key are present only if the line has them.
        for (const std::string& other : {key + "=", key + "x", key.substr(0, key.size() / 2)}) {
            FUZZ_CHECK(record.has_key(other) == (model.count(other) == 1), input);
        }
    }
    for (const char* probe : {"msg", "", "string", "message", "id"}) {
        if (model.count(probe) == 0) {
            FUZZ_CHECK(!record.has_key(probe), input);
            FUZZ_CHECK(record.get(probe, "fallback") == "fallback", input);
        }
    }

    // Reading an absent key is the fatal error: exit status 1, no abort.
    FUZZ_CHECK(!record.has_key(kAbsent), input);
    try {
        (void)record[kAbsent];
        fuzz_fail("operator[] of an absent key returned", input);
    } catch (const FuzzEnd& end) {
        FUZZ_CHECK(end.kind == FuzzEnd::Exit && end.status == 1, input);
    }

    // A copy is an independent, equal record.
    const hvlib::KeyValues copy = record;
    for (const auto& entry : model) FUZZ_CHECK(copy.get(entry.first, "") == entry.second, input);
    return 0;
}
