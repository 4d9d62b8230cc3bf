// The settings of relaytool-endpoint and of the tool it runs, all from the
// environment (under systemd, the unit's EnvironmentFile= puts the settings
// file there), an empty value counting as unset, with defaults that leave
// only the relay server and the GridFTP server program to give; the command
// line; and the configuration directory, which one supervisor holds.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "loop.h"

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
    bool operator==(const Share& o) const { return dir == o.dir && read_only == o.read_only; }
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

// Whether the programs, the anonymous key and for `run` the shared and trust
// directories are there; false, with what may come later in `problem`.
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

// Writes gridftp.conf (a new file renamed into place, mode 0600) when there
// is none or the one there is generated, so that changed settings reach it;
// an operator's own file is left alone. 0, or an errno.
int write_gridftp_conf(const Settings& settings, ConfOutcome& outcome);

// Whether a trust directory holds certificates under hashed names
// (<hash>.0), each with the signing policy the GridFTP server requires;
// false, with "RELAYTOOL_TRUST_DIR: fault" in `problem`.
bool trust_dir_ready(const std::string& dir, std::string& problem);

struct CommandLine {
    Command command = Command::Run;
    bool json = false;   // status
    bool debug = false;  // setup, run: pass the tool's debug output on
    bool now = false;    // pause: without waiting for the running transfers
    bool help = false;
    bool version = false;
};

// "relaytool-endpoint: MESSAGE" on standard error; returns `status`.
int note(const std::string& message, int status = 0);

// Keeps the tool logged in; the exit status is 0 when stopped by a signal.
int run_supervisor(const CommandLine& cli, const Settings& settings);

// Sets the endpoint up with a code read from standard input.
int run_setup(const CommandLine& cli, const Settings& settings);

// 0 if a supervisor runs for the configuration directory, 3 if none does.
int show_status(const std::string& config_dir, bool json);

// Asks the running supervisor to pause or resume: 0 done, 1 refused, 3 none runs.
int send_command(const std::string& config_dir, const std::string& command);

// The configuration directory is held with a lock on a file in it, which the
// kernel releases when the process ends, however it ends.
enum class LockResult { Taken, Held, Failed };

// Makes the directory (mode 0700 for each one made) and takes the lock for
// this process's lifetime. Held: another process has it; Failed: the
// directory or the lock file cannot be used (yet); either way `problem`
// says so.
LockResult take_config_lock(const std::string& config_dir, std::string& problem);

// The pid of the process holding the lock, or 0 if none does; takes nothing
// and creates nothing, so that asking never gets in a starting one's way.
pid_t config_lock_holder(const std::string& config_dir);

// How `pause` and `resume` reach the supervisor: a Unix socket in the
// configuration directory, which only its owner can enter; the supervisor
// also checks each peer's user (SO_PEERCRED). One command a connection
// ("pause", "pause --now", "resume"); the answer is one line, prefixed with
// the exit status the command is to end with.
class ControlSocket : Pinned {
public:
    using Handler = std::function<std::string(const std::string& command)>;

    ~ControlSocket();

    // Listens (replacing what a supervisor that died left); 0 or an errno.
    int open(sd_event* loop, const std::string& config_dir, Handler handler);

private:
    void accept_one();

    std::string m_path;
    int m_fd = -1;
    Handler m_handler;
    Source m_listening;
};

}  // namespace endpoint
