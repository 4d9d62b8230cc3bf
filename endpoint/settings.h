// The settings of relaytool-endpoint and of the tool it runs: the process
// environment over the environment file (the environment wins, as with
// systemd's Environment= over EnvironmentFile=), an empty value counting as
// unset, with defaults that leave only the relay server and the GridFTP
// server program to give.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "envfile.h"

namespace endpoint {

using EnvMap = std::map<std::string, std::string>;

enum class Command { Setup, Run, Status };

// Facts of the system that defaults come from.
struct SystemFacts {
    std::string os, os_version;  // "Linux"; os-release's PRETTY_NAME, or the kernel's release
    std::string user, home;      // the effective user's name and home; empty if unknown
    std::string cwd;             // for relative paths
};

SystemFacts system_facts();

// The environment with the file's assignments under it; no empty values.
EnvMap environment_over_file(char** envp, const Assignments& file);

// $XDG_CONFIG_HOME/relaytool/endpoint.env (~/.config for an unset
// XDG_CONFIG_HOME): the file read when --env is not given.
std::string default_env_file(const EnvMap& env, const SystemFacts& facts);

struct Settings {
    EnvMap tool_env;  // the tool's complete environment
    std::string tool_path, config_dir, relay_host, relay_port;
    double backoff_min = 1, backoff_max = 300;
    std::vector<std::string> shared_dirs;  // what the GridFTP server serves
    std::string trust_dir;                 // the relay authority's; empty: none
};

// Fills in the defaults and checks the form of every value. False, with
// "NAME: fault" in `problem`, for a missing or malformed value.
bool resolve_settings(const EnvMap& env, Command command, const SystemFacts& facts, Settings& out,
                      std::string& problem);

enum class Load { Ready, Malformed, NotReady };

// Reads the environment file (`env_file`, or the default one if it exists)
// and resolves the settings; NotReady: the named file cannot be read yet.
Load load_settings(const std::string& env_file, Command command, char** envp, Settings& out,
                   std::string& problem);

// Whether the configuration directory (made with mode 0700 if missing), the
// programs, the anonymous key and for `run` the GridFTP server's
// configuration are there; false, with what may come later in `problem`.
bool config_dir_ready(const Settings& settings, std::string& problem);
bool paths_ready(const Settings& settings, Command command, std::string& problem);

}  // namespace endpoint
