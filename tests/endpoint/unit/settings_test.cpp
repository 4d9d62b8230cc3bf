#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "build_info.h"
#include "file.h"
#include "settings.h"

using endpoint::Command;
using endpoint::EnvMap;
using endpoint::Settings;
using endpoint::Share;
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
    EXPECT_EQ(s.shared, (std::vector<Share>{{"/home/alice", false}}));
    EXPECT_EQ(s.trust_dir, RELAYTOOL_DEFAULT_TRUST_DIR);
    // status, pause and resume find the directory as run does; a relative
    // XDG_CONFIG_HOME is to be ignored, and without HOME passwd's home counts
    EXPECT_EQ(resolve_ok({{"XDG_CONFIG_HOME", "/x"}}, Command::Pause).config_dir, "/x/relaytool");
    EXPECT_EQ(resolve_ok({{"XDG_CONFIG_HOME", "x"}}, Command::Status).config_dir,
              "/home/alice/.config/relaytool");
    EXPECT_EQ(resolve_ok({{"HVN_CONFIG_DIR", "rel//"}}, Command::Resume).config_dir, "/work/rel");
}

TEST(Settings, SharedDirectoriesAreAbsoluteAndMayBeReadOnly) {
    Settings s = resolve_ok(minimal({{"RELAYTOOL_SHARED_DIRS", "/srv/a//::/home/b/:ro:/c:ro"},
                                     {"RELAYTOOL_TRUST_DIR", "/t/"}}));
    EXPECT_EQ(s.shared, (std::vector<Share>{{"/srv/a", false}, {"/home/b", true}, {"/c", true}}));
    EXPECT_EQ(s.trust_dir, "/t");
}

TEST(Settings, MissingOrMalformedValuesAreNamed) {
    struct Case {
        EnvMap env;
        const char* name;
    } cases[] = {
        {{{"HVN_GRIDFTP_PATH", "/g"}}, "HVN_RELAY_SERVER"},
        {{{"HVN_RELAY_SERVER", "r"}}, "HVN_GRIDFTP_PATH"},
        {minimal({{"RELAYTOOL_BACKOFF_MIN", "5"}, {"RELAYTOOL_BACKOFF_MAX", "4"}}),
         "RELAYTOOL_BACKOFF_MIN"},
        {minimal({{"RELAYTOOL_TRUST_DIR", "trust"}}), "RELAYTOOL_TRUST_DIR"},
        {minimal({{"HVN_CONFIG_DIR", "/a\"b"}}), "HVN_CONFIG_DIR"},
    };
    for (const Case& c : cases) EXPECT_EQ(problem_of(c.env), c.name);
    for (const char* relay :
         {"relay:", ":2223", "relay:0", "relay:65536", "relay:22x", "[::1]:22"}) {
        EXPECT_EQ(problem_of(minimal({{"HVN_RELAY_SERVER", relay}})), "HVN_RELAY_SERVER") << relay;
    }
    // setup reads neither the port nor the back-off
    resolve_ok(minimal({{"HVN_FTP_PORT", "x"}, {"RELAYTOOL_BACKOFF_MIN", "0"}}), Command::Setup);
    SystemFacts nameless = kFacts, homeless = kFacts;
    nameless.user.clear();
    homeless.home.clear();
    EXPECT_EQ(problem_of(minimal(), Command::Run, nameless), "HVN_USER");
    EXPECT_EQ(problem_of({}, Command::Status, homeless), "HVN_CONFIG_DIR");
}

// The GridFTP server's configuration, in a home of real directories.
class GridftpConf : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/gridftp-conf-test.XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        root = name;
        std::filesystem::create_directories(root + "/real/home/.ssh");
        std::filesystem::create_directories(root + "/real/home/.config/relaytool");
        std::filesystem::create_directory_symlink(root + "/real/home", root + "/home");
        s.home = root + "/home";  // reached through a symbolic link
        s.config_dir = s.home + "/.config/relaytool";
        s.shared = {{s.home, false}, {s.home + "/results", true}};
    }
    void TearDown() override { std::filesystem::remove_all(root); }
    std::string restricted() {
        std::string text = endpoint::gridftp_conf_text(s);
        size_t start = text.find("\nrestrict_paths \"") + 17;  // a line of its own
        return text.substr(start, text.find('"', start) - start);
    }
    std::string root;
    Settings s;
};

TEST_F(GridftpConf, PrivateStoresAreNeverServedNorMovedAway) {
    std::string real = root + "/real/home", home = s.home;
    EXPECT_EQ(restricted(), home + "," + "R" + home + "/results," + "R" + real + "/.config,N" +
                                real + "/.config/relaytool,N" + real + "/.ssh,N" + real +
                                "/.gnupg,N" + real + "/.globus,N" + real + "/.pki,R" + real +
                                "/.local,R" + real + "/.local/share,N" + real +
                                "/.local/share/keyrings,N" + real + "/.password-store");
    s.shared = {{home + "/.ssh", false}, {"/srv", true}};  // named, it is served; elsewhere, none
    EXPECT_EQ(restricted(), home + "/.ssh,R/srv");
}

TEST_F(GridftpConf, WrittenWhenAbsentOrGeneratedNeverOverTheOperators) {
    std::string path = s.config_dir + "/gridftp.conf";
    endpoint::ConfOutcome outcome = endpoint::ConfOutcome::Operators;
    for (auto expected : {endpoint::ConfOutcome::Written, endpoint::ConfOutcome::Unchanged}) {
        ASSERT_EQ(endpoint::write_gridftp_conf(s, outcome), 0);
        EXPECT_EQ(outcome, expected);
    }
    std::string text = hvlib::read_file_contents(path);
    EXPECT_EQ(text.rfind(std::string(endpoint::kGeneratedMarker) + "\n", 0), 0u);
    EXPECT_NE(text.find("log_level ERROR,WARN,INFO,TRANSFER,DUMP\n"), std::string::npos);
    EXPECT_EQ(std::filesystem::status(path).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    hvlib::create_private_file_with_contents(path, "# mine\n" + text);
    ASSERT_EQ(endpoint::write_gridftp_conf(s, outcome), 0);
    EXPECT_EQ(outcome, endpoint::ConfOutcome::Operators);
    EXPECT_EQ(hvlib::read_file_contents(path), "# mine\n" + text);
}
