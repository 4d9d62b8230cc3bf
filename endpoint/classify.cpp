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
    Source source;
    const char* text;  // matched anywhere in the line (after the ssh prefix)
    FailureClass cls;
};

// The tool's own words, and the OpenSSH client's.
const Rule kRules[] = {
    {Source::Tool, "failed precondition '", FailureClass::Internal},
    {Source::Tool, "Env var '", FailureClass::Setting},
    {Source::Tool, "Fatal Error: No HVN credentials found", FailureClass::NoCredentials},
    {Source::Tool, "Fatal Error: Couldn't open for reading '", FailureClass::Files},
    {Source::Tool, "Fatal Error: Couldn't open for writing '", FailureClass::Files},
    {Source::Tool, "Fatal Error: Couldn't read '", FailureClass::Files},
    {Source::Tool, "Fatal Error: Couldn't write '", FailureClass::Files},
    {Source::Tool, "Fatal Error: Couldn't close '", FailureClass::Files},
    {Source::Tool, "Relay server error: ", FailureClass::RelayError},
    {Source::Tool, "Fatal Error: Unexpected server message", FailureClass::Protocol},
    {Source::Tool, "Fatal Error: Key '", FailureClass::Protocol},
    {Source::Tool, "Fatal Error: bad server message", FailureClass::Protocol},
    {Source::Tool, "Fatal Posix Error: ", FailureClass::SystemCall},
    {Source::Ssh, "Host key verification failed", FailureClass::HostKey},
    {Source::Ssh, "REMOTE HOST IDENTIFICATION HAS CHANGED", FailureClass::HostKey},
    {Source::Ssh, "host key is known for", FailureClass::HostKey},  // "No RSA host key ..."
    {Source::Ssh, "Permission denied (", FailureClass::AccountRefused},
    {Source::Ssh, "pdeath: cannot execute '", FailureClass::Setting},
    {Source::Ssh, "Load key ", FailureClass::Files},
    {Source::Ssh, "ssh: connect to host ", FailureClass::RelayUnreachable},
    {Source::Ssh, "ssh: Could not resolve hostname ", FailureClass::RelayUnreachable},
    {Source::Ssh, "kex_exchange_identification: ", FailureClass::RelayUnreachable},
    {Source::Ssh, "Connection closed by ", FailureClass::RelayUnreachable},
    {Source::Ssh, "Connection reset by ", FailureClass::RelayUnreachable},
    {Source::Ssh, " closed by remote host", FailureClass::ConnectionLost},
    {Source::Ssh, "Timeout, server ", FailureClass::ConnectionLost},
    {Source::Ssh, "client_loop: send disconnect", FailureClass::ConnectionLost},
    {Source::Ssh, "Broken pipe", FailureClass::ConnectionLost},
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
