#include "cli.h"

#include <getopt.h>

namespace endpoint {

const char* const kUsage =
    "usage: relaytool-endpoint setup [--debug]   (the code on standard input)\n"
    "       relaytool-endpoint run [--debug]\n"
    "       relaytool-endpoint status [--json]\n"
    "       relaytool-endpoint pause [--now] | resume\n"
    "       relaytool-endpoint --help | --version\n";

bool parse_command_line(int argc, const char* const* argv, CommandLine& out, std::string& error) {
    const option options[] = {{"json", no_argument, nullptr, 'j'},
                              {"debug", no_argument, nullptr, 'd'},
                              {"now", no_argument, nullptr, 'n'},
                              {"help", no_argument, nullptr, 'h'},
                              {"version", no_argument, nullptr, 'V'},
                              {}};
    auto args = const_cast<char* const*>(argv);  // getopt only permutes the pointers
    opterr = 0;
    optind = 1;
    for (int c = 0; (c = getopt_long(argc, args, "h", options, nullptr)) != -1;) {
        out.json |= c == 'j';
        out.debug |= c == 'd';
        out.now |= c == 'n';
        out.help |= c == 'h';
        out.version |= c == 'V';
        if (c == '?') {
            error = std::string("unknown option ") + argv[optind - 1];
            return false;
        }
    }
    if (out.help || out.version) return true;
    const std::pair<const char*, Command> commands[] = {
        {"setup", Command::Setup},   {"run", Command::Run},       {"status", Command::Status},
        {"pause", Command::Pause},   {"resume", Command::Resume},
    };
    std::string name = optind < argc ? argv[optind] : "";
    error = name.empty() ? "no command given" : "unknown command '" + name + "'";
    for (const auto& [word, command] : commands) {
        if (name == word) {
            out.command = command;
            error.clear();
        }
    }
    if (error.empty() && optind + 1 < argc) {
        error = out.command == Command::Setup
                    ? "setup reads the code from standard input, never from the command line, "
                      "where every user of this computer could read it"
                    : "too many arguments for " + name;
    }
    const std::pair<bool, const char*> misplaced[] = {
        {out.json && out.command != Command::Status, "--json goes with status only"},
        {out.now && out.command != Command::Pause, "--now goes with pause only"},
        {out.debug && out.command != Command::Setup && out.command != Command::Run,
         "--debug goes with setup and run only"},
    };
    for (const auto& [wrong, message] : misplaced) {
        if (error.empty() && wrong) error = message;
    }
    return error.empty();
}

}  // namespace endpoint
