// relaytool-endpoint run: keeps the tool logged in, restarting it after
// failures that can pass and stopping after those that cannot.
#pragma once

#include "settings.h"

namespace endpoint {

// Returns the exit status: 0 when stopped by a signal, otherwise the status of
// the final failure class that ended it.
int run_supervisor(const Settings& settings, int signal_fd);

// Waits up to `ms` milliseconds for a stop signal; returns it, or 0.
int wait_for_stop(int signal_fd, long long ms);

// A signal's name for messages: "SIGTERM".
const char* signal_name(int sig);

}  // namespace endpoint
