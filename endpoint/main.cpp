// relaytool-endpoint: sets up an endpoint once, then keeps the relay tool
// logged in, restarting it after failures that can pass and stopping with a
// clear reason after those that need a person. Its source is meant as the
// example of how a parent drives the tool.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "build_info.h"
#include "cli.h"

extern char** environ;

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
    switch (cli.command) {
        case Command::Run: return run_supervisor(cli, settings);
        case Command::Setup: return run_setup(cli, settings);
        case Command::Status: return show_status(settings.config_dir, cli.json);
        default: return send_command(settings.config_dir, cli.now ? "pause --now" : 
                                     cli.command == Command::Pause ? "pause" : "resume");
    }
}
