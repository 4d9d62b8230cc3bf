// The local listener on 127.0.0.1 and the GridFTP workers it starts, one
// per forwarded connection.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <cerrno>

#include "debug.h"
#include "diag.h"
#include "posix_impl.h"
#include "relaytool.h"

void RelayTool::startInetd() {
    relaytool_debug("startInetd");
    int port = m_impl->initInetd();
    relaytool_debug("using inetd port %d", port);
    m_ftp_port = port;
}

int RelayToolImpl::initInetd() {
    relaytool_debug("initInetd");
    m_inetd_fd = socket(AF_INET, SOCK_STREAM, 0);
    if (m_inetd_fd == -1) posix_fatal_error("socket");
    posix_set_cloexec(m_inetd_fd);

    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(0);  // the system picks a free port
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(m_inetd_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == -1) {
        posix_fatal_error("bind");
    }
    if (listen(m_inetd_fd, 10) == -1) posix_fatal_error("listen");
    socklen_t len = sizeof addr;
    if (getsockname(m_inetd_fd, reinterpret_cast<sockaddr*>(&addr), &len) == -1) {
        posix_fatal_error("getsockname");
    }
    posix_set_nonblocking(m_inetd_fd, true);
    m_spare_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    return ntohs(addr.sin_port);
}

void RelayToolImpl::acceptInetd() {
    relaytool_debug("acceptInetd()");
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    int fd = accept(m_inetd_fd, reinterpret_cast<sockaddr*>(&peer), &len);
    if (fd == -1) {
        int err = errno;
        relaytool_debug("accept failed: %s", hvlib::get_strerror_string(err).c_str());
        if (err == EMFILE || err == ENFILE) dropPendingConnection();
        return;
    }
    posix_set_nonblocking(fd, false);
    posix_set_cloexec(fd);
    launchGridFTP(fd);
    posix_close(fd);  // the worker now holds the only copy
    m_tool->onStatusUpdate(static_cast<int>(m_ftp_pids.size()));
}

void RelayToolImpl::dropPendingConnection() {
    if (m_spare_fd == -1) return;
    close(m_spare_fd);
    int fd = accept(m_inetd_fd, nullptr, nullptr);
    if (fd != -1) close(fd);  // the peer sees the connection closed at once
    m_spare_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
}

void RelayToolImpl::launchGridFTP(int fd) {
    if (m_ftp_stderr_fd == -1) {
        // One pipe carries the error output of every worker; the tool keeps
        // both ends for good, so the read end never reaches end of file.
        int ends[2];
        if (pipe(ends) == -1) posix_fatal_error("pipe");
        m_ftp_stderr_fd = ends[0];
        m_ftp_stderr_write_fd = ends[1];
        posix_set_cloexec(m_ftp_stderr_fd);
        posix_set_cloexec(m_ftp_stderr_write_fd);
        posix_set_nonblocking(m_ftp_stderr_fd, true);
    }
    hvlib::StringList args = m_tool->getGridFTPArgs();
    for (const std::string& arg : args) {
        relaytool_debug("ftp arg: %s\n", hvlib::backslash_escape(arg).c_str());
    }

    pid_t pid = fork();
    if (pid == -1) posix_fatal_error("Fork");
    if (pid > 0) {
        relaytool_debug("spawed gridftp pid %d", static_cast<int>(pid));
        m_ftp_pids.push_back(pid);
        return;
    }
    posix_clear_cloexec(fd);
    if (dup2(fd, 0) == -1 || dup2(fd, 1) == -1) posix_fatal_error("dup2");
    posix_close(fd);
    posix_clear_cloexec(m_ftp_stderr_write_fd);
    if (dup2(m_ftp_stderr_write_fd, 2) == -1) posix_fatal_error("dup2");
    posix_close(m_ftp_stderr_write_fd);
    posix_exec(args);
}

void RelayToolImpl::waitChildProcesses() {
    relaytool_debug("checking %d child gridftp pids", static_cast<int>(m_ftp_pids.size()));
    // Backwards, so removing an entry keeps the indices still to visit valid.
    for (size_t i = m_ftp_pids.size(); i-- > 0;) {
        int pid = m_ftp_pids[i];
        int status = 0;
        pid_t rc = waitpid(pid, &status, WNOHANG);
        if (rc == 0) continue;
        HV_PRECONDITION(rc == pid, "src/posix", 161);
        relaytool_debug("child pid %d exited (idx %d)", pid, static_cast<int>(i));
        m_ftp_pids.erase(m_ftp_pids.begin() + static_cast<long>(i));
    }
}
