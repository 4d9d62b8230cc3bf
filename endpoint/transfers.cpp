#include "transfers.h"

#include <cstdio>
#include <ctime>

#include "diag.h"
#include "file.h"
#include "state.h"

namespace endpoint {

namespace {

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
    size_t close = line.find("] ");
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
    json entry = {
        {"at", iso_time(WallClock::time_point(std::chrono::microseconds(
                   static_cast<long long>(end * 1e6))))},
        {"direction", type == "RETR" || type == "ERET" ? "sent"
                      : type == "STOR" || type == "ESTO" ? "received"
                                                         : type},
        {"path", field(record, "FILE")},
        {"bytes", bytes},
        {"seconds", seconds},
        {"rate", seconds > 0 ? bytes / seconds : 0},
        {"subject", m_subjects.count(pid) != 0 ? json(m_subjects[pid]) : json(nullptr)},
        {"outcome", code == "226" ? "ok" : "failed (reply " + code + ")"},
    };
    fprintf(stderr, "transfer: %s\n", describe_transfer(entry).c_str());
    m_entries.push_back(entry);
    if (m_entries.size() > kKept) m_entries.erase(m_entries.begin());
    // Like the state file, the history is for looking at: a full disk must
    // not stop the endpoint.
    int err = m_path.empty() ? 0 : hvlib::replace_file_atomically(
                                    m_path, m_entries.dump(1, ' ', false, json::error_handler_t::replace) + "\n");
    if (err != 0 && !m_write_failed) {
        fprintf(stderr, "relaytool-endpoint: cannot write %s: %s\n", m_path.c_str(),
                hvlib::get_strerror_string(err).c_str());
    }
    m_write_failed = err != 0;
    return true;
}

std::string describe_transfer(const json& entry) {
    const json& subject = entry.value("subject", json());
    return hvlib::str_sprintf(
        "%s %s, %lld bytes in %.1f s (%s), for %s: %s",
        entry.value("direction", "?").c_str(), entry.value("path", "?").c_str(),
        entry.value("bytes", 0LL), entry.value("seconds", 0.0),
        rate_of(entry.value("rate", 0.0)).c_str(),
        subject.is_string() ? subject.get<std::string>().c_str() : "an unknown subject",
        entry.value("outcome", "?").c_str());
}

}  // namespace endpoint
