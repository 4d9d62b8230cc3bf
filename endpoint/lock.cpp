#include "lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "diag.h"

namespace endpoint {

// A POSIX record lock on the whole file, not flock: F_GETLK can test for it
// without taking it and names the holder. It is never inherited by
// children, and this process keeps its only descriptor of the file open
// until it ends.
LockResult take_config_lock(const std::string& config_dir, std::string& problem) {
    std::string path = config_dir + "/endpoint.lock";
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    struct flock lock {};
    lock.l_type = F_WRLCK;
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
    struct flock lock {};
    lock.l_type = F_WRLCK;
    pid_t holder = 0;
    if (fd != -1 && fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK) holder = lock.l_pid;
    if (fd != -1) close(fd);
    return holder;
}

}  // namespace endpoint
