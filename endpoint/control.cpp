#include "cli.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "cli.h"
#include "diag.h"

namespace endpoint {

// A POSIX record lock on the whole file, not flock: F_GETLK can test for it
// without taking it and names the holder. It is never inherited by
// children, and this process keeps its only descriptor of the file open
// until it ends.
LockResult take_config_lock(const std::string& config_dir, std::string& problem) {
    std::string path = config_dir + "/endpoint.lock";
    std::error_code made;
    mode_t umask_was = umask(077);  // every directory made is private
    std::filesystem::create_directories(config_dir, made);
    umask(umask_was);
    int err = made.value();
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

namespace {

const char kSocketName[] = "endpoint.sock";

// Calls `use` with the socket's address. A socket's path may be no longer
// than 107 bytes, a configuration directory can be: the address goes
// through a descriptor of the directory instead, which fits always.
int with_address(const std::string& config_dir, const std::function<int(const sockaddr_un&)>& use) {
    int dir = ::open(config_dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (dir == -1) return errno;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", dir, kSocketName);
    int err = use(address);
    close(dir);
    return err;
}

}  // namespace

ControlSocket::~ControlSocket() {
    if (m_fd == -1) return;
    close(m_fd);
    unlink(m_path.c_str());
}

int ControlSocket::open(sd_event* loop, const std::string& config_dir, Handler handler) {
    m_handler = std::move(handler);
    m_path = config_dir + "/" + kSocketName;
    unlink(m_path.c_str());  // we hold the directory: a socket there is a dead one's
    m_fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    int err = m_fd == -1 ? errno : with_address(config_dir, [this](const sockaddr_un& a) {
        const auto* address = reinterpret_cast<const sockaddr*>(&a);
        return bind(m_fd, address, sizeof a) == 0 && listen(m_fd, 4) == 0 ? 0 : errno;
    });
    if (err != 0) {
        if (m_fd != -1) close(m_fd);
        m_fd = -1;
        return err;
    }
    m_listening.readable(loop, m_fd, [this] { accept_one(); });
    return 0;
}

// The command follows the connection at once; should a client of our own
// user stall, the loop waits a second at most.
void ControlSocket::accept_one() {
    int fd = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd == -1) return;
    ucred peer{};
    socklen_t length = sizeof peer;
    timeval second{1, 0};
    char command[64];
    std::string reply;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || peer.uid != geteuid()) {
        reply = hvlib::str_sprintf(
            "1 refused: this relaytool-endpoint runs as user %u, and only that user may pause "
            "or resume it",
            geteuid());
        fprintf(stderr, "relaytool-endpoint: refused a command from user %u (pid %d)\n", peer.uid,
                peer.pid);
    } else if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &second, sizeof second) == 0) {
        ssize_t n = recv(fd, command, sizeof command, 0);
        reply = n > 0 ? m_handler(std::string(command, static_cast<size_t>(n))) : "1 no command";
    }
    send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
    close(fd);
}

int send_command(const std::string& config_dir, const std::string& command) {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    int err = fd == -1 ? errno : with_address(config_dir, [fd](const sockaddr_un& a) {
        return connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0 ? 0 : errno;
    });
    char reply[512] = "";
    if (err == 0) send(fd, command.data(), command.size(), MSG_NOSIGNAL);  // a refusal comes first
    ssize_t n = err != 0 ? -1 : recv(fd, reply, sizeof reply - 1, 0);
    if (n == -1 && err == 0) err = errno;
    if (fd != -1) close(fd);
    if (err == ENOENT || err == ECONNREFUSED) {
        fprintf(stderr, "relaytool-endpoint: no relaytool-endpoint runs for %s\n",
                config_dir.c_str());
        return 3;
    }
    if (err != 0 || n < 2) {
        fprintf(stderr, "relaytool-endpoint: cannot reach the relaytool-endpoint of %s: %s\n",
                config_dir.c_str(),
                err != 0 ? hvlib::get_strerror_string(err).c_str() : "no answer");
        return 1;
    }
    reply[n] = '\0';
    int status = reply[0] - '0';
    fprintf(status == 0 ? stdout : stderr, "relaytool-endpoint: %s\n", reply + 2);
    return status;
}

}  // namespace endpoint
