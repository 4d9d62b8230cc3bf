#include "envfile.h"

#include <cctype>

namespace endpoint {

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

bool is_key_start(char c) { return std::isalpha(static_cast<unsigned char>(c)) || c == '_'; }

bool is_key_char(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

// A cursor over the text that counts lines for the error messages.
class Reader {
public:
    explicit Reader(const std::string& text) : m_text(text) {}

    bool done() const { return m_pos >= m_text.size(); }
    char peek() const { return m_text[m_pos]; }
    char take() {
        char c = m_text[m_pos++];
        if (c == '\n') ++m_line;
        return c;
    }
    int line() const { return m_line; }
    void skip_blanks() {
        while (!done() && is_blank(peek())) take();
    }
    void skip_line() {
        while (!done() && take() != '\n') {
        }
    }

private:
    const std::string& m_text;
    size_t m_pos = 0;
    int m_line = 1;
};

bool fail(EnvFileError& error, int line, const char* message) {
    error.line = line;
    error.message = message;
    return false;
}

// After a closing quote only blanks may follow on that line.
bool end_of_quoted(Reader& in, EnvFileError& error) {
    in.skip_blanks();
    if (!in.done() && in.peek() != '\n') {
        return fail(error, in.line(), "unexpected text after the closing quote");
    }
    if (!in.done()) in.take();
    return true;
}

bool read_single_quoted(Reader& in, std::string& value, EnvFileError& error) {
    int start = in.line();
    in.take();  // the opening quote
    for (;;) {
        if (in.done()) return fail(error, start, "unterminated single quote");
        char c = in.take();
        if (c == '\'') break;
        value += c;
    }
    return end_of_quoted(in, error);
}

bool read_double_quoted(Reader& in, std::string& value, EnvFileError& error) {
    int start = in.line();
    in.take();  // the opening quote
    for (;;) {
        if (in.done()) return fail(error, start, "unterminated double quote");
        char c = in.take();
        if (c == '"') break;
        if (c == '\\' && !in.done()) {
            char next = in.take();
            if (next == '\n') continue;  // line continuation
            if (next != '"' && next != '\\' && next != '`' && next != '$') value += '\\';
            value += next;
            continue;
        }
        value += c;
    }
    return end_of_quoted(in, error);
}

void read_unquoted(Reader& in, std::string& value) {
    size_t keep = 0;  // length without trailing blanks; escaped ones stay
    while (!in.done()) {
        char c = in.take();
        if (c == '\n') break;
        if (c == '\\' && !in.done()) {
            char next = in.take();
            if (next == '\n') continue;  // line continuation
            value += next;
            keep = value.size();
            continue;
        }
        value += c;
        if (!is_blank(c)) keep = value.size();
    }
    value.resize(keep);
}

}  // namespace

bool parse_env_file(const std::string& text, Assignments& out, EnvFileError& error) {
    Reader in(text);
    Assignments found;
    if (text.find('\0') != std::string::npos) {
        int line = 1;
        for (size_t i = 0; text[i] != '\0'; ++i) line += text[i] == '\n';
        return fail(error, line, "zero byte in the file");
    }
    while (!in.done()) {
        in.skip_blanks();
        if (in.done()) break;
        char first = in.peek();
        if (first == '\n') {
            in.take();
            continue;
        }
        if (first == '#' || first == ';') {
            in.skip_line();
            continue;
        }
        int line = in.line();
        std::string key;
        if (!is_key_start(first)) return fail(error, line, "expected KEY=VALUE");
        while (!in.done() && is_key_char(in.peek())) key += in.take();
        in.skip_blanks();
        if (in.done() || in.peek() != '=') {
            return fail(error, line, "expected KEY=VALUE (keys are letters, digits and '_')");
        }
        in.take();
        in.skip_blanks();
        std::string value;
        if (!in.done() && in.peek() == '\'') {
            if (!read_single_quoted(in, value, error)) return false;
        } else if (!in.done() && in.peek() == '"') {
            if (!read_double_quoted(in, value, error)) return false;
        } else {
            read_unquoted(in, value);
        }
        found.emplace_back(key, value);
    }
    out.insert(out.end(), found.begin(), found.end());
    return true;
}

}  // namespace endpoint
