#include "classify.h"

#include <cstring>
#include <iterator>

#include "diag.h"

namespace endpoint {

namespace {

// In order of precedence: when a run shows several classes, the first one in
// this table wins. The final classes come first because their lines name the
// cause itself, while the retried ones (a lost connection, say) are often
// just its consequence.
const ClassInfo kClasses[] = {
    {FailureClass::Internal, "internal", false, 16, "a failed internal assumption of the tool"},
    {FailureClass::Setting, "setting", false, 10, "the tool found a setting missing"},
    {FailureClass::NoCredentials, "no-credentials", false, 11,
     "the endpoint is not set up (no credentials)"},
    {FailureClass::Files, "files", false, 15,
     "a credential or configuration file cannot be read or written"},
    {FailureClass::HostKey, "host-key", false, 13,
     "the relay's host key is not the one this installation trusts"},
    {FailureClass::AccountRefused, "account-refused", false, 14,
     "the relay's SSH server refused the login account"},
    {FailureClass::RelayError, "relay-error", false, 12, "the relay answered with an error"},
    {FailureClass::Protocol, "protocol", true, 24, "the relay's answer broke the protocol"},
    {FailureClass::SystemCall, "system-call", true, 23, "a system call failed in the tool"},
    {FailureClass::RelayUnreachable, "relay-unreachable", true, 20, "the relay cannot be reached"},
    {FailureClass::ConnectionLost, "connection-lost", true, 21,
     "the connection to the relay was lost"},
    {FailureClass::Signal, "signal", true, 22, "the tool was killed by a signal"},
    {FailureClass::Unknown, "unknown", true, 25, "the tool ended for a reason not recognised"},
};

size_t rank(FailureClass cls) {
    for (size_t i = 0; i < std::size(kClasses); ++i) {
        if (kClasses[i].cls == cls) return i;
    }
    hvlib::precondition_failed("cls is in kClasses", "endpoint/classify", __LINE__);
}

enum class Source { Tool, Ssh };

struct Rule {
    const char* text;  // matched anywhere in the line (after the ssh prefix)
    Source source;
    FailureClass cls;
};

// The tool's own words, and the OpenSSH client's.
const Rule kRules[] = {
    {"failed precondition '", Source::Tool, FailureClass::Internal},
    {"Env var '", Source::Tool, FailureClass::Setting},
    {"Fatal Error: No HVN credentials found", Source::Tool, FailureClass::NoCredentials},
    {"Fatal Error: Couldn't open for reading '", Source::Tool, FailureClass::Files},
    {"Fatal Error: Couldn't open for writing '", Source::Tool, FailureClass::Files},
    {"Fatal Error: Couldn't read '", Source::Tool, FailureClass::Files},
    {"Fatal Error: Couldn't write '", Source::Tool, FailureClass::Files},
    {"Fatal Error: Couldn't close '", Source::Tool, FailureClass::Files},
    {"Relay server error: ", Source::Tool, FailureClass::RelayError},
    {"Fatal Error: Unexpected server message", Source::Tool, FailureClass::Protocol},
    {"Fatal Error: Key '", Source::Tool, FailureClass::Protocol},
    {"Fatal Error: bad server message", Source::Tool, FailureClass::Protocol},
    {"Fatal Posix Error: ", Source::Tool, FailureClass::SystemCall},
    {"Host key verification failed", Source::Ssh, FailureClass::HostKey},
    {"REMOTE HOST IDENTIFICATION HAS CHANGED", Source::Ssh, FailureClass::HostKey},
    {"host key is known for", Source::Ssh, FailureClass::HostKey},  // "No RSA host key ..."
    {"Permission denied (", Source::Ssh, FailureClass::AccountRefused},
    {"pdeath: cannot execute '", Source::Ssh, FailureClass::Setting},
    {"Load key ", Source::Ssh, FailureClass::Files},
    {"ssh: connect to host ", Source::Ssh, FailureClass::RelayUnreachable},
    {"ssh: Could not resolve hostname ", Source::Ssh, FailureClass::RelayUnreachable},
    {"kex_exchange_identification: ", Source::Ssh, FailureClass::RelayUnreachable},
    {"Connection closed by ", Source::Ssh, FailureClass::RelayUnreachable},
    {"Connection reset by ", Source::Ssh, FailureClass::RelayUnreachable},
    {" closed by remote host", Source::Ssh, FailureClass::ConnectionLost},
    {"Timeout, server ", Source::Ssh, FailureClass::ConnectionLost},
    {"client_loop: send disconnect", Source::Ssh, FailureClass::ConnectionLost},
    {"Broken pipe", Source::Ssh, FailureClass::ConnectionLost},
};

const char kSshPrefix[] = "[ssh stderr] ";
const char kWorkerPrefix[] = "[ftp stderr] ";

}  // namespace

const ClassInfo& class_info(FailureClass cls) { return kClasses[rank(cls)]; }

std::string describe_end(const ToolEnd& end) {
    if (!end.signaled) return hvlib::str_sprintf("exit status %d", end.value);
    return hvlib::str_sprintf("signal %d (%s)", end.value, strsignal(end.value));
}

bool classify_line(const std::string& line, FailureClass& cls) {
    if (line.compare(0, sizeof kWorkerPrefix - 1, kWorkerPrefix) == 0) return false;
    bool from_ssh = line.compare(0, sizeof kSshPrefix - 1, kSshPrefix) == 0;
    std::string text = from_ssh ? line.substr(sizeof kSshPrefix - 1) : line;
    for (const Rule& rule : kRules) {
        if ((rule.source == Source::Ssh) != from_ssh) continue;
        if (text.find(rule.text) != std::string::npos) {
            cls = rule.cls;
            return true;
        }
    }
    return false;
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
    Failure failure;
    failure.end = end;
    if (m_found) {
        failure.cls = m_cls;
        failure.line = m_line;
    }
    // The exit status and the signal decide where the lines say nothing or
    // less: exit status 2 is the tool's missing setting, and a signal other
    // than the abort of a failed precondition came from outside.
    if (!end.signaled && end.value == 2 && rank(FailureClass::Setting) < rank(failure.cls)) {
        failure.cls = FailureClass::Setting;
    } else if (end.signaled && failure.cls != FailureClass::Internal) {
        failure.cls = FailureClass::Signal;
        failure.line.clear();
    } else if (connected && (!m_found || failure.cls == FailureClass::RelayUnreachable)) {
        // A relay that logged us in was reachable; and ssh often ends a
        // broken session without a word.
        failure.cls = FailureClass::ConnectionLost;
    }
    return failure;
}

}  // namespace endpoint
