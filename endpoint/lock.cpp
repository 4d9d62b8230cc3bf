#include "lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "diag.h"

namespace endpoint {

namespace {

// mkdir -p with mode 0700 for every directory it creates.
int make_private_dirs(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) == 0) return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
    size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) {
        if (int err = make_private_dirs(path.substr(0, slash)); err != 0) return err;
    }
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return errno;
    return 0;
}

}  // namespace

// A POSIX record lock on the whole file, not flock: F_GETLK can test for it
// without taking it and names the holder. It is never inherited by
// children, and this process keeps its only descriptor of the file open
// until it ends.
LockResult take_config_lock(const std::string& config_dir, std::string& problem) {
    std::string path = config_dir + "/endpoint.lock";
    int err = make_private_dirs(config_dir);
    int fd = err != 0 ? -1 : open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    if (fd != -1 && fcntl(fd, F_SETLK, &lock) == 0) return LockResult::Taken;  // fd stays open
    if (err == 0) err = errno;
    if (fd != -1) close(fd);
    if (fd != -1 && (err == EACCES || err == EAGAIN)) {
        problem = hvlib::str_sprintf("another relaytool-endpoint (pid %ld) already runs for %s",
                                     static_cast<long>(config_lock_holder(config_dir)),
                                     config_dir.c_str());
        return LockResult::Held;
    }
    problem = "HVN_CONFIG_DIR: cannot use " + path + ": " + hvlib::get_strerror_string(err);
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
