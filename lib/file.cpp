#include "file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
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

int try_read_file_contents(const std::string& path, std::string& contents) {
    contents.clear();
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1) return errno;
    std::vector<char> buffer(4096, '\0');
    for (;;) {
        ssize_t n = read(fd, buffer.data(), buffer.size());
        if (n == -1 && errno == EINTR) continue;
        if (n == -1) {
            int err = errno;
            close(fd);
            contents.clear();
            return err;
        }
        if (n == 0) break;
        contents.append(buffer.data(), static_cast<size_t>(n));
    }
    close(fd);
    return 0;
}

namespace {

// Writes all of the data, however many calls it takes.
int write_all(int fd, const std::string& data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n == -1 && errno == EINTR) continue;
        if (n == -1) return errno;
        done += static_cast<size_t>(n);
    }
    return 0;
}

}  // namespace

int replace_file_atomically(const std::string& path, const std::string& data) {
    // The new file must be in the same directory: rename is atomic only
    // within one file system.
    std::string temp = path + ".XXXXXX";
    int fd = mkostemp(&temp[0], O_CLOEXEC);  // mode 0600
    if (fd == -1) return errno;
    int err = write_all(fd, data);
    // Without the flush a crash soon after the rename could leave the new
    // name pointing at an empty file on some file systems.
    if (err == 0 && fsync(fd) != 0) err = errno;
    if (close(fd) != 0 && err == 0) err = errno;
    if (err == 0 && rename(temp.c_str(), path.c_str()) != 0) err = errno;
    if (err != 0) unlink(temp.c_str());
    return err;
}

}  // namespace hvlib
