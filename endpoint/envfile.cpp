#include "envfile.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace endpoint {

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

bool is_key_char(char c, bool first) {
    auto u = static_cast<unsigned char>(c);
    return std::isalpha(u) || c == '_' || (!first && std::isdigit(u));
}

// A cursor over the text that counts lines for the error messages.
struct Parser {
    const std::string& text;
    EnvFileError& error;
    size_t pos = 0;
    int line = 1;

    bool done() const { return pos >= text.size(); }
    char peek() const { return text[pos]; }
    char take() {
        char c = text[pos++];
        line += c == '\n';
        return c;
    }
    void skip_blanks() {
        while (!done() && is_blank(peek())) take();
    }
    bool fail(int at, const char* message) {
        error = {at, message};
        return false;
    }

    // 'verbatim' or "with escapes"; only blanks may follow on that line.
    bool quoted(std::string& value) {
        int start = line;
        char quote = take();
        for (;;) {
            if (done()) {
                return fail(start, quote == '\'' ? "unterminated single quote"
                                                 : "unterminated double quote");
            }
            char c = take();
            if (c == quote) break;
            if (c == '\\' && quote == '"' && !done()) {
                c = take();
                if (c == '\n') continue;  // line continuation
                if (strchr("\"\\`$", c) == nullptr) value += '\\';
            }
            value += c;
        }
        skip_blanks();
        if (!done() && peek() != '\n') return fail(line, "unexpected text after the closing quote");
        if (!done()) take();
        return true;
    }

    // Up to the line end, blanks around it dropped; escaped ones stay.
    void unquoted(std::string& value) {
        size_t keep = 0;
        while (!done()) {
            char c = take();
            if (c == '\n') break;
            if (c == '\\' && !done()) {
                c = take();
                if (c == '\n') continue;  // line continuation
                value += c;
                keep = value.size();
                continue;
            }
            value += c;
            if (!is_blank(c)) keep = value.size();
        }
        value.resize(keep);
    }
};

}  // namespace

bool parse_env_file(const std::string& text, Assignments& out, EnvFileError& error) {
    if (size_t zero = text.find('\0'); zero != std::string::npos) {
        error = {1 + static_cast<int>(std::count(text.data(), text.data() + zero, '\n')),
                 "zero byte in the file"};
        return false;
    }
    Parser in{text, error};
    Assignments found;
    while (!in.done()) {
        in.skip_blanks();
        if (in.done()) break;
        if (in.peek() == '\n' || in.peek() == '#' || in.peek() == ';') {  // a comment or blank line
            while (!in.done() && in.take() != '\n') {
            }
            continue;
        }
        int line = in.line;
        std::string key, value;
        while (!in.done() && is_key_char(in.peek(), key.empty())) key += in.take();
        in.skip_blanks();
        if (key.empty() || in.done() || in.peek() != '=') {
            return in.fail(line, "expected KEY=VALUE (keys are letters, digits and '_')");
        }
        in.take();
        in.skip_blanks();
        if (!in.done() && (in.peek() == '\'' || in.peek() == '"')) {
            if (!in.quoted(value)) return false;
        } else {
            in.unquoted(value);
        }
        found.emplace_back(key, value);
    }
    out.insert(out.end(), found.begin(), found.end());
    return true;
}

}  // namespace endpoint
