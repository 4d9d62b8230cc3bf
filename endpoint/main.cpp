// relaytool-endpoint: sets up an endpoint once, then keeps the relay tool
// logged in, restarting it after failures that can pass and stopping with a
// clear reason after those that need a person. Its source is meant as the
// example of how a parent drives the tool.
#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "build_info.h"
#include "settings.h"

extern char** environ;

namespace endpoint {
namespace {
const char* const kUsage =
    "usage: relaytool-endpoint setup [--debug]   (the code on standard input)\n"
    "       relaytool-endpoint run [--debug]\n"
    "       relaytool-endpoint status [--json]\n"
    "       relaytool-endpoint pause [--now] | resume\n"
    "       relaytool-endpoint --help | --version\n";

// False, with the fault in `error`, for a command line that is not usage.
bool parse_command_line(int argc, const char* const* argv, CommandLine& out, std::string& error) {
    const option options[] = {
        {"json", no_argument, nullptr, 'j'},    {"debug", no_argument, nullptr, 'd'},
        {"now", no_argument, nullptr, 'n'},     {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'}, {}};
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
        {"setup", Command::Setup}, {"run", Command::Run},       {"status", Command::Status},
        {"pause", Command::Pause}, {"resume", Command::Resume},
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

}  // namespace
}  // namespace endpoint

int main(int argc, char** argv) {
    using namespace endpoint;
    // Descriptors 0 to 2 must be open, or the tool's pipes could land there.
    for (int fd = 0; fd <= 2; ++fd) {
        if (fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
            int null = open("/dev/null", O_RDWR);
            if (null != -1 && null != fd) close(null);  // opened lower: keep looking
        }
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    setvbuf(stderr, nullptr, _IOLBF, 0);

    CommandLine cli;
    std::string error;
    if (!parse_command_line(argc, argv, cli, error)) {
        fprintf(stderr, "relaytool-endpoint: %s\n%s", error.c_str(), kUsage);
        return 2;
    }
    if (cli.help || cli.version) {
        printf(cli.help ? "%s" : "relaytool-endpoint (relaytool) %s\n",
               cli.help ? kUsage : RELAYTOOL_ENDPOINT_VERSION);
        return 0;
    }
    Settings settings;
    if (!resolve_settings(environment(environ), cli.command, system_facts(), settings, error)) {
        fprintf(stderr, "relaytool-endpoint: %s\n", error.c_str());
        return 2;
    }
    if (cli.debug) {
        fprintf(stderr,
                "relaytool-endpoint: warning: --debug: the tool's debug output goes to "
                "standard error and the journal, and it contains private keys\n");
    } else if (getenv("HVN_DEBUG") != nullptr) {
        fprintf(stderr,
                "relaytool-endpoint: HVN_DEBUG is not passed on, since the tool's debug "
                "output contains private keys; --debug passes it on\n");
    }
    if (cli.command == Command::Run) return run_supervisor(cli, settings);
    if (cli.command == Command::Setup) return run_setup(cli, settings);
    if (cli.command == Command::Status) return show_status(settings.config_dir, cli.json);
    bool pause = cli.command == Command::Pause;
    return send_command(settings.config_dir,
                        pause ? (cli.now ? "pause --now" : "pause") : "resume");
}
