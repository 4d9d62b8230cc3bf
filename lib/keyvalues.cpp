#include "keyvalues.h"

#include "diag.h"

namespace hvlib {

KeyValues::KeyValues(const std::string& text) { _parse_line(text); }

void KeyValues::_parse_line(const std::string& line) {
    const char* p = line.c_str();
    for (;;) {
        while (*p == ' ') ++p;
        if (*p == '\0') return;
        const char* start = p;
        while (*p != ' ' && *p != '\0') ++p;
        _parse_kv(std::string(start, static_cast<size_t>(p - start)));
    }
}

void KeyValues::_parse_kv(const std::string& token) {
    size_t eq = token.find('=');
    if (eq == std::string::npos) return;
    m_values[token.substr(0, eq)] = token.substr(eq + 1);
}

std::string KeyValues::operator[](const std::string& key) const {
    auto it = m_values.find(key);
    if (it != m_values.end()) return it->second;
    fatal_error("Key '%s' not found", key.c_str());
}

bool KeyValues::has_key(const std::string& key) const { return m_values.count(key) != 0; }

std::string KeyValues::get(const std::string& key, const std::string& fallback) const {
    auto it = m_values.find(key);
    return it == m_values.end() ? fallback : it->second;
}

}  // namespace hvlib
