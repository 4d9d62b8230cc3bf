// The settings of relaytool-endpoint and of the tool it runs: the process
// environment, overlaid by the environment file, with defaults that leave an
// operator only the relay server and the GridFTP server program to give.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace endpoint {

using EnvMap = std::map<std::string, std::string>;

enum class Command { Setup, Run, Status };

// Facts of the system that defaults come from; fixed by hand in tests.
struct SystemFacts {
    std::string os;          // the kernel's name, "Linux"
    std::string os_version;  // the distribution and its version, or the kernel release
    std::string user;        // login name of the effective user; empty if unknown
    std::string home;        // that user's home, for when HOME is unset
    std::string cwd;         // for relative paths
};

SystemFacts system_facts();

EnvMap environment_of(char** envp);

// $XDG_CONFIG_HOME/relaytool/endpoint.env, ~/.config standing in for an unset
// XDG_CONFIG_HOME; the file that is read when --env is not given.
std::string default_env_file(const EnvMap& env, const SystemFacts& facts);

struct Settings {
    EnvMap tool_env;  // the tool's complete environment
    std::string tool_path;
    std::string config_dir;  // absolute, without a trailing "/"
    double backoff_min = 1;
    double backoff_max = 300;
    std::vector<std::string> shared_dirs;  // served by the GridFTP server (gridftp_conf.h)
    std::string trust_dir;                 // the relay authority's; empty: none
};

// What is wrong with one setting: the variable's name and the fault.
struct SettingProblem {
    std::string name;
    std::string message;
};

// Fills in the defaults and checks the form of every value; touches nothing.
bool resolve_settings(const EnvMap& env, Command command, const SystemFacts& facts, Settings& out,
                      SettingProblem& problem);

// Checks that the programs, the anonymous key and the configuration
// directory are usable, creating the directory (mode 0700) if it is missing.
bool check_settings_on_system(const Settings& settings, Command command, SettingProblem& problem);

// "host" or "host:port" with a port from 1 to 65535; false if malformed.
bool parse_relay_server(const std::string& value, std::string& host, int& port);

// A decimal number of seconds, above 0 and at most Backoff::kLimitSeconds.
bool parse_seconds(const std::string& text, double& seconds);

}  // namespace endpoint
