// The command line: relaytool-endpoint [--env FILE] COMMAND [ARGUMENTS]
#pragma once

#include <string>

#include "settings.h"

namespace endpoint {

struct CommandLine {
    Command command = Command::Run;
    std::string env_file;  // empty: the default file, if it exists
    std::string code;      // setup
    bool json = false;     // status
    bool help = false;
    bool version = false;
};

// False, with the fault in `error`, for a command line that is not usage.
bool parse_command_line(int argc, const char* const* argv, CommandLine& out, std::string& error);

extern const char* const kUsage;

}  // namespace endpoint
