#include "signals.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace endpoint {

namespace {

volatile sig_atomic_t g_write_fd = -1;

extern "C" void on_signal(int sig) {
    int saved = errno;
    unsigned char byte = static_cast<unsigned char>(sig);
    // A full pipe already holds a wake-up; losing this byte loses nothing
    // but a repeat of a signal the loop will see anyway.
    (void)!write(g_write_fd, &byte, 1);
    errno = saved;
}

}  // namespace

int install_signal_pipe() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) return -1;
    g_write_fd = fds[1];
    struct sigaction action {};
    action.sa_handler = on_signal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) {
        if (sigaction(sig, &action, nullptr) != 0) return -1;
    }
    // A tool that has gone while we write to it must give EPIPE, not end us.
    signal(SIGPIPE, SIG_IGN);
    return fds[0];
}

std::vector<int> take_signals(int signal_fd) {
    std::vector<int> signals;
    unsigned char buffer[64];
    for (;;) {
        ssize_t n = read(signal_fd, buffer, sizeof buffer);
        if (n == -1 && errno == EINTR) continue;
        if (n <= 0) break;
        for (ssize_t i = 0; i < n; ++i) signals.push_back(buffer[i]);
    }
    return signals;
}

bool is_stop_signal(int sig) { return sig == SIGTERM || sig == SIGINT || sig == SIGHUP; }

}  // namespace endpoint
