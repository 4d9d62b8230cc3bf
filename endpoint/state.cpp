#include "state.h"

#include <sys/stat.h>
#include <systemd/sd-daemon.h>

#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

#include "diag.h"
#include "file.h"

namespace endpoint {

namespace {

const char* phase_name(Phase phase) {
    static const char* const kNames[] = {"starting", "connected", "idle",     "active",  "pausing",
                                         "paused",   "waiting",   "stopping", "stopped"};
    return kNames[static_cast<int>(phase)];
}

}  // namespace

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
    std::string why = s.reason.empty() ? "" : ": " + s.reason;
    switch (s.phase) {
        case Phase::Starting:
            if (s.restarts == 0)
                return hvlib::str_sprintf("starting the tool (pid %ld)", s.tool_pid);
            return hvlib::str_sprintf("starting the tool again (restart %d, pid %ld)", s.restarts,
                                      s.tool_pid) +
                   why;
        case Phase::Connected:
            return "connected to the relay as " + s.display_name + " (" + s.web_url + ")";
        case Phase::Active:
            return hvlib::str_sprintf("active, %d worker%s", s.workers, s.workers == 1 ? "" : "s");
        case Phase::Waiting:
            if (!s.has_next_attempt) return "waiting " + s.reason;
            return hvlib::str_sprintf("waiting %s; next attempt at %s (in %.1f s)",
                                      s.reason.c_str(), iso_time(s.next_attempt).c_str(), s.delay);
        case Phase::Paused:
            return "paused since " + iso_time(s.paused_since);
        default:  // idle, pausing, stopping, stopped
            return phase_name(s.phase) + why;
    }
}

std::string to_json(const EndpointState& s) {
    using nlohmann::json;
    auto text = [](const std::string& t) { return t.empty() ? json(nullptr) : json(t); };
    const FailureRecord& f = s.last_failure;
    json failure = {{"class", f.cls}, {"line", f.line}, {"end", f.end}, {"at", iso_time(f.at)}};
    json object = {
        {"state", phase_name(s.phase)},
        {"workers", s.workers},
        {"since", iso_time(s.since)},
        {"restarts", s.restarts},
        {"last_failure", s.has_failure ? failure : json(nullptr)},
        {"next_attempt", s.has_next_attempt ? json(iso_time(s.next_attempt)) : json(nullptr)},
        {"delay", s.has_next_attempt ? json(s.delay) : json(nullptr)},
        {"reason", text(s.reason)},
        {"exit_status", s.exit_status < 0 ? json(nullptr) : json(s.exit_status)},
        {"pid", s.pid},
        {"tool_pid", s.tool_pid > 0 ? json(s.tool_pid) : json(nullptr)},
        {"display_name", text(s.display_name)},
        {"web_url", text(s.web_url)},
        {"config_dir", s.config_dir},
        {"paused_since", s.paused ? json(iso_time(s.paused_since)) : json(nullptr)},
        {"description", describe(s)},
    };
    // Lines from the tool need not be UTF-8: replace what is not.
    return object.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

std::string state_file(const std::string& config_dir) {
    return config_dir + "/endpoint-state.json";
}

std::string paused_mark(const std::string& config_dir) { return config_dir + "/paused"; }

bool paused_since(const std::string& config_dir, WallClock::time_point& since) {
    struct stat st {};
    if (stat(paused_mark(config_dir).c_str(), &st) != 0) return false;
    auto ns = std::chrono::seconds(st.st_mtim.tv_sec) + std::chrono::nanoseconds(st.st_mtim.tv_nsec);
    since = WallClock::time_point(std::chrono::duration_cast<WallClock::duration>(ns));
    return true;
}

void StateRecorder::record(EndpointState& state) {
    if (state.phase != m_last_phase || state.workers != m_last_workers) {
        state.since = WallClock::now();
    }
    m_last_phase = state.phase;
    m_last_workers = state.workers;
    std::string line = describe(state);
    fprintf(stderr, "state: %s\n", line.c_str());

    // The state file is for looking at; a full disk must not stop the
    // endpoint, so a failure is reported once and the work goes on.
    int err = m_path.empty() ? 0 : hvlib::replace_file_atomically(m_path, to_json(state));
    if (err != 0 && !m_write_failed) {
        fprintf(stderr, "relaytool-endpoint: cannot write the state file %s: %s\n", m_path.c_str(),
                hvlib::get_strerror_string(err).c_str());
    } else if (err == 0 && m_write_failed) {
        fprintf(stderr, "relaytool-endpoint: the state file %s is written again\n", m_path.c_str());
    }
    m_write_failed = err != 0;

    if (m_stopping_sent) return;
    for (char& c : line) {
        if (c == '\n') c = ' ';  // would end the STATUS= assignment early
    }
    const char* kind = "";
    if (state.phase == Phase::Stopping || state.phase == Phase::Stopped) {
        m_stopping_sent = true;
        kind = "STOPPING=1\n";
    } else if (!m_ready_sent) {
        m_ready_sent = true;
        kind = "READY=1\n";
    }
    (void)sd_notifyf(0, "%sSTATUS=%s", kind, line.c_str());  // best effort
}

}  // namespace endpoint
