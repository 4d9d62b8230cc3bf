// The settings of relaytool-endpoint and of the tool it runs, all from the
// environment (under systemd, the unit's EnvironmentFile= puts the settings
// file there), an empty value counting as unset, with defaults that leave
// only the relay server and the GridFTP server program to give.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace endpoint {

using EnvMap = std::map<std::string, std::string>;

enum class Command { Setup, Run, Status, Pause, Resume };

// Facts of the system that defaults come from.
struct SystemFacts {
    std::string os, os_version;  // "Linux"; os-release's PRETTY_NAME, or the kernel's release
    std::string user, home;      // the effective user's name and home; empty if unknown
    std::string cwd;             // for relative paths
};

SystemFacts system_facts();

// The process environment, without empty values.
EnvMap environment(char** envp);

struct Share {
    std::string dir;
    bool read_only = false;
    bool operator==(const Share& other) const {
        return dir == other.dir && read_only == other.read_only;
    }
};

struct Settings {
    EnvMap tool_env;  // the tool's complete environment
    std::string tool_path, config_dir, relay_host, relay_port, home;
    double backoff_min = 1, backoff_max = 300;
    std::vector<Share> shared;  // what the GridFTP server serves
    std::string trust_dir;      // the relay authority's; empty: none
};

// Fills in the defaults and checks the form of every value. False, with
// "NAME: fault" in `problem`, for a missing or malformed value.
bool resolve_settings(const EnvMap& env, Command command, const SystemFacts& facts, Settings& out,
                      std::string& problem);

// Whether the programs, the anonymous key and for `run` the shared
// directories and the trust directory are there; false, with what may come
// later in `problem`.
bool paths_ready(const Settings& settings, Command command, std::string& problem);

// The configuration of the GridFTP server that the relay tool starts for each
// forwarded connection (globus-gridftp-server -i -c gridftp.conf): written by
// relaytool-endpoint from its settings unless the operator keeps a file of
// their own there.

// The first line of a generated gridftp.conf. A file that starts with it is
// relaytool-endpoint's to rewrite; any other file is the operator's.
extern const char* const kGeneratedMarker;

// The text of a generated gridftp.conf.
std::string gridftp_conf_text(const Settings& settings);

enum class ConfOutcome { Written, Unchanged, Operators };

// Writes gridftp.conf into the configuration directory (a new file renamed
// into place, mode 0600) when there is none or the one there is generated,
// so that changed settings reach it; an operator's own file is left alone.
// 0, or the errno of a failed read or write.
int write_gridftp_conf(const Settings& settings, ConfOutcome& outcome);

// Whether a trust directory holds certificates under hashed names
// (<hash>.0), each with the signing policy that Globus requires beside it;
// false, with "RELAYTOOL_TRUST_DIR: fault" in `problem`.
bool trust_dir_ready(const std::string& dir, std::string& problem);

}  // namespace endpoint
