#include "strutil.h"

#include <cstdio>
#include <cstring>

#include "diag.h"

namespace hvlib {

namespace {

const char kDefaultSafe[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.-~/";

// White space of the POSIX locale: HT, LF, VT, FF, CR and space.
bool is_space(unsigned char c) { return c == ' ' || (c >= 0x09 && c <= 0x0d); }

int hex_value(unsigned char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::string strip(const std::string& s) {
    const char* p = s.c_str();
    while (*p != '\0' && is_space(static_cast<unsigned char>(*p))) ++p;
    const char* end = p;
    for (const char* q = p; *q != '\0'; ++q) {
        if (!is_space(static_cast<unsigned char>(*q))) end = q + 1;
    }
    return std::string(p, static_cast<size_t>(end - p));
}

void url_decode(const char* in, char* out) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(in);
    while (*p != '\0') {
        if (*p == '%') {
            // Neither digit test reads past the terminating zero: a zero
            // byte is not a hex digit, so the second is read only after the
            // first was a digit.
            int hi = hex_value(p[1]);
            int lo = hi < 0 ? -1 : hex_value(p[2]);
            if (hi >= 0 && lo >= 0) {
                *out++ = static_cast<char>(hi * 16 + lo);
                p += 3;
                continue;
            }
        }
        *out++ = static_cast<char>(*p++);
    }
    *out = '\0';
}

void url_encode(const char* in, char* out, const char* safe) {
    if (safe == nullptr) safe = kDefaultSafe;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(in); *p != '\0'; ++p) {
        if (strchr(safe, *p) != nullptr) {
            *out++ = static_cast<char>(*p);
        } else {
            snprintf(out, 4, "%%%.2X", *p);
            out += 3;
        }
    }
    *out = '\0';
}

std::string url_decode(const std::string& s) {
    std::vector<char> buffer(s.size() + 1, '\0');
    url_decode(s.c_str(), buffer.data());
    return std::string(buffer.data());
}

std::string url_encode(const std::string& s) {
    std::vector<char> buffer(3 * s.size() + 1, '\0');
    url_encode(s.c_str(), buffer.data(), nullptr);
    return std::string(buffer.data());
}

std::string hex_encode(const std::string& s) {
    static const char digits[] = "0123456789abcdef";
    std::string result;
    result.reserve(2 * s.size());
    for (unsigned char c : s) {
        result += digits[c >> 4];
        result += digits[c & 0x0f];
    }
    return result;
}

bool startswith(const char* text, const char* prefix) {
    size_t n = strlen(prefix);
    return n == 0 || strncmp(text, prefix, n) == 0;
}

bool endswith(const char* text, const char* suffix) {
    size_t n = strlen(suffix);
    size_t len = strlen(text);
    if (n == 0) return true;
    if (len < n) return false;
    return memcmp(text + len - n, suffix, n) == 0;
}

StringList split(const std::string& s, const std::string& sep, int32_t limit) {
    (void)limit;
    HV_PRECONDITION(!sep.empty(), "lib/strutil", __LINE__);
    StringList fields;
    const std::string text = s.substr(0, s.find('\0'));  // the string is taken as text
    size_t pos = 0;
    for (;;) {
        size_t hit = text.find(sep, pos);
        if (hit == std::string::npos) break;
        fields.push_back(text.substr(pos, hit - pos));
        pos = hit + sep.size();
    }
    fields.push_back(text.substr(pos));
    return fields;
}

StringList split_relay_server(const std::string& value) {
    std::string server = strip(value);
    if (server.find(':') == std::string::npos) return {server, "2223"};
    return split(server, ":", -1);
}

std::string backslash_escape(const std::string& s) {
    std::string result;
    for (unsigned char c : s) {
        if (c == '\\') {
            result += "\\\\";
        } else if (c >= 0x20 && c <= 0x7e) {
            result += static_cast<char>(c);
        } else if (c == '\t') {
            result += "\\t";
        } else if (c == '\n') {
            result += "\\n";
        } else if (c == '\r') {
            result += "\\r";
        } else {
            char buf[5];
            snprintf(buf, sizeof buf, "\\x%02x", c);
            result += buf;
        }
    }
    return result;
}

}  // namespace hvlib
