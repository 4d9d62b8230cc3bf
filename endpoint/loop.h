// The one event loop: libsystemd's sd-event. The stop signals and SIGCHLD
// arrive as its events, and when the service manager asks for a watchdog
// (WatchdogSec=) the loop itself sends WATCHDOG=1, so a hung loop is
// restarted. Otherwise, with nothing armed, it sleeps until something happens.
#pragma once

#include <sys/types.h>
#include <systemd/sd-event.h>

#include <functional>

namespace endpoint {

using Action = std::function<void()>;

// One event source that runs an action; released with the object.
class Source {
public:
    Source() = default;
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;
    ~Source() { cancel(); }

    void after(sd_event* loop, long long ms, Action action);  // once; replaces what was armed
    void readable(sd_event* loop, int fd, Action action);     // also at the end of input
    void cancel();
    bool armed() const { return m_source != nullptr; }

private:
    static int on_time(sd_event_source* source, uint64_t usec, void* self);
    static int on_io(sd_event_source* source, int fd, uint32_t events, void* self);

    sd_event_source* m_source = nullptr;
    Action m_action;
};

class Loop {
public:
    Loop() = default;
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;
    ~Loop() { sd_event_unref(m_event); }

    // SIGTERM, SIGINT and SIGHUP go to `on_stop`; every child that ends is
    // reaped and goes to `on_child` with its wait status. 0 or an errno.
    int open(std::function<void(int)> on_stop, std::function<void(pid_t, int)> on_child);
    sd_event* event() const { return m_event; }
    int run() { return sd_event_loop(m_event); }  // until exit(status); returns it
    void exit(int status) { sd_event_exit(m_event, status); }

private:
    sd_event* m_event = nullptr;
    std::function<void(int)> m_on_stop;
    std::function<void(pid_t, int)> m_on_child;
};

// Whether any child of this process is left, ended or not; reaps none.
bool children_left();

}  // namespace endpoint
