#include <gtest/gtest.h>

#include "build_info.h"
#include "settings.h"

using endpoint::Command;
using endpoint::EnvMap;
using endpoint::Settings;
using endpoint::SystemFacts;

namespace {

const SystemFacts kFacts = {"Linux", "Debian GNU/Linux 12 (bookworm)", "alice", "/home/alice",
                            "/work"};

EnvMap minimal(EnvMap more = {}) {
    more.insert({{"HVN_RELAY_SERVER", "relay.example"},
                 {"HVN_GRIDFTP_PATH", "/usr/sbin/gridftp"},
                 {"HOME", "/home/alice"}});
    return more;
}

Settings resolve_ok(const EnvMap& env, Command command = Command::Run) {
    Settings s;
    std::string problem;
    EXPECT_TRUE(endpoint::resolve_settings(env, command, kFacts, s, problem)) << problem;
    return s;
}

// The name of the setting found wrong.
std::string problem_of(const EnvMap& env, Command command = Command::Run,
                       const SystemFacts& facts = kFacts) {
    Settings s;
    std::string problem;
    EXPECT_FALSE(endpoint::resolve_settings(env, command, facts, s, problem));
    return problem.substr(0, problem.find(':'));
}

}  // namespace

TEST(Settings, DefaultsLeaveOnlyTheRelayAndTheGridFTPServer) {
    Settings s = resolve_ok(minimal());
    EnvMap expected =
        minimal({{"HVN_APP_VERSION", "relaytool-endpoint " RELAYTOOL_ENDPOINT_VERSION},
                 {"HVN_CONFIG_DIR", "/home/alice/.config/relaytool"},
                 {"HVN_FTP_PORT", "0"},
                 {"HVN_GLOBAL_ETC_DIR", RELAYTOOL_DEFAULT_ETC_DIR},
                 {"HVN_OS", "Linux"},
                 {"HVN_OS_VERSION", "Debian GNU/Linux 12 (bookworm)"},
                 {"HVN_PDEATH_PATH", RELAYTOOL_DEFAULT_PDEATH},
                 {"HVN_SSH_PATH", "/usr/bin/ssh"},
                 {"HVN_USER", "alice"}});
    EXPECT_EQ(s.tool_env, expected);  // every variable the tool requires, and no other
    EXPECT_EQ(s.tool_path + " " + s.relay_host + " " + s.relay_port,
              RELAYTOOL_DEFAULT_TOOL " relay.example 2223");
    EXPECT_EQ(resolve_ok(minimal({{"XDG_CONFIG_HOME", "/x"}}), Command::Status).config_dir,
              "/x/relaytool");
    // a relative XDG_CONFIG_HOME is to be ignored; without HOME, passwd's
    EXPECT_EQ(resolve_ok({{"XDG_CONFIG_HOME", "x"}}, Command::Status).config_dir,
              "/home/alice/.config/relaytool");
}

TEST(Settings, TheEnvironmentWinsOverTheFileAndEmptyMeansUnset) {
    std::string entries[] = {"HVN_USER=bob", "HVN_OS=", "HVN_SSH_DEBUG=", "PATH=/bin"};
    char* envp[] = {&entries[0][0], &entries[1][0], &entries[2][0], &entries[3][0], nullptr};
    EnvMap env = endpoint::environment_over_file(
        envp,
        {{"HVN_USER", "file"}, {"HVN_OS", "FileOS"}, {"HVN_FTP_PORT", ""}, {"A", "1"}, {"A", "2"}});
    EXPECT_EQ(env,
              (EnvMap{{"A", "2"}, {"HVN_OS", "FileOS"}, {"HVN_USER", "bob"}, {"PATH", "/bin"}}));
}

TEST(Settings, WhatIsOursStaysAway) {
    const char* ours[] = {"NOTIFY_SOCKET",  "HVN_SETUP_CODE", "HVN_RELAYTOOL_TEST",   "HVN_DEBUG",
                          "RELAYTOOL_PATH", "WATCHDOG_USEC",  "RELAYTOOL_BACKOFF_MIN"};
    EnvMap env = minimal(
        {{"HVN_RELAY_SERVER", " relay.example:2224 "}, {"HVN_CONFIG_DIR", "relative/dir//"}});
    for (const char* key : ours) env[key] = "1";
    Settings s = resolve_ok(env);
    for (const char* key : ours) EXPECT_EQ(s.tool_env.count(key), 0u) << key;
    EXPECT_EQ(s.tool_path + " " + s.relay_port, "1 2224");
    EXPECT_EQ(s.tool_env["HVN_CONFIG_DIR"], "/work/relative/dir");
}

TEST(Settings, MissingOrMalformedValuesAreNamed) {
    EXPECT_EQ(problem_of({{"HVN_GRIDFTP_PATH", "/g"}}), "HVN_RELAY_SERVER");
    EXPECT_EQ(problem_of({{"HVN_RELAY_SERVER", "r"}}, Command::Setup), "HVN_GRIDFTP_PATH");
    for (const char* relay : {"relay:", ":2223", "relay:65536", "relay:22x", "[::1]:2223"}) {
        EXPECT_EQ(problem_of(minimal({{"HVN_RELAY_SERVER", relay}})), "HVN_RELAY_SERVER") << relay;
    }
    for (const char* port : {"x", "-2", "65536", "--1"}) {
        EXPECT_EQ(problem_of(minimal({{"HVN_FTP_PORT", port}})), "HVN_FTP_PORT") << port;
    }
    for (const char* seconds : {"0", "1e3", "nan", "86401", "1.2.3"}) {
        EXPECT_EQ(problem_of(minimal({{"RELAYTOOL_BACKOFF_MAX", seconds}})),
                  "RELAYTOOL_BACKOFF_MAX")
            << seconds;
    }
    EXPECT_EQ(problem_of(minimal({{"RELAYTOOL_BACKOFF_MIN", "5"}, {"RELAYTOOL_BACKOFF_MAX", "4"}})),
              "RELAYTOOL_BACKOFF_MIN");
    // setup reads neither the port nor the back-off
    resolve_ok(minimal({{"HVN_FTP_PORT", "x"}, {"RELAYTOOL_BACKOFF_MIN", "0"}}), Command::Setup);
    SystemFacts nameless = kFacts, homeless = kFacts;
    nameless.user.clear();
    homeless.home.clear();
    EXPECT_EQ(problem_of(minimal(), Command::Run, nameless), "HVN_USER");
    EXPECT_EQ(problem_of({}, Command::Status, homeless), "HVN_CONFIG_DIR");
}

TEST(Settings, WhatTheGridFTPServerSharesAndTrusts) {
    Settings s = resolve_ok(minimal());
    EXPECT_EQ(s.shared_dirs, std::vector<std::string>{"/home/alice"});
    EXPECT_EQ(s.trust_dir, RELAYTOOL_DEFAULT_TRUST_DIR);
    s = resolve_ok(minimal(
        {{"RELAYTOOL_SHARED_DIRS", "/srv/data//::/home/bob/"}, {"RELAYTOOL_TRUST_DIR", "/t/"}}));
    EXPECT_EQ(s.shared_dirs, (std::vector<std::string>{"/srv/data", "/home/bob"}));
    EXPECT_EQ(s.trust_dir, "/t");
    EXPECT_EQ(s.tool_env.count("RELAYTOOL_SHARED_DIRS") + s.tool_env.count("RELAYTOOL_TRUST_DIR"),
              0u);
    // relative, or what the server's configuration cannot quote
    for (const char* shared : {"/srv:data", "/srv/a,b", "/srv/$HOME", ":"}) {
        EXPECT_EQ(problem_of(minimal({{"RELAYTOOL_SHARED_DIRS", shared}})), "RELAYTOOL_SHARED_DIRS")
            << shared;
    }
    EXPECT_EQ(problem_of(minimal({{"RELAYTOOL_TRUST_DIR", "trust"}})), "RELAYTOOL_TRUST_DIR");
    EXPECT_EQ(problem_of(minimal({{"HVN_CONFIG_DIR", "/a\"b"}})), "HVN_CONFIG_DIR");
}
