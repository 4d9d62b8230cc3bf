// pdeath: run a program that must not outlive a given parent process.
//
//   pdeath <pid> <program> <argv0> [args...]
//   pdeath --version
//
// The relay tool starts ssh through this helper so that ssh goes away when
// the relay tool does, however the relay tool ends (including SIGKILL).
// <pid> is the relay tool's process id, which must be our parent; <program>
// is executed with argv[0] set to <argv0> and the remaining arguments,
// inheriting our environment and standard descriptors.
//
// On Linux the kernel does the watching: PR_SET_PDEATHSIG makes it send us
// SIGKILL when the parent goes, and the setting survives execv, so the
// program simply replaces this process.
//
// Elsewhere (or when built with PDEATH_PORTABLE) we fork, run the program
// in the child and poll the parent every 100 ms. When the parent has gone
// the program gets SIGTERM, then SIGKILL half a second later. Either way the
// process the relay tool waits for ends the way the program ended: with its
// exit status or killed by the same signal.

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include <sys/types.h>
#include <unistd.h>

#if !defined(PDEATH_PORTABLE) && defined(__linux__)
#include <sys/prctl.h>
#endif

#if !defined(PDEATH_PORTABLE) && defined(PR_SET_PDEATHSIG)
#define PDEATH_USE_PRCTL 1
#else
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/wait.h>
#endif

namespace {

constexpr int kUsageStatus = 2;
constexpr int kParentGoneStatus = 1;
constexpr int kExecFailedStatus = 127;

void usage() { std::fputs("usage: pdeath <pid> <program> <argv0> [args...]\n", stderr); }

// Accepts only plain decimal digits ("12", not "+12", " 12" or "0x0c"),
// with a value from 1 to the largest pid_t.
bool parse_pid(const char* text, pid_t& out) {
    if (*text == '\0') return false;
    constexpr long long max = std::numeric_limits<pid_t>::max();
    long long value = 0;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p < '0' || *p > '9') return false;
        value = value * 10 + (*p - '0');
        if (value > max) return false;
    }
    if (value == 0) return false;
    out = static_cast<pid_t>(value);
    return true;
}

void report_not_parent(pid_t parent) {
    std::fprintf(stderr, "pdeath: process %ld is not our parent (it may have exited)\n",
                 static_cast<long>(parent));
}

// Only returns if execv failed; the caller exits with kExecFailedStatus.
void exec_program(char* const* argv, const char* program) {
    execv(program, argv);
    std::fprintf(stderr, "pdeath: cannot execute '%s': %s\n", program, std::strerror(errno));
}

#ifdef PDEATH_USE_PRCTL

int run(pid_t parent, const char* program, char* const* argv) {
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) == -1) {
        std::fprintf(stderr, "pdeath: prctl(PR_SET_PDEATHSIG): %s\n", std::strerror(errno));
        return kParentGoneStatus;
    }
    // If the parent died before prctl took effect we have already been
    // reparented and no signal will come, so check after setting it.
    if (getppid() != parent) {
        report_not_parent(parent);
        return kParentGoneStatus;
    }
    exec_program(argv, program);
    return kExecFailedStatus;
}

#else

// Signals we pass on to the program, and SIGCHLD to wake up when it ends.
constexpr int kForwarded[] = {SIGTERM, SIGINT, SIGHUP};
constexpr int kWatched[] = {SIGTERM, SIGINT, SIGHUP, SIGCHLD};
constexpr int kWatchedCount = sizeof kWatched / sizeof kWatched[0];

// Set by the handler, read by the main loop with the signals blocked.
volatile std::sig_atomic_t g_received[NSIG];

extern "C" void note_signal(int sig) { g_received[sig] = 1; }

bool parent_has_gone(pid_t parent) {
    return getppid() != parent || (kill(parent, 0) == -1 && errno == ESRCH);
}

// End this process the way the program ended.
[[noreturn]] void exit_like(int status) {
    if (WIFEXITED(status)) std::exit(WEXITSTATUS(status));
    const int sig = WTERMSIG(status);
    // The program has already dumped core if it was going to; a second,
    // misleading core from this process is of no use.
    const struct rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    std::signal(sig, SIG_DFL);
    sigset_t just_sig;
    sigemptyset(&just_sig);
    sigaddset(&just_sig, sig);
    sigprocmask(SIG_UNBLOCK, &just_sig, nullptr);
    raise(sig);
    // Only reached for a signal whose default action does not terminate.
    std::_Exit(128 + sig);
}

int run(pid_t parent, const char* program, char* const* argv) {
    if (parent_has_gone(parent)) {
        report_not_parent(parent);
        return kParentGoneStatus;
    }

    // Block the watched signals before forking so that none is lost between
    // fork and the wait loop; they are only let through inside pselect. The
    // SIGCHLD handler also overrides an inherited SIG_IGN, which would make
    // the kernel reap the program behind our back.
    sigset_t watched, original_mask, wait_mask;
    sigemptyset(&watched);
    for (int sig : kWatched) sigaddset(&watched, sig);
    sigprocmask(SIG_BLOCK, &watched, &original_mask);
    wait_mask = original_mask;
    for (int sig : kWatched) sigdelset(&wait_mask, sig);

    struct sigaction handler {
    }, original_action[kWatchedCount];
    handler.sa_handler = note_signal;
    sigemptyset(&handler.sa_mask);
    for (int i = 0; i < kWatchedCount; ++i) sigaction(kWatched[i], &handler, &original_action[i]);

    const pid_t child = fork();
    if (child == -1) {
        std::fprintf(stderr, "pdeath: fork: %s\n", std::strerror(errno));
        return kExecFailedStatus;
    }
    if (child == 0) {
        // The program starts with the signal state we were given.
        for (int i = 0; i < kWatchedCount; ++i)
            sigaction(kWatched[i], &original_action[i], nullptr);
        sigprocmask(SIG_SETMASK, &original_mask, nullptr);
        exec_program(argv, program);
        _exit(kExecFailedStatus);
    }

    using Clock = std::chrono::steady_clock;
    bool parent_gone = false, sent_kill = false;
    Clock::time_point kill_at;
    const struct timespec poll_interval = {0, 100L * 1000 * 1000};

    for (;;) {
        for (int sig : kForwarded) {
            if (g_received[sig]) {
                g_received[sig] = 0;
                kill(child, sig);
            }
        }
        g_received[SIGCHLD] = 0;

        int status;
        const pid_t reaped = waitpid(child, &status, WNOHANG);
        if (reaped == child) exit_like(status);
        if (reaped == -1 && errno != EINTR) {
            std::fprintf(stderr, "pdeath: waitpid: %s\n", std::strerror(errno));
            return kParentGoneStatus;
        }

        if (!parent_gone && parent_has_gone(parent)) {
            parent_gone = true;
            kill(child, SIGTERM);
            kill_at = Clock::now() + std::chrono::milliseconds(500);
        } else if (parent_gone && !sent_kill && Clock::now() >= kill_at) {
            sent_kill = true;
            kill(child, SIGKILL);
        }

        // Sleep until the next poll, or until a watched signal arrives.
        pselect(0, nullptr, nullptr, nullptr, &poll_interval, &wait_mask);
    }
}

#endif

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::fputs("pdeath (relaytool) " RELAYTOOL_VERSION "\n", stdout);
        return 0;
    }
    pid_t parent;
    if (argc < 4 || !parse_pid(argv[1], parent)) {
        usage();
        return kUsageStatus;
    }
    return run(parent, argv[2], argv + 3);
}
