// Signals as readable events: the handlers only write the signal's number
// into a pipe that the event loop polls, so all the work happens in the loop.
#pragma once

#include <vector>

namespace endpoint {

// Catches SIGTERM, SIGINT, SIGHUP (stop) and SIGCHLD (a child ended), and
// ignores SIGPIPE. Returns the pipe's read end, or -1 (errno set).
int install_signal_pipe();

// The signals received since the last call; never blocks.
std::vector<int> take_signals(int signal_fd);

bool is_stop_signal(int sig);

}  // namespace endpoint
