#include "control.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "cli.h"
#include "diag.h"

namespace endpoint {

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

int new_socket() { return socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); }

}  // namespace

ControlSocket::~ControlSocket() {
    if (m_client != -1) close(m_client);
    if (m_fd == -1) return;
    close(m_fd);
    unlink(m_path.c_str());
}

int ControlSocket::open(sd_event* loop, const std::string& config_dir, Handler handler) {
    m_loop = loop;
    m_handler = std::move(handler);
    m_path = config_dir + "/" + kSocketName;
    unlink(m_path.c_str());  // we hold the directory: a socket there is a dead one's
    m_fd = new_socket();
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

void ControlSocket::accept_one() {
    int fd = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd == -1) return;
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || peer.uid != geteuid()) {
        std::string refusal = hvlib::str_sprintf(
            "1 refused: this relaytool-endpoint runs as user %u, and only that user may pause "
            "or resume it",
            geteuid());
        fprintf(stderr, "relaytool-endpoint: refused a command from user %u (pid %d)\n",
                peer.uid, peer.pid);
        send(fd, refusal.data(), refusal.size(), MSG_NOSIGNAL);
        close(fd);
        return;
    }
    if (m_client != -1) close(m_client);  // one at a time: the older one waited too long
    m_client = fd;
    m_reading.readable(m_loop, fd, [this] {
        char command[64];
        ssize_t n = recv(m_client, command, sizeof command, 0);
        if (n == -1 && errno == EAGAIN) return;
        std::string reply = n > 0 ? m_handler(std::string(command, static_cast<size_t>(n)))
                                  : std::string("1 no command");
        send(m_client, reply.data(), reply.size(), MSG_NOSIGNAL);
        m_reading.cancel();
        close(m_client);
        m_client = -1;
    });
}

int send_command(const std::string& config_dir, const std::string& command) {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    int err = fd == -1 ? errno : with_address(config_dir, [fd](const sockaddr_un& a) {
        return connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0 ? 0 : errno;
    });
    char reply[512] = "";
    ssize_t n = err != 0 ? -1 : send(fd, command.data(), command.size(), MSG_NOSIGNAL);
    if (n != -1) n = recv(fd, reply, sizeof reply - 1, 0);
    if (n == -1 && err == 0) err = errno;
    if (fd != -1) close(fd);
    if (err == ENOENT || err == ECONNREFUSED) {
        fprintf(stderr, "relaytool-endpoint: no relaytool-endpoint runs for %s\n",
                config_dir.c_str());
        return 3;
    }
    if (err != 0 || n < 2) {
        fprintf(stderr, "relaytool-endpoint: cannot reach the relaytool-endpoint of %s: %s\n",
                config_dir.c_str(), err != 0 ? hvlib::get_strerror_string(err).c_str() : "no answer");
        return 1;
    }
    reply[n] = '\0';
    int status = reply[0] - '0';
    fprintf(status == 0 ? stdout : stderr, "relaytool-endpoint: %s\n", reply + 2);
    return status;
}

}  // namespace endpoint
