#include <gtest/gtest.h>

#include <csignal>
#include <vector>

#include "tool.h"

using endpoint::class_info;
using endpoint::Failure;
using endpoint::FailureClass;
using endpoint::FailureClassifier;
using endpoint::ToolEnd;

namespace {

const ToolEnd kExit1{false, 1};

Failure run(const std::vector<std::string>& lines, ToolEnd end = kExit1, bool connected = false) {
    FailureClassifier classifier;
    for (const std::string& line : lines) classifier.feed(line);
    return classifier.finish(end, connected);
}

const char* name(const Failure& f) { return class_info(f.cls).name; }

}  // namespace

TEST(Classify, TheToolsAndSshsWordsGiveTheirClass) {
    struct Case {
        const char* line;
        const char* cls;
    } cases[] = {
        {"Env var 'HVN_OS' must be set", "setting"},
        {"Fatal Error: No HVN credentials found", "no-credentials"},
        {"Relay server error: unknown endpoint id 42", "relay-error"},
        {"Fatal Error: Couldn't open for reading '/c/client-key.pem': Permission denied", "files"},
        {"Fatal Error: Couldn't write '/c/client-id.txt': No space left on device", "files"},
        {"src/relaytool:267: failed precondition 'nr_ftp_active >= 0'", "internal"},
        {"Fatal Error: Unexpected server message LOGIN_S, expected CHALLENGE_S", "protocol"},
        {"Fatal Error: Key 'string' not found", "protocol"},
        {"Fatal Posix Error: poll: Interrupted system call", "system-call"},
        {"[ssh stderr] Host key verification failed.", "host-key"},
        {"[ssh stderr] @    WARNING: REMOTE HOST IDENTIFICATION HAS CHANGED!     @", "host-key"},
        {"[ssh stderr] No RSA host key is known for [relay]:2223 and you have requested strict "
         "checking.",
         "host-key"},
        {"[ssh stderr] x_relay2@127.0.0.1: Permission denied (publickey).", "account-refused"},
        {"[ssh stderr] ssh: connect to host relay port 2223: Connection refused",
         "relay-unreachable"},
        {"[ssh stderr] ssh: Could not resolve hostname relay: Name or service not known",
         "relay-unreachable"},
        {"[ssh stderr] Connection to 127.0.0.1 closed by remote host.", "connection-lost"},
        {"[ssh stderr] Timeout, server relay not responding.", "connection-lost"},
        {"[ssh stderr] pdeath: cannot execute '/usr/bin/ssh': No such file or directory",
         "not-ready"},
    };
    for (const Case& c : cases) {
        Failure f = run({c.line});
        EXPECT_STREQ(name(f), c.cls) << c.line;
        EXPECT_EQ(f.line, c.line);
    }
}

TEST(Classify, OnlyTheRightSourceCounts) {
    // A worker's complaint says nothing about the connection, and the tool's
    // words copied from ssh are ssh's, not the tool's.
    EXPECT_STREQ(name(run({"[ftp stderr] Relay server error: x",
                           "[ftp stderr] Host key verification failed."})),
                 "unknown");
    EXPECT_STREQ(name(run({"[ssh stderr] Relay server error: x"})), "unknown");
    EXPECT_STREQ(name(run({"Host key verification failed."})), "unknown");
    EXPECT_EQ(run({"[ftp stderr] Relay server error: x"}).line, "");
}

TEST(Classify, TheCauseWinsOverItsConsequences) {
    Failure f = run({"[ssh stderr] Connection closed by 127.0.0.1 port 2223",
                     "[ssh stderr] Host key verification failed.",
                     "[ssh stderr] Connection to 127.0.0.1 closed by remote host."});
    EXPECT_STREQ(name(f), "host-key");
    EXPECT_EQ(f.line, "[ssh stderr] Host key verification failed.");
    // of two lines of one class the first is kept
    f = run({"Relay server error: first", "Relay server error: second"});
    EXPECT_EQ(f.line, "Relay server error: first");
}

TEST(Classify, ExitStatusSignalAndLoginDecideWhereLinesDoNot) {
    EXPECT_STREQ(name(run({}, ToolEnd{false, 2})), "setting");
    EXPECT_STREQ(
        name(run({"[ssh stderr] Connection to x closed by remote host."}, ToolEnd{false, 2})),
        "setting");
    EXPECT_STREQ(name(run({}, ToolEnd{true, SIGKILL})), "signal");
    EXPECT_STREQ(name(run({"Relay server error: x"}, ToolEnd{true, SIGTERM})), "signal");
    EXPECT_STREQ(name(run({"src/posix:45: failed precondition 'fd >= 0'"}, ToolEnd{true, SIGABRT})),
                 "internal");
    EXPECT_STREQ(name(run({}, ToolEnd{true, SIGABRT})), "signal");
    // A run that logged in and ended without a word lost its connection; one
    // that never got there did not say why.
    EXPECT_STREQ(name(run({}, kExit1, true)), "connection-lost");
    EXPECT_STREQ(name(run({"[ssh stderr] Connection closed by 127.0.0.1 port 22"}, kExit1, true)),
                 "connection-lost");
    EXPECT_STREQ(name(run({}, kExit1, false)), "unknown");
    EXPECT_STREQ(name(run({"Relay server error: x"}, kExit1, true)), "relay-error");
}
