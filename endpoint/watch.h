// What the computer says about the way to the relay. The kernel announces
// address and route changes (rtnetlink) and tells which local address it
// would use to reach the relay when a UDP socket connect()s (no packet
// leaves): enough to know whether a change can have broken the tunnel, so
// no message is parsed. logind announces sleep and resume on the system bus.
#pragma once

#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <functional>
#include <string>
#include <utility>

#include "loop.h"

namespace endpoint {

class NetworkWatch {
public:
    // Changes that come in a burst (a link going down takes its addresses
    // and routes with it) are reported once, this long after the first.
    static constexpr long long kSettleMs = 500;

    NetworkWatch() = default;
    NetworkWatch(const NetworkWatch&) = delete;
    NetworkWatch& operator=(const NetworkWatch&) = delete;
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

class SleepWatch {
public:
    SleepWatch() = default;
    SleepWatch(const SleepWatch&) = delete;
    SleepWatch& operator=(const SleepWatch&) = delete;
    ~SleepWatch();

    // `changed` gets PrepareForSleep's true before a sleep, false after it.
    bool open(sd_event* loop, std::function<void(bool)> changed, std::string& why);

private:
    sd_bus* m_bus = nullptr;
    sd_bus_slot* m_slot = nullptr;
    std::function<void(bool)> m_changed;
};

}  // namespace endpoint
