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

// The two helpers below leave failures to the caller, for a long-running
// program that must outlive them (a full disk must not end a supervisor),
// and for callers that turn a failure into a message of their own. Both
// return 0 on success and otherwise the errno of the step that failed.

// The whole file, byte for byte, into `contents` (left empty on failure).
int try_read_file_contents(const std::string& path, std::string& contents);

// Replaces the file so that a reader sees either the old contents or the new,
// never a part: writes a new file (mode 0600) beside it, flushes it to disk
// and renames it over the old one. On failure the old file is untouched and
// the new one is removed.
int replace_file_atomically(const std::string& path, const std::string& data);

}  // namespace hvlib
