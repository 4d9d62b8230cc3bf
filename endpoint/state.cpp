#include "state.h"

#include <ctime>
#include <nlohmann/json.hpp>

#include "diag.h"

namespace endpoint {

const char* phase_name(Phase phase) {
    switch (phase) {
        case Phase::Starting:
            return "starting";
        case Phase::Connected:
            return "connected";
        case Phase::Idle:
            return "idle";
        case Phase::Active:
            return "active";
        case Phase::Paused:
            return "paused";
        case Phase::Waiting:
            return "waiting";
        case Phase::Stopping:
            return "stopping";
        case Phase::Stopped:
            return "stopped";
    }
    hvlib::precondition_failed("phase is known", "endpoint/state", __LINE__);
}

std::string iso_time(WallClock::time_point t) {
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
    time_t seconds = static_cast<time_t>(ms / 1000);
    struct tm utc {};
    gmtime_r(&seconds, &utc);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    return hvlib::str_sprintf("%s.%03dZ", text, static_cast<int>(ms % 1000));
}

std::string describe(const EndpointState& s) {
    switch (s.phase) {
        case Phase::Starting:
            if (s.restarts == 0)
                return hvlib::str_sprintf("starting the tool (pid %ld)", s.tool_pid);
            return hvlib::str_sprintf("starting the tool again (restart %d, pid %ld)", s.restarts,
                                      s.tool_pid);
        case Phase::Connected:
            return "connected to the relay as " + s.display_name + " (" + s.web_url + ")";
        case Phase::Idle:
            return "idle";
        case Phase::Active:
            return hvlib::str_sprintf("active, %d worker%s", s.workers, s.workers == 1 ? "" : "s");
        case Phase::Paused:
            return "paused";
        case Phase::Waiting: {
            std::string text = hvlib::str_sprintf("waiting to reconnect at %s (in %.1f s)",
                                                  iso_time(s.next_attempt).c_str(), s.delay);
            if (s.has_failure) {
                text += " after " + s.last_failure.cls;
                if (!s.last_failure.line.empty()) text += ": " + s.last_failure.line;
            }
            return text;
        }
        case Phase::Stopping:
            return "stopping: " + s.reason;
        case Phase::Stopped:
            return "stopped: " + s.reason;
    }
    hvlib::precondition_failed("phase is known", "endpoint/state", __LINE__);
}

std::string to_json(const EndpointState& s) {
    using nlohmann::json;
    json object = {
        {"state", phase_name(s.phase)},
        {"workers", s.workers},
        {"since", iso_time(s.since)},
        {"restarts", s.restarts},
        {"last_failure", nullptr},
        {"next_attempt", nullptr},
        {"delay", nullptr},
        {"reason", s.reason.empty() ? json(nullptr) : json(s.reason)},
        {"exit_status", s.exit_status < 0 ? json(nullptr) : json(s.exit_status)},
        {"pid", s.pid},
        {"tool_pid", s.tool_pid > 0 ? json(s.tool_pid) : json(nullptr)},
        {"display_name", s.display_name.empty() ? json(nullptr) : json(s.display_name)},
        {"web_url", s.web_url.empty() ? json(nullptr) : json(s.web_url)},
        {"config_dir", s.config_dir},
        {"description", describe(s)},
    };
    if (s.has_failure) {
        object["last_failure"] = {{"class", s.last_failure.cls},
                                  {"line", s.last_failure.line},
                                  {"end", s.last_failure.end},
                                  {"at", iso_time(s.last_failure.at)}};
    }
    if (s.has_next_attempt) {
        object["next_attempt"] = iso_time(s.next_attempt);
        object["delay"] = s.delay;
    }
    // Lines from the tool need not be UTF-8; replace what is not, rather
    // than fail.
    return object.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

}  // namespace endpoint
