// What was transferred, from the GridFTP server's own records: with the
// log level TRANSFER it writes one "Transfer stats:" line for each finished
// transfer, and at INFO the subject it authorized, both behind its process
// id ("[PID] DATE :: ..."), which ties a record to the subject of the one
// client that this worker serves. Each record becomes a line of our log and
// an entry of a bounded history in the configuration directory.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <string>

namespace endpoint {

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

// "sent /data/a.txt, 1048576 bytes in 2.0 s (524.3 kB/s), for SUBJECT: ok"
std::string describe_transfer(const nlohmann::json& entry);

}  // namespace endpoint
