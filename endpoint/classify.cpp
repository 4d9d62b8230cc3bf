#include "classify.h"

#include <cstring>

#include "diag.h"

namespace endpoint {

namespace {

const ClassInfo kClasses[] = {
#define CLASS(id, name, final, backoff, status, why) \
    {name, final, BackoffKind::backoff, status, why},
#include "classes.def"
#undef CLASS
};

// The table's order is the order of precedence.
size_t rank(FailureClass cls) { return static_cast<size_t>(cls); }

const char kSshPrefix[] = "[ssh stderr] ";
const char kWorkerPrefix[] = "[ftp stderr] ";

struct Rule {
    const char* text;  // matched anywhere in the line
    bool ssh;          // a line of ssh's, which the tool copies behind kSshPrefix
    FailureClass cls;
};

// The tool's own words, and the OpenSSH client's.
const Rule kRules[] = {
    {"failed precondition '", false, FailureClass::Internal},
    {"Env var '", false, FailureClass::Setting},
    {"Fatal Error: No HVN credentials found", false, FailureClass::NoCredentials},
    {"Fatal Error: Couldn't ", false, FailureClass::Files},  // open, read, write, close
    {"Relay server error: ", false, FailureClass::RelayError},
    {"Fatal Error: Unexpected server message", false, FailureClass::Protocol},
    {"Fatal Error: Key '", false, FailureClass::Protocol},
    {"Fatal Error: bad server message", false, FailureClass::Protocol},
    {"Fatal Posix Error: ", false, FailureClass::SystemCall},
    {"Host key verification failed", true, FailureClass::HostKey},
    {"REMOTE HOST IDENTIFICATION HAS CHANGED", true, FailureClass::HostKey},
    {"host key is known for", true, FailureClass::HostKey},  // "No RSA host key ..."
    {"Permission denied (", true, FailureClass::AccountRefused},
    {"pdeath: cannot execute '", true, FailureClass::NotReady},  // ssh being installed
    {"Load key ", true, FailureClass::Files},
    {"ssh: connect to host ", true, FailureClass::RelayUnreachable},
    {"ssh: Could not resolve hostname ", true, FailureClass::RelayUnreachable},
    {"kex_exchange_identification: ", true, FailureClass::RelayUnreachable},
    {"Connection closed by ", true, FailureClass::RelayUnreachable},
    {"Connection reset by ", true, FailureClass::RelayUnreachable},
    {" closed by remote host", true, FailureClass::ConnectionLost},
    {"Timeout, server ", true, FailureClass::ConnectionLost},
    {"client_loop: send disconnect", true, FailureClass::ConnectionLost},
    {"Broken pipe", true, FailureClass::ConnectionLost},
};

bool classify_line(const std::string& line, FailureClass& cls) {
    if (line.compare(0, sizeof kWorkerPrefix - 1, kWorkerPrefix) == 0) return false;
    bool from_ssh = line.compare(0, sizeof kSshPrefix - 1, kSshPrefix) == 0;
    std::string text = from_ssh ? line.substr(sizeof kSshPrefix - 1) : line;
    for (const Rule& rule : kRules) {
        if (rule.ssh == from_ssh && text.find(rule.text) != std::string::npos) {
            cls = rule.cls;
            return true;
        }
    }
    return false;
}

}  // namespace

const ClassInfo& class_info(FailureClass cls) { return kClasses[rank(cls)]; }

std::string describe_end(const ToolEnd& end) {
    if (!end.signaled) return hvlib::str_sprintf("exit status %d", end.value);
    return hvlib::str_sprintf("signal %d (%s)", end.value, strsignal(end.value));
}

void FailureClassifier::feed(const std::string& line) {
    FailureClass cls;
    if (!classify_line(line, cls)) return;
    // Ties keep the earlier line: it is nearer the cause.
    if (!m_found || rank(cls) < rank(m_cls)) {
        m_found = true;
        m_cls = cls;
        m_line = line;
    }
}

Failure FailureClassifier::finish(const ToolEnd& end, bool connected) const {
    Failure failure{m_cls, m_line, end};
    // The exit status and the signal decide where the lines say nothing or
    // less: exit status 2 is the tool's missing setting, and a signal other
    // than the abort of a failed precondition came from outside.
    if (!end.signaled && end.value == 2 && rank(FailureClass::Setting) < rank(failure.cls)) {
        failure.cls = FailureClass::Setting;
    } else if (end.signaled && failure.cls != FailureClass::Internal) {
        failure = {FailureClass::Signal, "", end};
    } else if (connected && (!m_found || failure.cls == FailureClass::RelayUnreachable)) {
        // A relay that logged us in was reachable; and ssh often ends a
        // broken session without a word.
        failure.cls = FailureClass::ConnectionLost;
    }
    return failure;
}

}  // namespace endpoint
