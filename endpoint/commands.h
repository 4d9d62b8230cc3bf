// The subcommands besides run.
#pragma once

#include <string>

#include "settings.h"

namespace endpoint {

// Runs the tool once in setup mode with the code; 0 when the endpoint is set
// up, otherwise the failure class's exit status (1 if interrupted).
int run_setup(const Settings& settings, const std::string& code, int signal_fd);

// Shows the state of the supervisor for the configuration directory; 0 if one
// runs, 3 if none does.
int show_status(const std::string& config_dir, bool json);

}  // namespace endpoint
