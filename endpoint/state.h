// The supervisor's state as people and scripts see it: one line for the
// journal and the service manager, and a JSON object in the state file.
#pragma once

#include <chrono>
#include <string>

namespace endpoint {

using WallClock = std::chrono::system_clock;

enum class Phase { Starting, Connected, Idle, Active, Paused, Waiting, Stopping, Stopped };

const char* phase_name(Phase phase);

struct FailureRecord {
    std::string cls;   // the class's name
    std::string line;  // the tool's line that showed it, or empty
    std::string end;   // "exit status 1", "signal 9 (Killed)"
    WallClock::time_point at;
};

struct EndpointState {
    Phase phase = Phase::Starting;
    int workers = 0;
    WallClock::time_point since;
    int restarts = 0;  // tool starts after a failure, since the supervisor started
    bool has_failure = false;
    FailureRecord last_failure;
    bool has_next_attempt = false;  // while waiting
    WallClock::time_point next_attempt;
    double delay = 0;          // the back-off in force while waiting, seconds
    std::string reason;        // why it stops or stopped
    int exit_status = -1;      // once stopped: relaytool-endpoint's own exit status
    long pid = 0;              // relaytool-endpoint's
    long tool_pid = 0;         // the tool's, while one runs
    std::string display_name;  // the endpoint as the relay names it, decoded
    std::string web_url;
    std::string config_dir;
};

// "2024-05-01T12:00:00.250Z"
std::string iso_time(WallClock::time_point t);

// One line, for standard error and the service manager's STATUS.
std::string describe(const EndpointState& state);

// The state file's contents: one JSON object and a line end.
std::string to_json(const EndpointState& state);

}  // namespace endpoint
