#include "state.h"

#include <sys/stat.h>
#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

#include "diag.h"
#include "file.h"

namespace endpoint {

namespace {

const char* phase_name(Phase phase) {
    static const char* const kNames[] = {"starting", "connected", "idle",     "active", "pausing",
                                         "paused",   "waiting",   "stopping", "stopped"};
    return kNames[static_cast<int>(phase)];
}

using nlohmann::json;

const char kWorkerPrefix[] = "[ftp stderr] [";

std::string history_file(const std::string& config_dir) { return config_dir + "/transfers.json"; }

// A field of the record: up to the next blank, or for FILE (which holds a
// path as it is, blanks too) up to the field that follows it.
std::string field(const std::string& record, const std::string& key) {
    size_t start = record.find(" " + key + "=");
    if (start == std::string::npos) return "";
    start += key.size() + 2;
    size_t end = record.find(key == "FILE" ? " BUFFER=" : " ", start);
    return record.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

// "20240501120000.250000", in UTC, as seconds since the epoch.
double seconds_of(const std::string& stamp) {
    struct tm utc {};
    if (stamp.size() < 14 || !strptime(stamp.substr(0, 14).c_str(), "%Y%m%d%H%M%S", &utc)) return 0;
    return static_cast<double>(timegm(&utc)) + atof(stamp.substr(14).c_str());
}

std::string rate_of(double bytes_per_second) {
    const char* units[] = {"B/s", "kB/s", "MB/s", "GB/s"};
    int unit = 0;
    for (; unit < 3 && bytes_per_second >= 1000; ++unit) bytes_per_second /= 1000;
    return hvlib::str_sprintf("%.1f %s", bytes_per_second, units[unit]);
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
        {"paused_since", s.paused ? json(iso_time(s.paused_since)) : json(nullptr)},
        {"description", describe(s)}};
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
    auto ns =
        std::chrono::seconds(st.st_mtim.tv_sec) + std::chrono::nanoseconds(st.st_mtim.tv_nsec);
    since = WallClock::time_point(std::chrono::duration_cast<WallClock::duration>(ns));
    return true;
}

void write_for_looking(const char* what, const std::string& path, const std::string& text,
                       bool& failed) {
    int err = hvlib::replace_file_atomically(path, text);
    if (err != 0 && !failed) {
        fprintf(stderr, "relaytool-endpoint: cannot write %s %s: %s\n", what, path.c_str(),
                hvlib::get_strerror_string(err).c_str());
    } else if (err == 0 && failed) {
        fprintf(stderr, "relaytool-endpoint: %s %s is written again\n", what, path.c_str());
    }
    failed = err != 0;
}

void StateRecorder::record(EndpointState& state) {
    if (state.phase != m_last_phase || state.workers != m_last_workers)
        state.since = WallClock::now();
    m_last_phase = state.phase;
    m_last_workers = state.workers;
    std::string line = describe(state);
    fprintf(stderr, "state: %s\n", line.c_str());

    if (!m_path.empty())
        write_for_looking("the state file", m_path, to_json(state), m_write_failed);

    if (m_stopping_sent) return;
    std::replace(line.begin(), line.end(), '\n', ' ');  // would end the STATUS= assignment early
    m_stopping_sent = state.phase == Phase::Stopping || state.phase == Phase::Stopped;
    const char* kind = m_stopping_sent ? "STOPPING=1\n" : m_ready_sent ? "" : "READY=1\n";
    m_ready_sent = true;
    (void)sd_notifyf(0, "%sSTATUS=%s", kind, line.c_str());  // best effort
}

json TransferHistory::load(const std::string& config_dir) {
    std::string text;
    hvlib::try_read_file_contents(history_file(config_dir), text);
    json entries = json::parse(text, nullptr, false);
    return entries.is_array() ? entries : json::array();
}

void TransferHistory::keep_in(const std::string& config_dir) {
    m_path = history_file(config_dir);
    m_entries = load(config_dir);
}

bool TransferHistory::feed(const std::string& line) {
    if (line.compare(0, sizeof kWorkerPrefix - 1, kWorkerPrefix) != 0) return false;
    size_t close = line.find("] ", sizeof kWorkerPrefix - 1);
    size_t says = line.find(" :: ");
    if (close == std::string::npos || says == std::string::npos) return false;
    std::string pid = line.substr(sizeof kWorkerPrefix - 1, close - sizeof kWorkerPrefix + 1);
    std::string message = line.substr(says + 4);
    const std::string authorized = " successfully authorized.";
    if (message.rfind("DN ", 0) == 0 && message.size() > authorized.size() + 3) {
        if (m_subjects.size() > kKept) m_subjects.clear();  // bounded, whatever the server says
        m_subjects[pid] = message.substr(3, message.size() - authorized.size() - 3);
    } else if (message.rfind("Closed connection", 0) == 0) {
        m_subjects.erase(pid);
    }
    if (message.rfind("Transfer stats: ", 0) != 0) return false;

    std::string record = message.substr(15);  // from the blank before DATE=
    std::string type = field(record, "TYPE");
    double start = seconds_of(field(record, "START")), end = seconds_of(field(record, "DATE"));
    double seconds = end > start ? end - start : 0;
    long long bytes = atoll(field(record, "NBYTES").c_str());
    std::string code = field(record, "CODE");
    json entry = {{"at", iso_time(WallClock::time_point(
                             std::chrono::microseconds(static_cast<long long>(end * 1e6))))},
                  {"direction", type == "RETR" || type == "ERET"   ? "sent"
                                : type == "STOR" || type == "ESTO" ? "received"
                                                                   : type},
                  {"path", field(record, "FILE")},
                  {"bytes", bytes},
                  {"seconds", seconds},
                  {"rate", seconds > 0 ? static_cast<double>(bytes) / seconds : 0},
                  {"subject", m_subjects.count(pid) != 0 ? json(m_subjects[pid]) : json(nullptr)},
                  {"outcome", code == "226" ? "ok" : "failed (reply " + code + ")"}};
    fprintf(stderr, "transfer: %s\n", describe_transfer(entry).c_str());
    m_entries.push_back(entry);
    if (m_entries.size() > kKept) m_entries.erase(m_entries.begin());
    if (!m_path.empty()) {
        write_for_looking("the transfer history", m_path,
                          m_entries.dump(1, ' ', false, json::error_handler_t::replace) + "\n",
                          m_write_failed);
    }
    return true;
}

std::string describe_transfer(const json& entry) {
    const json& subject = entry.value("subject", json());
    return hvlib::str_sprintf(
        "%s %s, %lld bytes in %.1f s (%s), for %s: %s", entry.value("direction", "?").c_str(),
        entry.value("path", "?").c_str(), entry.value("bytes", 0LL), entry.value("seconds", 0.0),
        rate_of(entry.value("rate", 0.0)).c_str(),
        subject.is_string() ? subject.get<std::string>().c_str() : "an unknown subject",
        entry.value("outcome", "?").c_str());
}

}  // namespace endpoint
