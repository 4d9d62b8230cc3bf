// The event loop and the platform-bound RelayTool members.
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "debug.h"
#include "diag.h"
#include "posix_impl.h"
#include "relaytool.h"

extern char** environ;

void posix_fatal_error(const char* what) {
    int err = errno;
    fprintf(stderr, "Fatal Posix Error: %s: %s\n", what, hvlib::get_strerror_string(err).c_str());
    exit(1);
}

void posix_set_cloexec(int fd) {
    int flags = fcntl(fd, F_GETFD);
    if (flags == -1 || fcntl(fd, F_SETFD, flags | FD_CLOEXEC) == -1) posix_fatal_error("fcntl");
}

void posix_clear_cloexec(int fd) {
    int flags = fcntl(fd, F_GETFD);
    if (flags == -1 || fcntl(fd, F_SETFD, flags & ~FD_CLOEXEC) == -1) posix_fatal_error("fcntl");
}

void posix_set_nonblocking(int fd, bool nonblocking) {
    int flags = fcntl(fd, F_GETFL);
    if (flags == -1) posix_fatal_error("fcntl");
    flags = nonblocking ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
    if (fcntl(fd, F_SETFL, flags) == -1) posix_fatal_error("fcntl");
}

void posix_close(int fd) {
    relaytool_debug("closing fd %d\n", fd);
    if (close(fd) != 0) posix_fatal_error("close");
}

void posix_exec(const hvlib::StringList& args) {
    std::vector<char*> argv;
    for (size_t i = 1; i < args.size(); ++i) {
        char* copy = strdup(args[i].c_str());
        if (copy == nullptr) hvlib::fatal_error("strdup failed");
        argv.push_back(copy);
    }
    argv.push_back(nullptr);
    execve(args[0].c_str(), argv.data(), environ);
    posix_fatal_error("execve");
}

namespace {

// One read of up to 4096 bytes; an empty result means end of file. Only
// called for descriptors that poll reported ready, so EAGAIN is an error.
std::string posix_read_pipe_nb(int fd) {
    std::vector<char> buffer(4096, '\0');
    ssize_t rc = read(fd, buffer.data(), buffer.size());
    if (rc == -1) posix_fatal_error("read");
    HV_PRECONDITION(rc >= 0, "src/posix", 147);
    return std::string(buffer.data(), static_cast<size_t>(rc));
}

}  // namespace

void RelayTool::initPlatform() {
    m_impl = new RelayToolImpl(this);
    relaytool_debug("posix getpid: %d\n", static_cast<int>(getpid()));
    relaytool_debug("posix getpgrp: %d\n", static_cast<int>(getpgrp()));
    for (int fd = 0; fd <= 2; ++fd) posix_set_cloexec(fd);
    // Anything else open was inherited from the parent: keep it away from
    // the children, and say so.
    for (int fd = 3; fd <= 255; ++fd) {
        if (fcntl(fd, F_SETFD, FD_CLOEXEC) == 0) fprintf(stderr, "ERROR: fd %d was active\n", fd);
    }
}

void RelayTool::runReactor() { m_impl->run(); }

void RelayTool::queueSSHInput(const std::string& data) {
    relaytool_debug("SSH queueing stdin: [%s]\n", hvlib::backslash_escape(data).c_str());
    m_impl->m_ssh_stdin_queue += data;
}

void RelayToolImpl::run() {
    std::vector<pollfd> table;
    time_t last_tick = 0;
    auto add = [&table](int fd, short events) {
        HV_PRECONDITION(fd >= 0, "src/posix", 45);
        table.push_back(pollfd{fd, events, 0});
    };
    for (;;) {
        table.clear();
        table.push_back(pollfd{0, POLLIN, 0});
        if (m_ssh_stdin_fd != -1 && !m_ssh_stdin_queue.empty()) add(m_ssh_stdin_fd, POLLOUT);
        if (m_ssh_stdout_fd != -1) add(m_ssh_stdout_fd, POLLIN);
        if (m_ssh_stderr_fd != -1) add(m_ssh_stderr_fd, POLLIN);
        if (m_inetd_fd != -1) add(m_inetd_fd, POLLIN);
        if (m_ftp_stderr_fd != -1) add(m_ftp_stderr_fd, POLLIN);

        int ret = poll(table.data(), table.size(), 1000);
        if (ret == -1) posix_fatal_error("poll");
        if (ret > 0) {
            relaytool_debug("poll: ret=%d\n", ret);
            // Only the first ready descriptor is handled: a strict priority
            // in table order. The others come back with the next poll.
            for (const pollfd& entry : table) {
                if (entry.revents != 0) {
                    processFD(entry.fd);
                    break;
                }
            }
        } else {
            relaytool_debug("poll timeout\n");
        }

        time_t now = time(nullptr);
        if (now != last_tick) {
            relaytool_debug("hi onTimer");
            waitChildProcesses();
            m_tool->onStatusUpdate(static_cast<int>(m_ftp_pids.size()));
            last_tick = now;
        }
    }
}

void RelayToolImpl::writeSSHInput() {
    if (m_ssh_stdin_queue.empty()) return;
    ssize_t rc = write(m_ssh_stdin_fd, m_ssh_stdin_queue.data(), m_ssh_stdin_queue.size());
    if (rc == -1) {
        if (errno != EAGAIN && errno != EPIPE) posix_fatal_error("write");
        relaytool_debug("posix_write_pipe_nb: ignoring %s\n",
                        hvlib::get_strerror_string(errno).c_str());
        return;
    }
    HV_PRECONDITION(rc >= 0, "src/posix", 131);
    relaytool_debug("posix_write_pipe_nb: wrote %d bytes\n", static_cast<int>(rc));
    m_ssh_stdin_queue.erase(0, static_cast<size_t>(rc));
}

void RelayToolImpl::processFD(int fd) {
    relaytool_debug("processing fd %d\n", fd);
    if (fd == 0) {
        // The parent keeps our stdin open and never writes to it: any
        // readiness means it has gone.
        relaytool_debug("stdin closed; parent died?");
        exit(1);
    } else if (fd == m_ssh_stdin_fd) {
        writeSSHInput();
    } else if (fd == m_ssh_stdout_fd) {
        readSSHOutput(m_ssh_stdout_fd, &RelayTool::SSHReceivedOut);
    } else if (fd == m_ssh_stderr_fd) {
        readSSHOutput(m_ssh_stderr_fd, &RelayTool::SSHReceivedErr);
    } else if (fd == m_inetd_fd) {
        acceptInetd();
    } else if (fd == m_ftp_stderr_fd) {
        // The tool holds the write end, so this pipe never reaches EOF.
        m_tool->FTPReceivedStderr(posix_read_pipe_nb(fd));
    } else {
        HV_PRECONDITION(false, "src/posix", 318);
    }
}

void RelayToolImpl::readSSHOutput(int& fd, void (RelayTool::*received)(const std::string&)) {
    std::string chunk = posix_read_pipe_nb(fd);
    if (chunk.empty()) {  // end of file: the pipe is done with
        posix_close(fd);
        fd = -1;
    }
    (m_tool->*received)(chunk);
    checkSSHExit();
}

void RelayToolImpl::checkSSHExit() {
    if (m_ssh_stdout_fd != -1 || m_ssh_stderr_fd != -1) return;
    HV_PRECONDITION(m_ssh_pid > 0, "src/posix", 325);
    relaytool_debug("waiting on ssh pid\n");
    int status = 0;
    if (waitpid(m_ssh_pid, &status, 0) == -1) posix_fatal_error("waitpid");
    int code = -255;
    if (WIFEXITED(status)) {
        code = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        code = -WTERMSIG(status);
    }
    posix_close(m_ssh_stdin_fd);
    m_ssh_pid = -1;
    m_ssh_stdin_fd = -1;
    m_tool->SSHExited(code);
}
