#include "cli.h"

#include <vector>

namespace endpoint {

const char* const kUsage =
    "usage: relaytool-endpoint [--env FILE] setup CODE\n"
    "       relaytool-endpoint [--env FILE] run\n"
    "       relaytool-endpoint [--env FILE] status [--json]\n"
    "       relaytool-endpoint --help | --version\n";

bool parse_command_line(int argc, const char* const* argv, CommandLine& out, std::string& error) {
    std::vector<std::string> words;
    bool options_end = false;
    bool env_given = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (options_end || arg.empty() || arg[0] != '-' || arg == "-") {
            words.push_back(arg);
        } else if (arg == "--") {
            options_end = true;
        } else if (arg == "--env" || arg == "-e") {
            if (i + 1 >= argc) {
                error = "--env needs a file";
                return false;
            }
            out.env_file = argv[++i];
            env_given = true;
        } else if (arg.compare(0, 6, "--env=") == 0) {
            out.env_file = arg.substr(6);
            env_given = true;
        } else if (arg == "--json") {
            out.json = true;
        } else if (arg == "--help" || arg == "-h") {
            out.help = true;
        } else if (arg == "--version") {
            out.version = true;
        } else {
            error = "unknown option " + arg;
            return false;
        }
    }
    if (out.help || out.version) return true;
    if (env_given && out.env_file.empty()) {
        error = "--env needs a file";
        return false;
    }
    if (words.empty()) {
        error = "no command given";
        return false;
    }
    const std::string& name = words[0];
    size_t arguments = 0;
    if (name == "setup") {
        out.command = Command::Setup;
        if (words.size() < 2 || words[1].find_first_not_of(" \t") == std::string::npos) {
            error = "setup needs the setup code";
            return false;
        }
        out.code = words[1];
        arguments = 1;
    } else if (name == "run") {
        out.command = Command::Run;
    } else if (name == "status") {
        out.command = Command::Status;
    } else {
        error = "unknown command '" + name + "'";
        return false;
    }
    if (words.size() > arguments + 1) {
        error = "too many arguments for " + name;
        return false;
    }
    if (out.json && out.command != Command::Status) {
        error = "--json goes with status only";
        return false;
    }
    return true;
}

}  // namespace endpoint
