// Whole-file helpers. Failures never come back to the caller: a file that
// cannot be opened, read, written or closed ends the process with a report.
#pragma once

#include <string>

namespace hvlib {

// Creates (mode 0600) or truncates the file and writes the data in one call.
void create_private_file_with_contents(std::string path, std::string data);

// The whole file, byte for byte.
std::string read_file_contents(std::string path);

// Whether the file can be opened for reading; never reports anything.
bool file_readable(std::string path);

}  // namespace hvlib
