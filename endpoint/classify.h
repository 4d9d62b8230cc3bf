// What ended a run of the tool, and whether starting it again can help.
//
// The tool ends every login with exit status 1 and says why only in free
// text on standard error: its own lines ("Relay server error: ...",
// "Fatal Error: ...") and the ssh client's, which it copies as
// "[ssh stderr] ..." lines. A class is found from those lines and the exit
// status; the GridFTP workers' lines ("[ftp stderr] ...") never count, since
// a transfer's trouble says nothing about the connection.
#pragma once

#include <string>

namespace endpoint {

enum class FailureClass {
    // Retried after a back-off.
    ConnectionLost,
    RelayUnreachable,
    Signal,
    SystemCall,
    Protocol,
    Unknown,
    // Final: starting the tool again would fail the same way.
    Setting,
    NoCredentials,
    RelayError,
    HostKey,
    AccountRefused,
    Files,
    Internal,
};

struct ClassInfo {
    FailureClass cls;
    const char* name;         // in the state file, the JSON and the journal
    bool retry;               // restart after a back-off, or stop
    int exit_status;          // of relaytool-endpoint when this class ends it
    const char* description;  // for people
};

const ClassInfo& class_info(FailureClass cls);

// How the tool's process ended.
struct ToolEnd {
    bool signaled = false;
    int value = 0;  // the exit status, or the signal number
};

std::string describe_end(const ToolEnd& end);  // "exit status 1", "signal 9 (Killed)"

struct Failure {
    FailureClass cls = FailureClass::Unknown;
    std::string line;  // the tool's line that showed the class; may be empty
    ToolEnd end;
};

// Collects one run's standard-error lines as they come. Only the most telling
// line is kept, so a run of weeks costs no memory.
class FailureClassifier {
public:
    void feed(const std::string& line);
    // `connected`: the run got as far as a completed login.
    Failure finish(const ToolEnd& end, bool connected) const;

private:
    bool m_found = false;
    FailureClass m_cls = FailureClass::Unknown;
    std::string m_line;
};

// The class that one line of the tool's standard error shows, if any.
bool classify_line(const std::string& line, FailureClass& cls);

}  // namespace endpoint
