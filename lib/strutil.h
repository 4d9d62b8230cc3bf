// Byte-string helpers: trimming, splitting, URL and hex encoding, escaping.
//
// Functions documented as working "as text" stop at the first zero byte;
// the others use every byte of the string. Character classes are the POSIX
// locale's, with bytes taken as unsigned values.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace hvlib {

using StringList = std::vector<std::string>;

// Leading and trailing white space removed; as text.
std::string strip(const std::string& s);

// Buffer forms. url_decode needs strlen(in) + 1 bytes of output space;
// url_encode needs 3 * strlen(in) + 1. A null safe set means the default one.
void url_decode(const char* in, char* out);
void url_encode(const char* in, char* out, const char* safe);

// String forms, as text: "%XX" with two hex digits decodes (a decoded zero
// byte ends the result); every byte outside letters, digits and "_.-~/" is
// encoded as "%" and two upper-case hex digits.
std::string url_decode(const std::string& s);
std::string url_encode(const std::string& s);

// Two lower-case hex digits per byte, by length.
std::string hex_encode(const std::string& s);

bool startswith(const char* text, const char* prefix);
bool endswith(const char* text, const char* suffix);

// Splits at every occurrence of sep: n separators give n + 1 fields, empty
// ones included. limit is accepted for compatibility and has no effect.
StringList split(const std::string& s, const std::string& sep, int32_t limit);

// The relay server's address as HVN_RELAY_SERVER gives it: "host" or
// "host:port", blanks around it ignored. Gives host and port text ("2223"
// when no port is named); a value with more than one ':' gives all the
// pieces of its split, so that the caller sees more than two.
StringList split_relay_server(const std::string& value);

// A printable rendering of every byte: \\ \t \n \r, and \xNN for the rest.
std::string backslash_escape(const std::string& s);

}  // namespace hvlib
