// One record of the relay protocol: space-separated key=value tokens.
#pragma once

#include <map>
#include <string>

namespace hvlib {

class KeyValues {
public:
    // Parses the text up to its first zero byte. Tokens are separated by runs
    // of spaces (0x20 only); a token splits at its first '='; tokens without
    // '=' are dropped; a repeated key keeps its last value. Values are kept
    // exactly as they stand (never URL-decoded).
    explicit KeyValues(const std::string& text);

    // The value of a key; a missing key is a fatal error.
    std::string operator[](const std::string& key) const;
    bool has_key(const std::string& key) const;
    std::string get(const std::string& key, const std::string& fallback) const;

private:
    void _parse_line(const std::string& line);
    void _parse_kv(const std::string& token);

    std::map<std::string, std::string> m_values;
};

}  // namespace hvlib
