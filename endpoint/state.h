// The supervisor's state as people and scripts see it, made known at every
// change: a line on standard error (for the journal), the service manager's
// STATUS= (systemd's notification protocol, sent only if it set
// NOTIFY_SOCKET), and a JSON object in the state file, replaced whole.
#pragma once

#include <chrono>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

namespace endpoint {

using WallClock = std::chrono::system_clock;

enum class Phase { Starting, Connected, Idle, Active, Pausing, Paused, Waiting, Stopping, Stopped };

struct FailureRecord {
    std::string cls, line, end;  // its class, the tool's line that showed it, "exit status 1"
    WallClock::time_point at;
};

struct EndpointState {
    Phase phase = Phase::Starting;
    int workers = 0;
    WallClock::time_point since;
    int restarts = 0;  // tool starts after the first
    bool has_failure = false;
    FailureRecord last_failure;
    bool has_next_attempt = false;  // while waiting for a back-off
    WallClock::time_point next_attempt;
    double delay = 0;      // the back-off in force while waiting, seconds
    std::string reason;    // why the tool starts again, what we wait for, why we stop
    int exit_status = -1;  // once stopped
    long pid = 0, tool_pid = 0;
    std::string display_name, web_url;  // as the relay sent them, decoded
    bool paused = false;                // asked to pause, and not resumed since
    WallClock::time_point paused_since;
};

std::string iso_time(WallClock::time_point t);  // "2024-05-01T12:00:00.250Z"

// One line, for standard error and the service manager's STATUS.
std::string describe(const EndpointState& state);

// The state file's contents: one JSON object and a line end.
std::string to_json(const EndpointState& state);

std::string state_file(const std::string& config_dir);

// The mark that `pause` leaves in the configuration directory until
// `resume`; its time is when the pause was asked for. False if there is none.
std::string paused_mark(const std::string& config_dir);
bool paused_since(const std::string& config_dir, WallClock::time_point& since);

class StateRecorder {
public:
    // From now on the state also goes to the state file in `config_dir`;
    // only once this process holds the directory.
    void write_into(const std::string& config_dir) { m_path = state_file(config_dir); }
    bool writing() const { return !m_path.empty(); }

    // The first record also tells the service manager that we are ready,
    // the first in Stopping or Stopped that we are stopping.
    void record(EndpointState& state);

private:
    std::string m_path;
    bool m_ready_sent = false, m_stopping_sent = false, m_write_failed = false;
    Phase m_last_phase = Phase::Starting;
    int m_last_workers = -1;
};

// What was transferred, from the GridFTP server's own records: with the
// log level TRANSFER it writes one "Transfer stats:" line for each finished
// transfer, and at INFO the subject it authorized, both behind its process
// id ("[PID] DATE :: ..."), which ties a record to the subject of the one
// client that this worker serves. Each record becomes a line of our log and
// an entry of a bounded history in the configuration directory.
class TransferHistory {
public:
    static constexpr size_t kKept = 100;  // the latest ones

    // The history kept there so far; a missing or broken file is none.
    static nlohmann::json load(const std::string& config_dir);

    void keep_in(const std::string& config_dir);

    // One line of the tool's standard error; true if it recorded a transfer.
    bool feed(const std::string& line);

private:
    std::string m_path;
    nlohmann::json m_entries = nlohmann::json::array();
    std::map<std::string, std::string> m_subjects;  // by the worker's process id
    bool m_write_failed = false;
};

// Writes a file that is there for looking at: a full disk must not stop the
// endpoint, so a failure is reported once, and so is the recovery.
void write_for_looking(const char* what, const std::string& path, const std::string& text,
                       bool& failed);

// "sent /data/a.txt, 1048576 bytes in 2.0 s (524.3 kB/s), for SUBJECT: ok"
std::string describe_transfer(const nlohmann::json& entry);

}  // namespace endpoint
