#include "file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

#include "diag.h"

namespace hvlib {

void create_private_file_with_contents(std::string path, std::string data) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd == -1) {
        fatal_error("Couldn't open for writing '%s': %s\n", path.c_str(),
                    get_strerror_string(errno).c_str());
    }
    if (!data.empty()) {
        // One write on purpose: a short write is a broken assumption.
        ssize_t ret = write(fd, data.data(), data.size());
        if (ret == -1) {
            fatal_error("Couldn't write '%s': %s\n", path.c_str(),
                        get_strerror_string(errno).c_str());
        }
        HV_PRECONDITION(ret == (int)data.size(), "lib/file", 48);
    }
    if (close(fd) != 0) {
        fatal_error("Couldn't close '%s': %s\n", path.c_str(), get_strerror_string(errno).c_str());
    }
}

namespace {

// The open stream; a file that cannot be opened ends the process.
FILE* open_for_reading(const std::string& path) {
    FILE* f = fopen(path.c_str(), "r");
    if (f != nullptr) return f;
    fatal_error("Couldn't open for reading '%s': %s\n", path.c_str(),
                get_strerror_string(errno).c_str());
}

}  // namespace

std::string read_file_contents(std::string path) {
    FILE* f = open_for_reading(path);
    std::vector<char> buffer(4096, '\0');
    std::string result;
    for (;;) {
        size_t n = fread(buffer.data(), 1, buffer.size(), f);
        if (ferror(f)) {
            fatal_error("Couldn't read '%s': %s\n", path.c_str(),
                        get_strerror_string(errno).c_str());
        }
        if (n > 0) result.append(buffer.data(), n);
        if (feof(f)) break;
    }
    fclose(f);
    return result;
}

bool file_readable(std::string path) {
    FILE* f = fopen(path.c_str(), "r");
    if (f == nullptr) return false;
    fclose(f);
    return true;
}

}  // namespace hvlib
