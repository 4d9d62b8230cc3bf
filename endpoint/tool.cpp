#include "tool.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <utility>

#include "diag.h"
#include "file.h"
#include "strutil.h"

namespace endpoint {

namespace {

const ClassInfo kClasses[] = {
#define CLASS(id, name, final, backoff, status, why) \
    {name, final, BackoffKind::backoff, status, why},
#include "classes.def"
#undef CLASS
};

// The table's order is the order of precedence.
size_t rank(FailureClass cls) { return static_cast<size_t>(cls); }

const char kSshPrefix[] = "[ssh stderr] ";
const char kWorkerPrefix[] = "[ftp stderr] ";

struct Rule {
    const char* text;  // matched anywhere in the line
    bool ssh;          // a line of ssh's, which the tool copies behind kSshPrefix
    FailureClass cls;
};

// The tool's own words, and the OpenSSH client's.
const Rule kRules[] = {
    {"failed precondition '", false, FailureClass::Internal},
    {"Env var '", false, FailureClass::Setting},
    {"Fatal Error: No HVN credentials found", false, FailureClass::NoCredentials},
    {"Fatal Error: Couldn't ", false, FailureClass::Files},  // open, read, write, close
    {"Relay server error: ", false, FailureClass::RelayError},
    {"Fatal Error: Unexpected server message", false, FailureClass::Protocol},
    {"Fatal Error: Key '", false, FailureClass::Protocol},
    {"Fatal Error: bad server message", false, FailureClass::Protocol},
    {"Fatal Posix Error: ", false, FailureClass::SystemCall},
    {"Host key verification failed", true, FailureClass::HostKey},
    {"REMOTE HOST IDENTIFICATION HAS CHANGED", true, FailureClass::HostKey},
    {"host key is known for", true, FailureClass::HostKey},  // "No RSA host key ..."
    {"Permission denied (", true, FailureClass::AccountRefused},
    {"pdeath: cannot execute '", true, FailureClass::NotReady},  // ssh being installed
    {"Load key ", true, FailureClass::Files},
    {"ssh: connect to host ", true, FailureClass::RelayUnreachable},
    {"ssh: Could not resolve hostname ", true, FailureClass::RelayUnreachable},
    {"kex_exchange_identification: ", true, FailureClass::RelayUnreachable},
    {"Connection closed by ", true, FailureClass::RelayUnreachable},
    {"Connection reset by ", true, FailureClass::RelayUnreachable},
    {" closed by remote host", true, FailureClass::ConnectionLost},
    {"Timeout, server ", true, FailureClass::ConnectionLost},
    {"client_loop: send disconnect", true, FailureClass::ConnectionLost},
    {"Broken pipe", true, FailureClass::ConnectionLost},
};

bool classify_line(const std::string& line, FailureClass& cls) {
    if (line.compare(0, sizeof kWorkerPrefix - 1, kWorkerPrefix) == 0) return false;
    bool from_ssh = line.compare(0, sizeof kSshPrefix - 1, kSshPrefix) == 0;
    std::string text = from_ssh ? line.substr(sizeof kSshPrefix - 1) : line;
    for (const Rule& rule : kRules) {
        if (rule.ssh == from_ssh && text.find(rule.text) != std::string::npos) {
            cls = rule.cls;
            return true;
        }
    }
    return false;
}

}  // namespace

const ClassInfo& class_info(FailureClass cls) { return kClasses[rank(cls)]; }

std::string describe_end(const ToolEnd& end) {
    if (!end.signaled) return hvlib::str_sprintf("exit status %d", end.value);
    return hvlib::str_sprintf("signal %d (%s)", end.value, strsignal(end.value));
}

void FailureClassifier::feed(const std::string& line) {
    FailureClass cls;
    if (!classify_line(line, cls)) return;
    // Ties keep the earlier line: it is nearer the cause.
    if (!m_found || rank(cls) < rank(m_cls)) {
        m_found = true;
        m_cls = cls;
        m_line = line;
    }
}

Failure FailureClassifier::finish(const ToolEnd& end, bool connected) const {
    Failure failure{m_cls, m_line, end};
    // The exit status and the signal decide where the lines say nothing or
    // less: exit status 2 is the tool's missing setting, and a signal other
    // than the abort of a failed precondition came from outside.
    if (!end.signaled && end.value == 2 && rank(FailureClass::Setting) < rank(failure.cls)) {
        failure.cls = FailureClass::Setting;
    } else if (end.signaled && failure.cls != FailureClass::Internal) {
        failure = {FailureClass::Signal, "", end};
    } else if (connected && (!m_found || failure.cls == FailureClass::RelayUnreachable)) {
        // A relay that logged us in was reachable; ssh often ends quietly.
        failure.cls = FailureClass::ConnectionLost;
    }
    return failure;
}

Tool::~Tool() {
    // A tool still running when we end on a fault goes with us.
    if (m_pid > 0) kill(m_pid, SIGKILL);
    close_all();
}

int Tool::start(sd_event* loop, const std::string& path, const EnvMap& env, LineHandler out,
                LineHandler err) {
    // Every pipe end is close-on-exec; the tool's three are copied onto 0, 1
    // and 2, which clears the flag on the copies only.
    int fds[6] = {-1, -1, -1, -1, -1, -1};
    for (int i = 0; i < 6; i += 2) {
        if (pipe2(fds + i, O_CLOEXEC) == 0) continue;
        int err = errno;
        for (int fd : fds) close(fd);  // -1 for those not made: EBADF, harmless
        return err;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int fd = 0; fd < 3; ++fd)
        posix_spawn_file_actions_adddup2(&actions, fds[2 * fd + (fd > 0)], fd);
    // Our own descriptors are close-on-exec, but whoever started us may have
    // left others open: the tool must get 0, 1 and 2 only.
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);

    // The signal state of a fresh process, and a process group of its own:
    // a Ctrl-C at a terminal is for us, and we stop the tool our way.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none, defaults;  // nothing blocked, nothing ignored (as we may have been)
    sigemptyset(&none);
    sigfillset(&defaults);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(
        &attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);

    std::vector<std::string> entries;
    for (const auto& [key, value] : env) entries.emplace_back(key).append("=").append(value);
    std::vector<char*> envp(entries.size() + 1, nullptr);
    for (size_t i = 0; i < entries.size(); ++i) envp[i] = &entries[i][0];
    std::string argv0 = "relaytool";
    char* argv[] = {&argv0[0], nullptr};

    int rc = posix_spawn(&m_pid, path.c_str(), &actions, &attr, argv, envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    for (int fd : {fds[0], fds[3], fds[5]}) close(fd);
    m_loop = loop;
    m_stdin = fds[1];
    m_out.fd = fds[2];
    m_err.fd = fds[4];
    if (rc != 0) {
        m_pid = -1;
        close_all();
        return rc;
    }
    m_out.handler = std::move(out);
    m_classifier = FailureClassifier();
    m_err.handler = [this, err = std::move(err)](const std::string& line) {
        fprintf(stderr, "tool: %s\n", line.c_str());
        m_classifier.feed(line);
        if (err) err(line);
    };
    for (Stream* s : {&m_out, &m_err}) {
        fcntl(s->fd, F_SETFL, O_NONBLOCK);
        s->source.readable(loop, s->fd, [this, s] {
            while (read_from(*s)) continue;
        });
    }
    return 0;
}

bool Tool::read_from(Stream& s) {
    if (s.fd == -1) return false;
    char buffer[16384];
    ssize_t n = read(s.fd, buffer, sizeof buffer);
    if (n == -1 && (errno == EAGAIN || errno == EINTR)) return false;
    if (n <= 0) {  // end of file, or a read error that no retry would mend
        s.source.cancel();
        close(s.fd);
        s.fd = -1;
        pass_on(s, s.partial.size());
        return false;
    }
    s.partial.append(buffer, static_cast<size_t>(n));
    size_t cut = s.partial.size() >= kMaxLine ? s.partial.size() : s.partial.rfind('\n');
    if (cut != std::string::npos) pass_on(s, cut);
    return true;
}

void Tool::pass_on(Stream& s, size_t cut) {
    if (s.partial.empty()) return;
    std::string text = s.partial.substr(0, cut);
    s.partial.erase(0, cut + 1);
    for (std::string& line : hvlib::split(text, "\n", -1)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        s.handler(line);
    }
}

void Tool::stop(bool at_once) {
    if (m_pid <= 0) return;
    if (m_stdin == -1 || at_once) return (void)kill(m_pid, SIGKILL);
    close(m_stdin);  // the tool ends at once, and pdeath takes ssh with it
    m_stdin = -1;
    m_kill.after(m_loop, kStopGraceMs, [this] { kill(m_pid, SIGKILL); });
}

bool Tool::ended(pid_t pid, int status, ToolEnd& end) {
    if (pid != m_pid || m_pid <= 0) return false;
    end.signaled = WIFSIGNALED(status);
    end.value = end.signaled ? WTERMSIG(status) : WEXITSTATUS(status);
    m_pid = -1;  // reaped: its number may be another process's from now on
    // What it wrote before it ended is in the pipes: take all of it.
    for (Stream* s : {&m_out, &m_err}) {
        while (read_from(*s)) continue;
        pass_on(*s, s->partial.size());
    }
    close_all();
    return true;
}

std::vector<pid_t> workers_of(pid_t parent) {
    std::string children;
    hvlib::try_read_file_contents(hvlib::str_sprintf("/proc/%d/task/%d/children", parent, parent),
                                  children);
    std::vector<pid_t> workers;
    for (const std::string& pid : hvlib::split(hvlib::strip(children), " ", -1)) {
        char link[16] = "";
        std::string fd = "/proc/" + pid + "/fd/0";
        if (readlink(fd.c_str(), link, sizeof link - 1) > 0 && strncmp(link, "socket:", 7) == 0) {
            workers.push_back(atoi(pid.c_str()));
        }
    }
    return workers;
}

void Tool::close_all() {
    m_kill.cancel();
    for (int* fd : {&m_stdin, &m_out.fd, &m_err.fd}) {
        if (*fd != -1) close(*fd);
        *fd = -1;
    }
    m_out.source.cancel();
    m_err.source.cancel();
}

}  // namespace endpoint
