#include "cli.h"

#include <getopt.h>

namespace endpoint {

const char* const kUsage =
    "usage: relaytool-endpoint [--env FILE] setup [--debug]   (the code on standard input)\n"
    "       relaytool-endpoint [--env FILE] run [--debug]\n"
    "       relaytool-endpoint [--env FILE] status [--json]\n"
    "       relaytool-endpoint --help | --version\n";

bool parse_command_line(int argc, const char* const* argv, CommandLine& out, std::string& error) {
    const option options[] = {
        {"env", required_argument, nullptr, 'e'}, {"json", no_argument, nullptr, 'j'},
        {"debug", no_argument, nullptr, 'd'},     {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},   {}};
    auto args = const_cast<char* const*>(argv);  // getopt only permutes the pointers
    opterr = 0;
    optind = 1;
    for (int c = 0; (c = getopt_long(argc, args, ":e:h", options, nullptr)) != -1;) {
        if (c == 'e' && *optarg != '\0') out.env_file = optarg;
        out.json |= c == 'j';
        out.debug |= c == 'd';
        out.help |= c == 'h';
        out.version |= c == 'V';
        if (c == ':' || (c == 'e' && *optarg == '\0')) error = "--env needs a file";
        if (c == '?') error = std::string("unknown option ") + argv[optind - 1];
        if (!error.empty()) return false;
    }
    if (out.help || out.version) return true;
    std::string name = optind < argc ? argv[optind] : "";
    if (name == "setup" || name == "run" || name == "status") {
        out.command = name == "setup" ? Command::Setup
                      : name == "run" ? Command::Run
                                      : Command::Status;
    } else {
        error = name.empty() ? "no command given" : "unknown command '" + name + "'";
    }
    if (error.empty() && optind + 1 < argc) {
        error = out.command == Command::Setup
                    ? "setup reads the code from standard input, never from the command line, "
                      "where every user of this computer could read it"
                    : "too many arguments for " + name;
    }
    if (error.empty() && out.json && out.command != Command::Status) {
        error = "--json goes with status only";
    }
    if (error.empty() && out.debug && out.command == Command::Status) {
        error = "--debug goes with setup and run only";
    }
    return error.empty();
}

}  // namespace endpoint
