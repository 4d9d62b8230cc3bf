#include "gridftp_conf.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "build_info.h"
#include "file.h"

using endpoint::ConfOutcome;
using endpoint::EnvMap;
using endpoint::SettingProblem;
using endpoint::Settings;

namespace {

const endpoint::SystemFacts kFacts = {"Linux", "Debian", "alice", "/home/alice", "/work"};

std::string problem_of(const EnvMap& env) {
    Settings s;
    SettingProblem problem;
    EXPECT_FALSE(endpoint::resolve_gridftp_settings(env, kFacts, s, problem));
    return problem.name + ": " + problem.message;
}

}  // namespace

TEST(GridftpSettings, SharedDirectoriesAndTrust) {
    Settings s;
    SettingProblem problem;
    ASSERT_TRUE(endpoint::resolve_gridftp_settings({}, kFacts, s, problem));
    EXPECT_EQ(s.shared_dirs, std::vector<std::string>{"/home/alice"});
    EXPECT_EQ(s.trust_dir, RELAYTOOL_DEFAULT_TRUST_DIR);

    EnvMap env = {{"HOME", "/home/bob"},
                  {"RELAYTOOL_SHARED_DIRS", "/srv/data//::/home/bob/"},
                  {"RELAYTOOL_TRUST_DIR", "/etc/trust/"}};
    ASSERT_TRUE(endpoint::resolve_gridftp_settings(env, kFacts, s, problem));
    EXPECT_EQ(s.shared_dirs, (std::vector<std::string>{"/srv/data", "/home/bob"}));
    EXPECT_EQ(s.trust_dir, "/etc/trust");

    EXPECT_EQ(problem_of({{"RELAYTOOL_SHARED_DIRS", "/srv:data"}}),
              "RELAYTOOL_SHARED_DIRS: 'data' is not an absolute path");
    EXPECT_NE(problem_of({{"RELAYTOOL_SHARED_DIRS", "/srv/a,b"}}).find("comma"), std::string::npos);
    EXPECT_EQ(problem_of({{"RELAYTOOL_SHARED_DIRS", ":"}}),
              "RELAYTOOL_SHARED_DIRS: names no directory");
    EXPECT_EQ(problem_of({{"RELAYTOOL_TRUST_DIR", "trust"}}),
              "RELAYTOOL_TRUST_DIR: 'trust' is not an absolute path");
}

TEST(GridftpConf, WrittenWhenAbsentOrGeneratedNeverOverTheOperators) {
    char dir_template[] = "/tmp/gridftp-conf-test.XXXXXX";
    ASSERT_NE(mkdtemp(dir_template), nullptr);
    Settings s;
    s.config_dir = std::string(dir_template) + "/config dir";
    ASSERT_EQ(mkdir(s.config_dir.c_str(), 0700), 0);
    s.shared_dirs = {"/srv/data", "/home/alice"};
    std::string path = s.config_dir + "/gridftp.conf";
    ConfOutcome outcome = ConfOutcome::Operators;
    std::string error;

    ASSERT_EQ(endpoint::ensure_gridftp_conf(s, outcome, error), 0) << error;
    EXPECT_EQ(outcome, ConfOutcome::Written);
    std::string text = hvlib::read_file_contents(path);
    EXPECT_EQ(text.rfind(std::string(endpoint::kGeneratedMarker) + "\n", 0), 0u);
    EXPECT_NE(text.find("$X509_USER_KEY \"" + s.config_dir + "/ftp-key2.pem\"\n"),
              std::string::npos);
    EXPECT_NE(text.find("restrict_paths \"/srv/data,/home/alice\"\nhome_dir \"/srv/data\"\n"),
              std::string::npos);
    EXPECT_EQ(text.find("X509_CERT_DIR"), std::string::npos);  // no authority: none named
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    ASSERT_EQ(endpoint::ensure_gridftp_conf(s, outcome, error), 0);
    EXPECT_EQ(outcome, ConfOutcome::Unchanged);
    s.trust_dir = "/etc/relaytool/trust";  // a changed setting reaches a generated file
    ASSERT_EQ(endpoint::ensure_gridftp_conf(s, outcome, error), 0);
    EXPECT_EQ(outcome, ConfOutcome::Written);
    EXPECT_NE(hvlib::read_file_contents(path).find("$X509_CERT_DIR \"/etc/relaytool/trust\"\n"),
              std::string::npos);

    std::string own = "# mine\n" + hvlib::read_file_contents(path);
    hvlib::create_private_file_with_contents(path, own);
    ASSERT_EQ(endpoint::ensure_gridftp_conf(s, outcome, error), 0);
    EXPECT_EQ(outcome, ConfOutcome::Operators);
    EXPECT_EQ(hvlib::read_file_contents(path), own);

    s.config_dir = "/tmp/a\"quote";
    EXPECT_EQ(endpoint::ensure_gridftp_conf(s, outcome, error), 2);
    EXPECT_NE(error.find("cannot express"), std::string::npos);
    std::filesystem::remove_all(dir_template);
}
