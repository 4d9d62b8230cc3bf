// The command line, relaytool-endpoint COMMAND [OPTION], and the commands.
#pragma once

#include <string>

#include "settings.h"

namespace endpoint {

struct CommandLine {
    Command command = Command::Run;
    bool json = false;   // status
    bool debug = false;  // setup, run: pass the tool's debug output on
    bool now = false;    // pause: without waiting for the running transfers
    bool help = false;
    bool version = false;
};

// False, with the fault in `error`, for a command line that is not usage.
bool parse_command_line(int argc, const char* const* argv, CommandLine& out, std::string& error);

extern const char* const kUsage;

// Keeps the tool logged in; the exit status is 0 when stopped by a signal.
int run_supervisor(const CommandLine& cli, const Settings& settings);

// Sets the endpoint up with a code read from standard input.
int run_setup(const CommandLine& cli, const Settings& settings);

// 0 if a supervisor runs for the configuration directory, 3 if none does.
int show_status(const std::string& config_dir, bool json);

// Asks the running supervisor to pause or resume: 0 done, 1 refused, 3 none runs.
int send_command(const std::string& config_dir, const std::string& command);

}  // namespace endpoint
