#include "lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace endpoint {

namespace {

const char kLockFile[] = "/endpoint.lock";

// A POSIX record lock, not flock: F_GETLK can test for it without taking it
// and names the holder. It is never inherited by children, and this process
// keeps its only descriptor of the file open until it ends.
struct flock whole_file(short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;
    return lock;
}

}  // namespace

LockResult take_config_lock(const std::string& config_dir, pid_t& holder, int& err) {
    std::string path = config_dir + kLockFile;
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd == -1) {
        err = errno;
        return LockResult::Failed;
    }
    struct flock lock = whole_file(F_WRLCK);
    if (fcntl(fd, F_SETLK, &lock) == 0) return LockResult::Taken;  // fd stays open
    err = errno;
    close(fd);
    if (err != EACCES && err != EAGAIN) return LockResult::Failed;
    holder = config_lock_holder(config_dir);
    return LockResult::Held;
}

pid_t config_lock_holder(const std::string& config_dir) {
    std::string path = config_dir + kLockFile;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1) return 0;
    struct flock lock = whole_file(F_WRLCK);
    pid_t holder = 0;
    if (fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK) holder = lock.l_pid;
    close(fd);
    return holder;
}

}  // namespace endpoint
