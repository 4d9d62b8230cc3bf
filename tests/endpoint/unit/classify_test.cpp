#include <gtest/gtest.h>

#include <csignal>
#include <vector>

#include "tool.h"

using endpoint::Backoff;
using endpoint::BackoffKind;
using endpoint::ToolEnd;

namespace {

const ToolEnd kExit1{false, 1};

// The class's name and the line kept, for a run with these lines and this end.
std::string classified(const std::vector<std::string>& lines, ToolEnd end = kExit1,
                       bool connected = false) {
    endpoint::FailureClassifier classifier;
    for (const std::string& line : lines) classifier.feed(line);
    endpoint::Failure f = classifier.finish(end, connected);
    return std::string(endpoint::class_info(f.cls).name) + (f.line.empty() ? "" : " | " + f.line);
}

}  // namespace

TEST(Classify, WhatNeedsAPersonIsToldFromWhatPasses) {
    struct Case {
        std::vector<std::string> lines;
        ToolEnd end;
        bool connected;
        std::string expected;
    } cases[] = {
        {{"Env var 'HVN_OS' must be set"}, {false, 2}, false, "setting"},
        {{}, {false, 2}, false, "setting"},  // the tool's status for a missing setting
        {{"[ssh stderr] Host key verification failed."}, kExit1, false, "host-key"},
        {{"[ssh stderr] x@relay: Permission denied (publickey)."},
         kExit1,
         false,
         "account-refused"},
        {{"Fatal Error: No HVN credentials found"}, kExit1, true, "no-credentials"},
        {{"Relay server error: updating"}, kExit1, true, "relay-error"},
        {{"[ssh stderr] ssh: connect to host r port 22: Connection refused"},
         kExit1,
         false,
         "relay-unreachable"},
        {{"[ssh stderr] pdeath: cannot execute '/usr/bin/ssh': No such file"},
         kExit1,
         false,
         "not-ready"},
        // a worker's complaint says nothing about the connection, and ssh's
        // lines are ssh's, not the tool's
        {{"[ftp stderr] Relay server error: x", "[ssh stderr] Relay server error: x",
          "Host key verification failed."},
         kExit1,
         false,
         "unknown"},
        // the cause wins over its consequences; of two of one class, the first
        {{"[ssh stderr] Connection closed by r", "Relay server error: first",
          "Relay server error: second", "[ssh stderr] Connection to r closed by remote host."},
         kExit1,
         true,
         "relay-error"},
        // a run that logged in and ended without a word lost its connection
        {{"[ssh stderr] Connection closed by r port 22"}, kExit1, true, "connection-lost"},
        {{"Relay server error: x"}, {true, SIGKILL}, true, "signal"},
        {{"src/posix:45: failed precondition 'fd >= 0'"}, {true, SIGABRT}, false, "internal"},
    };
    for (const Case& c : cases) {
        std::string got = classified(c.lines, c.end, c.connected);
        EXPECT_EQ(got.substr(0, got.find(" | ")), c.expected) << got;
    }
    EXPECT_EQ(classified({"[ssh stderr] Connection closed by r", "Relay server error: first",
                          "Relay server error: second"}),
              "relay-error | Relay server error: first");
}

TEST(Backoff, GrowsWithJitterToTheMaximumAndStartsAgainAfterAConnectionThatLasted) {
    Backoff b(1, 300), small(0.05, 0.4), fixed(0.2, 0.2);
    double previous = 0;
    for (int i = 0; i < 8; ++i) {  // whatever the draws, never shrinking until the maximum
        double d = b.next(i % 3 == 0 ? 0.99 : 0.0);
        EXPECT_GE(d, std::max(previous, double(1 << i))) << i;
        EXPECT_LE(d, 2 << i) << i;
        previous = d;
    }
    for (double u : {0.0, 0.5, 0.999999}) {
        double d = b.next(u);
        EXPECT_TRUE(d >= 150 && d <= 300) << d;
    }
    EXPECT_DOUBLE_EQ(fixed.next(0.9), 0.2);
    Backoff longer(1, 300);  // where hammering cannot help: as after five failures
    EXPECT_GE(longer.next(0, BackoffKind::Long), 32);
    EXPECT_LE(small.next(0.99, BackoffKind::Long), 0.4);
    // stable: as long as the longest delay, a minute at most
    for (int i = 0; i < 3; ++i) small.next(0.5);
    b.connection_lasted(Backoff::kStableSeconds - 0.1);
    small.connection_lasted(0.3);
    EXPECT_GE(b.next(0), 150);
    EXPECT_GE(small.next(0), 0.2);
    b.connection_lasted(Backoff::kStableSeconds);
    small.connection_lasted(0.4);
    EXPECT_LE(b.next(0.99), 2);
    EXPECT_LE(small.next(0.99), 0.1);
}
