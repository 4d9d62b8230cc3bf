#include "gridftp_conf.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "file.h"

using endpoint::ConfOutcome;

TEST(GridftpConf, WrittenWhenAbsentOrGeneratedNeverOverTheOperators) {
    char dir_template[] = "/tmp/gridftp-conf-test.XXXXXX";
    ASSERT_NE(mkdtemp(dir_template), nullptr);
    endpoint::Settings s;
    s.config_dir = dir_template;
    s.shared_dirs = {"/srv/data", "/home/alice"};
    std::string path = s.config_dir + "/gridftp.conf";
    ConfOutcome outcome = ConfOutcome::Operators;

    ASSERT_EQ(endpoint::write_gridftp_conf(s, outcome), 0);
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

    ASSERT_EQ(endpoint::write_gridftp_conf(s, outcome), 0);
    EXPECT_EQ(outcome, ConfOutcome::Unchanged);
    s.trust_dir = "/etc/relaytool/trust";  // a changed setting reaches a generated file
    ASSERT_EQ(endpoint::write_gridftp_conf(s, outcome), 0);
    EXPECT_EQ(outcome, ConfOutcome::Written);
    EXPECT_NE(hvlib::read_file_contents(path).find("$X509_CERT_DIR \"/etc/relaytool/trust\"\n"),
              std::string::npos);

    std::string own = "# mine\n" + hvlib::read_file_contents(path);
    hvlib::create_private_file_with_contents(path, own);
    ASSERT_EQ(endpoint::write_gridftp_conf(s, outcome), 0);
    EXPECT_EQ(outcome, ConfOutcome::Operators);
    EXPECT_EQ(hvlib::read_file_contents(path), own);
    std::filesystem::remove_all(dir_template);
}
