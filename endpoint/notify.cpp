#include "notify.h"

#include <systemd/sd-daemon.h>

namespace endpoint {

namespace {

// A line break would end the STATUS= assignment early.
std::string one_line(std::string text) {
    for (char& c : text) {
        if (c == '\n' || c == '\r') c = ' ';
    }
    return text;
}

void send(const std::string& message) {
    // Best effort: the endpoint works the same when no one listens, and
    // sd_notify returns 0 at once when NOTIFY_SOCKET is unset.
    (void)sd_notify(0, message.c_str());
}

}  // namespace

void notify_ready(const std::string& status) { send("READY=1\nSTATUS=" + one_line(status)); }

void notify_status(const std::string& status) { send("STATUS=" + one_line(status)); }

void notify_stopping(const std::string& status) { send("STOPPING=1\nSTATUS=" + one_line(status)); }

}  // namespace endpoint
