// The command line, relaytool-endpoint COMMAND [OPTION], and the commands.
//
// The configuration directory, held by one supervisor at a time: a lock on
// a file in it, which the kernel releases when the process ends, however it
// ends; and a Unix socket in it through which `pause` and `resume` reach
// that supervisor. Only the directory's owner can enter it, and the
// supervisor also checks each peer's user (SO_PEERCRED). One command a
// connection ("pause", "pause --now", "resume"); the answer is one line,
// prefixed with the exit status the command is to end with.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

#include "loop.h"
#include "settings.h"

namespace endpoint {

struct CommandLine {
    Command command = Command::Run;
    bool json = false;   // status
    bool debug = false;  // setup, run: pass the tool's debug output on
    bool now = false;    // pause: without waiting for the running transfers
    bool help = false;
    bool version = false;
};

// Keeps the tool logged in; the exit status is 0 when stopped by a signal.
int run_supervisor(const CommandLine& cli, const Settings& settings);

// Sets the endpoint up with a code read from standard input.
int run_setup(const CommandLine& cli, const Settings& settings);

// 0 if a supervisor runs for the configuration directory, 3 if none does.
int show_status(const std::string& config_dir, bool json);

// Asks the running supervisor to pause or resume: 0 done, 1 refused, 3 none runs.
int send_command(const std::string& config_dir, const std::string& command);

enum class LockResult { Taken, Held, Failed };

// Makes the directory (mode 0700 for each one made) and takes the lock for
// this process's lifetime. Held: another process has it; Failed: the
// directory or the lock file cannot be used (yet); either way `problem`
// says so.
LockResult take_config_lock(const std::string& config_dir, std::string& problem);

// The pid of the process holding the lock, or 0 if none does; takes nothing
// and creates nothing, so that asking never gets in a starting one's way.
pid_t config_lock_holder(const std::string& config_dir);

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
