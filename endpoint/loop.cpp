#include "loop.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/signalfd.h>
#include <sys/wait.h>

#include <netdb.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <utility>

#include "diag.h"

namespace endpoint {

void Source::after(sd_event* loop, long long ms, Action action) {
    cancel();
    m_action = std::move(action);
    auto on_time = [](sd_event_source*, uint64_t, void* self) {
        auto* source = static_cast<Source*>(self);
        Action action = std::move(source->m_action);
        source->cancel();  // before the action, which may arm it again
        action();
        return 0;
    };
    // Accuracy 1 ms: sd-event's default of 250 ms would blur short back-offs.
    sd_event_add_time_relative(loop, &m_source, CLOCK_MONOTONIC, static_cast<uint64_t>(ms) * 1000,
                               1000, on_time, this);
}

void Source::readable(sd_event* loop, int fd, Action action) {
    cancel();
    m_action = std::move(action);
    auto on_io = [](sd_event_source*, int, uint32_t, void* self) {
        Action action = static_cast<Source*>(self)->m_action;  // a copy: it may cancel its source
        action();
        return 0;
    };
    sd_event_add_io(loop, &m_source, fd, EPOLLIN, on_io, this);
}

void Source::cancel() { m_source = sd_event_source_disable_unref(m_source); }

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

NetworkWatch::~NetworkWatch() {
    m_watch.cancel();
    if (m_fd != -1) close(m_fd);
}

bool NetworkWatch::open(sd_event* loop, Action settled, std::string& why) {
    m_fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    sockaddr_nl groups{};
    groups.nl_family = AF_NETLINK;
    groups.nl_groups =
        RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
    if (m_fd == -1 || bind(m_fd, reinterpret_cast<sockaddr*>(&groups), sizeof groups) != 0) {
        why = "netlink: " + hvlib::get_strerror_string(errno);
        if (m_fd != -1) close(m_fd);
        m_fd = -1;
        return false;
    }
    m_watch.readable(loop, m_fd, [this, loop, settled = std::move(settled)] {
        char buffer[8192];
        ssize_t n = 0;
        // ENOBUFS: more changes than the socket could hold, which says just
        // as well that something changed.
        do n = recv(m_fd, buffer, sizeof buffer, 0);
        while (n > 0 || (n == -1 && errno == ENOBUFS));
        if (!m_settle.armed()) m_settle.after(loop, kSettleMs, settled);
    });
    return true;
}

void RelayRoute::resolve() {
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(m_host.c_str(), m_port.c_str(), &hints, &found) != 0) return;
    memcpy(&m_address, found->ai_addr, found->ai_addrlen);  // the first, as ssh tries it first
    m_length = found->ai_addrlen;
    freeaddrinfo(found);
}

Route RelayRoute::local_address(std::string& local) {
    if (m_length == 0) resolve();
    int fd = m_length == 0 ? -1 : socket(m_address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd == -1) return Route::Unknown;
    Route route = Route::Unknown;
    sockaddr_storage own{};
    socklen_t length = sizeof own;
    char text[NI_MAXHOST];
    if (connect(fd, reinterpret_cast<sockaddr*>(&m_address), m_length) != 0) {
        if (errno == ENETUNREACH || errno == EHOSTUNREACH || errno == EADDRNOTAVAIL) {
            route = Route::None;
        }
    } else if (getsockname(fd, reinterpret_cast<sockaddr*>(&own), &length) == 0 &&
               getnameinfo(reinterpret_cast<sockaddr*>(&own), length, text, sizeof text, nullptr, 0,
                           NI_NUMERICHOST) == 0) {
        local = text;
        route = Route::Known;
    }
    close(fd);
    return route;
}

SleepWatch::~SleepWatch() {
    sd_bus_slot_unref(m_slot);
    sd_bus_flush_close_unref(m_bus);
}

bool SleepWatch::open(sd_event* loop, std::function<void(bool)> changed, std::string& why) {
    m_changed = std::move(changed);
    auto on_signal = [](sd_bus_message* message, void* self, sd_bus_error*) {
        int sleeping = 0;
        if (sd_bus_message_read(message, "b", &sleeping) >= 0) {
            static_cast<SleepWatch*>(self)->m_changed(sleeping != 0);
        }
        return 0;
    };
    auto on_subscribed = [](sd_bus_message* reply, void*, sd_bus_error*) {
        const sd_bus_error* error = sd_bus_message_get_error(reply);
        const char* said = error ? "sleep and resume are not followed: " : "following sleep";
        fprintf(stderr, "relaytool-endpoint: %s%s\n", said, error ? error->message : " and resume");
        return 0;
    };
    // Only logind may send it: a match on the well-known name is one on
    // whoever owns it.
    int rc = sd_bus_open_system(&m_bus);
    if (rc >= 0) {
        rc = sd_bus_match_signal_async(m_bus, &m_slot, "org.freedesktop.login1",
                                       "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                       "PrepareForSleep", on_signal, on_subscribed, this);
    }
    if (rc >= 0) rc = sd_bus_attach_event(m_bus, loop, SD_EVENT_PRIORITY_NORMAL);
    if (rc < 0) {
        why = "no system bus: " + hvlib::get_strerror_string(-rc);
        m_slot = sd_bus_slot_unref(m_slot);
        m_bus = sd_bus_flush_close_unref(m_bus);
    }
    return rc >= 0;
}

}  // namespace endpoint
