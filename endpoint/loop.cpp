#include "loop.h"

#include <sys/signalfd.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <utility>

namespace endpoint {

void Source::after(sd_event* loop, long long ms, Action action) {
    cancel();
    m_action = std::move(action);
    // Accuracy 1 ms: sd-event's default of 250 ms would blur short back-offs.
    sd_event_add_time_relative(loop, &m_source, CLOCK_MONOTONIC, static_cast<uint64_t>(ms) * 1000,
                               1000, on_time, this);
}

void Source::readable(sd_event* loop, int fd, Action action) {
    cancel();
    m_action = std::move(action);
    sd_event_add_io(loop, &m_source, fd, EPOLLIN, on_io, this);
}

void Source::cancel() { m_source = sd_event_source_disable_unref(m_source); }

int Source::on_time(sd_event_source*, uint64_t, void* self) {
    auto* source = static_cast<Source*>(self);
    Action action = std::move(source->m_action);
    source->cancel();  // before the action, which may arm it again
    action();
    return 0;
}

int Source::on_io(sd_event_source*, int, uint32_t, void* self) {
    Action action = static_cast<Source*>(self)->m_action;  // a copy: it may cancel its source
    action();
    return 0;
}

int Loop::open(std::function<void(int)> on_stop, std::function<void(pid_t, int)> on_child) {
    m_on_stop = std::move(on_stop);
    m_on_child = std::move(on_child);
    // Blocked, the signals wait in the loop's signalfd (children start with
    // an empty mask); a write to a tool that has gone must not end us.
    sigset_t mask;
    sigemptyset(&mask);
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) sigaddset(&mask, sig);
    signal(SIGPIPE, SIG_IGN);
    int rc = sigprocmask(SIG_BLOCK, &mask, nullptr) != 0 ? -errno : sd_event_new(&m_event);
    auto on_signal = [](sd_event_source*, const struct signalfd_siginfo* info, void* self) {
        auto* loop = static_cast<Loop*>(self);
        int status = 0;
        if (info->ssi_signo != SIGCHLD) {
            loop->m_on_stop(static_cast<int>(info->ssi_signo));
        } else {  // one SIGCHLD may stand for several children
            for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;)
                loop->m_on_child(pid, status);
        }
        return 0;
    };
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) {
        if (rc >= 0) rc = sd_event_add_signal(m_event, nullptr, sig, on_signal, this);
    }
    if (rc >= 0) rc = sd_event_set_watchdog(m_event, 1);
    return rc < 0 ? -rc : 0;
}

bool children_left() {
    siginfo_t info{};
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

}  // namespace endpoint
