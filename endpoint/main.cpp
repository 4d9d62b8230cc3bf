// relaytool-endpoint: sets up an endpoint once, then keeps the relay tool
// logged in, restarting it after failures that can pass and stopping with a
// clear reason after those that cannot. Its source is meant as the example
// of how a parent drives the tool.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "build_info.h"
#include "cli.h"
#include "commands.h"
#include "diag.h"
#include "envfile.h"
#include "file.h"
#include "gridftp_conf.h"
#include "lock.h"
#include "settings.h"
#include "signals.h"
#include "supervisor.h"

extern char** environ;

namespace {

using namespace endpoint;

constexpr int kUsageStatus = 2;     // bad command line, file or setting
constexpr int kOwnFailure = 1;      // a system call of our own failed
constexpr int kAlreadyRunning = 4;  // another supervisor has the directory

// Descriptors 0 to 2 must be open, or the pipes made for the tool could
// land on them.
void ensure_standard_descriptors() {
    for (int fd = 0; fd <= 2; ++fd) {
        if (fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
            int null = open("/dev/null", O_RDWR);
            if (null != -1 && null != fd) close(null);  // opened lower: keep looking
        }
    }
}

int fail(int status, const std::string& message) {
    fprintf(stderr, "relaytool-endpoint: %s\n", message.c_str());
    return status;
}

// The environment overlaid by the environment file: the file wins.
bool read_env_file(const CommandLine& cli, EnvMap& env, const SystemFacts& facts,
                   std::string& error) {
    std::string path = cli.env_file.empty() ? default_env_file(env, facts) : cli.env_file;
    if (path.empty()) return true;
    std::string text;
    if (int err = hvlib::try_read_file_contents(path, text); err != 0) {
        if (cli.env_file.empty() && err == ENOENT) return true;  // the default is optional
        error = hvlib::str_sprintf("cannot read the environment file %s: %s", path.c_str(),
                                   hvlib::get_strerror_string(err).c_str());
        return false;
    }
    Assignments assignments;
    EnvFileError fault;
    if (!parse_env_file(text, assignments, fault)) {
        error = hvlib::str_sprintf("%s:%d: %s", path.c_str(), fault.line, fault.message.c_str());
        return false;
    }
    for (const auto& [key, value] : assignments) env[key] = value;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    ensure_standard_descriptors();
    setvbuf(stdout, nullptr, _IOLBF, 0);
    setvbuf(stderr, nullptr, _IOLBF, 0);

    CommandLine cli;
    std::string error;
    if (!parse_command_line(argc, argv, cli, error)) {
        fprintf(stderr, "relaytool-endpoint: %s\n%s", error.c_str(), kUsage);
        return kUsageStatus;
    }
    if (cli.help) {
        printf("%s", kUsage);
        return 0;
    }
    if (cli.version) {
        printf("relaytool-endpoint (relaytool) %s\n", RELAYTOOL_ENDPOINT_VERSION);
        return 0;
    }

    SystemFacts facts = system_facts();
    EnvMap env = environment_of(environ);
    if (!read_env_file(cli, env, facts, error)) return fail(kUsageStatus, error);

    Settings settings;
    SettingProblem problem;
    if (!resolve_settings(env, cli.command, facts, settings, problem)) {
        return fail(kUsageStatus, problem.name + ": " + problem.message);
    }
    if (cli.command == Command::Status) return show_status(settings.config_dir, cli.json);
    if (!check_settings_on_system(settings, cli.command, problem)) {
        return fail(kUsageStatus, problem.name + ": " + problem.message);
    }

    pid_t holder = 0;
    int err = 0;
    switch (take_config_lock(settings.config_dir, holder, err)) {
        case LockResult::Taken:
            break;
        case LockResult::Held:
            return fail(
                kAlreadyRunning,
                hvlib::str_sprintf("another relaytool-endpoint (pid %ld) already runs for %s",
                                   static_cast<long>(holder), settings.config_dir.c_str()));
        case LockResult::Failed:
            return fail(kOwnFailure, hvlib::str_sprintf("cannot lock %s/endpoint.lock: %s",
                                                        settings.config_dir.c_str(),
                                                        hvlib::get_strerror_string(err).c_str()));
    }
    int signal_fd = install_signal_pipe();
    if (signal_fd == -1) {
        return fail(kOwnFailure,
                    "cannot set up signal handling: " + hvlib::get_strerror_string(errno));
    }
    if (cli.command == Command::Setup) return run_setup(settings, cli.code, signal_fd);
    if (int status = prepare_gridftp_conf(settings); status != 0) return status;
    return run_supervisor(settings, signal_fd);
}
