// The commands that run once (setup, status, pause and resume), and the
// configuration directory that one supervisor holds and they reach.
#include "settings.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "diag.h"
#include "file.h"
#include "loop.h"
#include "state.h"
#include "strutil.h"
#include "tool.h"

namespace endpoint {

int note(const std::string& message, int status) {
    fprintf(stderr, "relaytool-endpoint: %s\n", message.c_str());
    return status;
}

namespace {

// The code is one line of standard input: never on a command line, where
// every user could read it. A terminal does not echo it, and reads Ctrl-C as
// a character that ends the input, so that the echo always comes back.
bool read_setup_code(std::string& code) {
    termios saved{};
    bool terminal = tcgetattr(0, &saved) == 0;
    if (terminal) {
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ISIG);
        quiet.c_cc[VEOL] = '\003';  // Ctrl-C ends the line too
        fputs("setup code: ", stderr);
        fflush(stderr);  // line-buffered, and no line end yet
        tcsetattr(0, TCSAFLUSH, &quiet);
    }
    std::string line;
    int c = 0;
    while ((c = getchar()) != EOF && c != '\n' && c != '\003') line += static_cast<char>(c);
    if (terminal) {
        tcsetattr(0, TCSAFLUSH, &saved);
        fputc('\n', stderr);
    }
    code = hvlib::strip(line);
    return c != '\003' && !code.empty();
}

using nlohmann::json;

constexpr size_t kTransfersShown = 5;

std::string text_of(const json& object, const char* key) {
    auto it = object.find(key);
    return it != object.end() && it->is_string() ? it->get<std::string>() : std::string();
}

// The state as the file has it, settled: "running" says whether a
// supervisor holds the directory (`holder`, its pid); one that does not
// has stopped, whatever its file says.
json settled_state(const std::string& config_dir, pid_t holder) {
    std::string text;
    hvlib::try_read_file_contents(state_file(config_dir), text);  // left empty on failure
    json state = json::parse(text, nullptr, false);  // without exceptions: a bad file is no state
    bool known = state.is_object() && state.contains("state");
    if (!known) state = json::object();
    if (holder != 0) {
        state["pid"] = holder;
        if (!known) state["state"] = "starting";
    } else if (text_of(state, "state") != "stopped") {  // killed, or the machine went down
        state.update({{"state", "stopped"},
                      {"reason", known ? "relaytool-endpoint ended without recording why (killed?)"
                                       : "no relaytool-endpoint has run for this configuration "
                                         "directory"},
                      {"workers", 0},
                      {"tool_pid", nullptr},
                      {"next_attempt", nullptr},
                      {"delay", nullptr}});
        state.erase("description");
    }
    WallClock::time_point since;
    state["paused_since"] = paused_since(config_dir, since) ? json(iso_time(since)) : json(nullptr);
    state["config_dir"] = config_dir;
    state["running"] = holder != 0;
    state["transfers"] = TransferHistory::load(config_dir);
    return state;
}

void print_for_a_person(const json& state) {
    if (state["running"].get<bool>()) {
        printf("relaytool-endpoint is running (pid %lld)\n", state["pid"].get<long long>());
    } else {
        printf("relaytool-endpoint is not running\n");
    }
    std::string description = text_of(state, "description"), reason = text_of(state, "reason");
    std::string failed;
    if (description.empty())
        description = text_of(state, "state") + (reason.empty() ? "" : ": " + reason);
    if (const json& failure = state.value("last_failure", json()); failure.is_object()) {
        failed = text_of(failure, "class") + " at " + text_of(failure, "at") + ", " +
                 text_of(failure, "end") + "\n               " + text_of(failure, "line");
    }
    const json& transfers = state["transfers"];
    std::string last;
    for (size_t i = transfers.size() > kTransfersShown ? transfers.size() - kTransfersShown : 0;
         i < transfers.size(); ++i) {
        last += (last.empty() ? "" : "\n               ") + text_of(transfers[i], "at") + " " +
                describe_transfer(transfers[i]);
    }
    const std::pair<const char*, std::string> lines[] = {
        {"configuration:", text_of(state, "config_dir")},
        {"state:", description},
        {"since:", text_of(state, "since")},
        {"paused since:", text_of(state, "paused_since")},
        {"restarts:", state.contains("restarts") ? state["restarts"].dump() : ""},
        {"last failure:", failed},
        {"transfers:", last},
    };
    for (const auto& [label, text] : lines) {
        if (!text.empty()) printf("%-15s%s\n", label, text.c_str());
    }
}

const char kSocketName[] = "endpoint.sock";

// Calls `use` with the socket's address. A socket's path may be no longer
// than 107 bytes, a configuration directory can be: the address goes
// through a descriptor of the directory instead, which fits always.
int with_address(const std::string& config_dir, const std::function<int(const sockaddr_un&)>& use) {
    int dir = ::open(config_dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (dir == -1) return errno;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", dir, kSocketName);
    int err = use(address);
    close(dir);
    return err;
}

}  // namespace

int run_setup(const CommandLine& cli, const Settings& given) {
    Settings settings = given;
    std::string problem, code;
    const int not_ready = class_info(FailureClass::NotReady).exit_status;
    LockResult lock = take_config_lock(settings.config_dir, problem);
    if (lock != LockResult::Taken) return note(problem, lock == LockResult::Held ? 4 : not_ready);
    if (!paths_ready(settings, Command::Setup, problem)) return note(problem, not_ready);
    if (!read_setup_code(code)) return note("no setup code on standard input", 2);
    settings.tool_env["HVN_SETUP_CODE"] = code;
    if (cli.debug) settings.tool_env["HVN_DEBUG"] = "1";

    Loop loop;
    Tool tool;
    ToolEnd end;
    int interrupted = 0;
    int err = loop.open(
        [&](int sig) {
            interrupted = sig;
            tool.stop();
        },
        [&](pid_t pid, int status) {
            if (tool.ended(pid, status, end)) loop.exit(0);
        });
    // Setup mode has no status lines; anything on standard output is shown.
    auto shown = [](const std::string& line) {
        fprintf(stderr, "tool (standard output): %s\n", line.c_str());
    };
    if (err == 0) err = tool.start(loop.event(), settings.tool_path, settings.tool_env, shown);
    if (err != 0) {
        return note("the endpoint is not set up: cannot start " + settings.tool_path + ": " +
                        hvlib::get_strerror_string(err),
                    1);
    }
    loop.run();
    if (interrupted != 0) {
        return note(hvlib::str_sprintf("the endpoint is not set up: interrupted by SIG%s",
                                       sigabbrev_np(interrupted)),
                    1);
    }
    if (!end.signaled && end.value == 0) {
        printf("relaytool-endpoint: the endpoint is set up; its credentials are in %s\n",
               settings.config_dir.c_str());
        return 0;
    }
    Failure failure = tool.failure(end, false);
    const ClassInfo& info = class_info(failure.cls);
    std::string line = failure.line.empty() ? describe_end(end) : failure.line;
    return note(hvlib::str_sprintf("the endpoint is not set up: %s, %s: %s", info.name,
                                   info.description, line.c_str()),
                info.exit_status);
}

int show_status(const std::string& config_dir, bool as_json) {
    // The lock is tested before the file is read: a supervisor that ends in
    // between then shows as running with its last state, never as a stale
    // "running" state without a supervisor.
    json state = settled_state(config_dir, config_lock_holder(config_dir));
    if (as_json) {
        printf("%s\n", state.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
    } else {
        print_for_a_person(state);
    }
    return state["running"].get<bool>() ? 0 : 3;
}

// A POSIX record lock on the whole file, not flock: F_GETLK tests for it
// without taking it and names the holder. Children never inherit it; we keep
// our only descriptor of the file open until we end.
LockResult take_config_lock(const std::string& config_dir, std::string& problem) {
    std::string path = config_dir + "/endpoint.lock";
    std::error_code made;
    mode_t umask_was = umask(077);  // every directory made is private
    std::filesystem::create_directories(config_dir, made);
    umask(umask_was);
    int err = made.value();
    int fd = err != 0 ? -1 : open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    if (fd != -1 && fcntl(fd, F_SETLK, &lock) == 0) return LockResult::Taken;  // fd stays open
    if (err == 0) err = errno;
    if (fd != -1) close(fd);
    if (fd != -1 && (err == EACCES || err == EAGAIN)) {
        problem = hvlib::str_sprintf("another relaytool-endpoint (pid %ld) already runs for %s",
                                     static_cast<long>(config_lock_holder(config_dir)),
                                     config_dir.c_str());
        return LockResult::Held;
    }
    problem = "HVN_CONFIG_DIR: cannot use " + path + ": " + hvlib::get_strerror_string(err);
    return LockResult::Failed;
}

pid_t config_lock_holder(const std::string& config_dir) {
    int fd = open((config_dir + "/endpoint.lock").c_str(), O_RDONLY | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    pid_t holder = 0;
    if (fd != -1 && fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK) holder = lock.l_pid;
    if (fd != -1) close(fd);
    return holder;
}

ControlSocket::~ControlSocket() {
    if (m_fd == -1) return;
    close(m_fd);
    unlink(m_path.c_str());
}

int ControlSocket::open(sd_event* loop, const std::string& config_dir, Handler handler) {
    m_handler = std::move(handler);
    m_path = config_dir + "/" + kSocketName;
    unlink(m_path.c_str());  // we hold the directory: a socket there is a dead one's
    m_fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    int err = m_fd == -1 ? errno : with_address(config_dir, [this](const sockaddr_un& a) {
        const auto* address = reinterpret_cast<const sockaddr*>(&a);
        return bind(m_fd, address, sizeof a) == 0 && listen(m_fd, 4) == 0 ? 0 : errno;
    });
    if (err != 0) {
        if (m_fd != -1) close(m_fd);
        m_fd = -1;
        return err;
    }
    m_listening.readable(loop, m_fd, [this] { accept_one(); });
    return 0;
}

// The command follows the connection at once; should a client of our own
// user stall, the loop waits a second at most.
void ControlSocket::accept_one() {
    int fd = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd == -1) return;
    ucred peer{};
    socklen_t length = sizeof peer;
    timeval second{1, 0};
    char command[64];
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &second, sizeof second);
    ssize_t n = recv(fd, command, sizeof command, 0);  // also from a refused one, or it is reset
    std::string reply = n > 0 ? std::string(command, static_cast<size_t>(n)) : "";
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || peer.uid != geteuid()) {
        reply = hvlib::str_sprintf(
            "1 refused: this relaytool-endpoint runs as user %u, and only that user may pause "
            "or resume it",
            geteuid());
        note(hvlib::str_sprintf("refused a command from user %u (pid %d)", peer.uid, peer.pid));
    } else {
        reply = reply.empty() ? "1 no command" : m_handler(reply);
    }
    send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
    close(fd);
}

int send_command(const std::string& config_dir, const std::string& command) {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    int err = fd == -1 ? errno : with_address(config_dir, [fd](const sockaddr_un& a) {
        return connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0 ? 0 : errno;
    });
    char reply[512] = "";
    if (err == 0) send(fd, command.data(), command.size(), MSG_NOSIGNAL);  // a refusal comes first
    ssize_t n = err != 0 ? -1 : recv(fd, reply, sizeof reply - 1, 0);
    if (n == -1 && err == 0) err = errno;
    if (fd != -1) close(fd);
    if (err == ENOENT || err == ECONNREFUSED) {
        fprintf(stderr, "relaytool-endpoint: no relaytool-endpoint runs for %s\n",
                config_dir.c_str());
        return 3;
    }
    if (err != 0 || n < 2) {
        fprintf(stderr, "relaytool-endpoint: cannot reach the relaytool-endpoint of %s: %s\n",
                config_dir.c_str(),
                err != 0 ? hvlib::get_strerror_string(err).c_str() : "no answer");
        return 1;
    }
    reply[n] = '\0';
    int status = reply[0] - '0';
    fprintf(status == 0 ? stdout : stderr, "relaytool-endpoint: %s\n", reply + 2);
    return status;
}

}  // namespace endpoint
