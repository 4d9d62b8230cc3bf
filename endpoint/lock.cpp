#include "lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "diag.h"

namespace endpoint {

namespace {

// A POSIX record lock, not flock: F_GETLK can test for it without taking it
// and names the holder. It is never inherited by children, and this process
// keeps its only descriptor of the file open until it ends.
struct flock whole_file() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

}  // namespace

LockResult take_config_lock(const std::string& config_dir, std::string& problem) {
    std::string path = config_dir + "/endpoint.lock";
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    struct flock lock = whole_file();
    if (fd != -1 && fcntl(fd, F_SETLK, &lock) == 0) return LockResult::Taken;  // fd stays open
    int err = errno;
    if (fd != -1) close(fd);
    if (fd != -1 && (err == EACCES || err == EAGAIN)) {
        problem = hvlib::str_sprintf("another relaytool-endpoint (pid %ld) already runs for %s",
                                     static_cast<long>(config_lock_holder(config_dir)),
                                     config_dir.c_str());
        return LockResult::Held;
    }
    problem = "cannot lock " + path + ": " + hvlib::get_strerror_string(err);
    return LockResult::Failed;
}

pid_t config_lock_holder(const std::string& config_dir) {
    int fd = open((config_dir + "/endpoint.lock").c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1) return 0;
    struct flock lock = whole_file();
    pid_t holder = 0;
    if (fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK) holder = lock.l_pid;
    close(fd);
    return holder;
}

}  // namespace endpoint
