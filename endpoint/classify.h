// What ended a run of the tool, and whether starting it again can help. The
// tool ends every login with exit status 1 and says why only in free text
// on standard error: its own lines and the ssh client's ("[ssh stderr] ...").
// The GridFTP workers' lines ("[ftp stderr] ...") never count: a transfer's
// trouble says nothing about the connection.
#pragma once

#include <string>

namespace endpoint {

enum class FailureClass {
#define CLASS(id, ...) id,
#include "classes.def"
#undef CLASS
};

enum class BackoffKind { Normal, Long };

struct ClassInfo {
    const char* name;  // in the state file, the JSON and the journal
    bool final;        // stop for good, or retry after a back-off
    BackoffKind backoff;
    int exit_status;          // of relaytool-endpoint when this class ends it
    const char* description;  // for people: what it is, and why it is (not) final
};

const ClassInfo& class_info(FailureClass cls);

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

}  // namespace endpoint
