// The KEY=VALUE environment files that systemd's EnvironmentFile= reads.
// Accepted: blank lines; comment lines whose first non-blank character is
// '#' or ';'; assignments KEY=VALUE with blanks allowed around the '=' and a
// key of letters, digits and '_' not starting with a digit. A value is
//   'single quoted'   taken verbatim, may span lines;
//   "double quoted"   \" \\ \` \$ stand for the character, a backslash before
//                     a line end joins the lines, other backslashes stay;
//   unquoted          up to the line end, blanks around it dropped, a
//                     backslash keeps the next character, a backslash at the
//                     line end joins the lines.
// Stricter than systemd on purpose, so that a typing error is reported
// instead of silently ignored: a line without '=', a bad key, an unclosed
// quote, text after a closing quote and a zero byte are errors.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace endpoint {

using Assignments = std::vector<std::pair<std::string, std::string>>;

struct EnvFileError {
    int line = 0;  // 1-based line where the fault starts
    std::string message;
};

// Appends the file's assignments in file order; false (and the first fault
// in `error`) if the text is malformed, in which case `out` is unchanged.
bool parse_env_file(const std::string& text, Assignments& out, EnvFileError& error);

}  // namespace endpoint
