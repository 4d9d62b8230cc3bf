// The one event loop, libsystemd's sd-event, and what it watches: signals,
// children, the kernel's address and route changes (rtnetlink) and logind's
// sleep and resume. When the service manager asks for a watchdog
// (WatchdogSec=) the loop itself sends WATCHDOG=1, so a hung loop is
// restarted; otherwise, with nothing armed, it sleeps until something happens.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <functional>
#include <string>
#include <utility>

namespace endpoint {

using Action = std::function<void()>;

// What holds a descriptor or an event source is never copied.
struct Pinned {
    Pinned() = default;
    Pinned(const Pinned&) = delete;
    Pinned& operator=(const Pinned&) = delete;
};

// One event source that runs an action; released with the object.
class Source : Pinned {
public:
    ~Source() { cancel(); }

    void after(sd_event* loop, long long ms, Action action);  // once; replaces what was armed
    void readable(sd_event* loop, int fd, Action action);     // also at the end of input
    void cancel();
    bool armed() const { return m_source != nullptr; }

private:
    sd_event_source* m_source = nullptr;
    Action m_action;
};

class Loop : Pinned {
public:
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

// The kernel announces address and route changes and tells which local
// address it would use to reach the relay when a UDP socket connect()s (no
// packet leaves): enough to know whether a change can have broken the
// tunnel, so no message is parsed.
class NetworkWatch : Pinned {
public:
    // Changes that come in a burst (a link going down takes its addresses
    // and routes with it) are reported once, this long after the first.
    static constexpr long long kSettleMs = 500;

    ~NetworkWatch();

    bool open(sd_event* loop, Action settled, std::string& why);  // false: why not
    bool active() const { return m_fd != -1; }

private:
    int m_fd = -1;
    Source m_watch, m_settle;
};

enum class Route { Known, None, Unknown };

class RelayRoute {
public:
    RelayRoute(std::string host, std::string port)
        : m_host(std::move(host)), m_port(std::move(port)) {}
    // Looks the relay's name up again: after a login, when it is known to
    // resolve (without a network a lookup can take seconds).
    void resolve();
    // The local address the kernel would use to reach the relay now; None
    // without a route; Unknown while the relay's address is.
    Route local_address(std::string& local);

private:
    std::string m_host, m_port;
    sockaddr_storage m_address{};
    socklen_t m_length = 0;
};

class SleepWatch : Pinned {
public:
    ~SleepWatch();

    // `changed` gets PrepareForSleep's true before a sleep, false after it.
    bool open(sd_event* loop, std::function<void(bool)> changed, std::string& why);

private:
    sd_bus* m_bus = nullptr;
    sd_bus_slot* m_slot = nullptr;
    std::function<void(bool)> m_changed;
};

}  // namespace endpoint
