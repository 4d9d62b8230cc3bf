#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "file.h"

namespace {

class FileTest : public testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/hvlib-file-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
    }
    void TearDown() override { std::filesystem::remove_all(dir); }
    static mode_t mode(const std::string& path) {
        struct stat st {};
        EXPECT_EQ(stat(path.c_str(), &st), 0);
        return st.st_mode & 07777;
    }
    size_t entries() const {
        auto it = std::filesystem::directory_iterator(dir);
        return static_cast<size_t>(std::distance(begin(it), end(it)));
    }
    std::string dir;
};

}  // namespace

TEST_F(FileTest, PrivateFilesAreWrittenWholeAndReadByteExact) {
    std::string path = dir + "/f";
    hvlib::create_private_file_with_contents(path, "first, longer contents");
    EXPECT_EQ(mode(path), 0600u);
    chmod(path.c_str(), 0644);
    hvlib::create_private_file_with_contents(path, "second");  // truncated, mode kept
    EXPECT_EQ(mode(path), 0644u);
    EXPECT_EQ(hvlib::read_file_contents(path), "second");
    const std::string data(10000, '\0');  // more than one read, zero bytes
    hvlib::create_private_file_with_contents(path, data);
    EXPECT_EQ(hvlib::read_file_contents(path), data);
    EXPECT_TRUE(hvlib::file_readable(path));
    EXPECT_FALSE(hvlib::file_readable(dir + "/missing"));
}

TEST_F(FileTest, FailuresEndTheProcessWithTheirReports) {
    EXPECT_EXIT(
        hvlib::read_file_contents(dir + "/missing"), testing::ExitedWithCode(1),
        "^Fatal Error: Couldn't open for reading '.*/missing': No such file or directory\n\n$");
    EXPECT_EXIT(
        hvlib::create_private_file_with_contents(dir + "/no/such", "x"), testing::ExitedWithCode(1),
        "^Fatal Error: Couldn't open for writing '.*/no/such': No such file or directory\n\n$");
    EXPECT_EXIT(hvlib::read_file_contents(dir), testing::ExitedWithCode(1),
                "^Fatal Error: Couldn't read '.*': Is a directory\n\n$");
    EXPECT_EXIT(hvlib::create_private_file_with_contents("/dev/full", "x"),
                testing::ExitedWithCode(1),
                "^Fatal Error: Couldn't write '/dev/full': No space left on device\n\n$");
}

TEST_F(FileTest, TryReadAndAtomicReplaceReturnTheErrorAndLeaveOnlyWholeFiles) {
    std::string contents = "stale", path = dir + "/state";
    EXPECT_EQ(hvlib::try_read_file_contents(dir + "/missing", contents), ENOENT);
    EXPECT_EQ(contents, "");
    EXPECT_EQ(hvlib::try_read_file_contents(dir, contents), EISDIR);
    for (const std::string& data : {std::string(10000, '\xff'), std::string()}) {
        EXPECT_EQ(hvlib::replace_file_atomically(path, data), 0);
        EXPECT_EQ(mode(path), 0600u);
        EXPECT_EQ(hvlib::try_read_file_contents(path, contents), 0);
        EXPECT_EQ(contents, data);
    }
    EXPECT_EQ(hvlib::replace_file_atomically(dir + "/no/such", "x"), ENOENT);
    // A directory in the way: the rename fails and the new file goes again.
    ASSERT_EQ(mkdir((dir + "/blocked").c_str(), 0700), 0);
    ASSERT_EQ(mkdir((dir + "/blocked/inside").c_str(), 0700), 0);
    EXPECT_NE(hvlib::replace_file_atomically(dir + "/blocked", "x"), 0);
    EXPECT_TRUE(std::filesystem::is_directory(dir + "/blocked/inside"));
    EXPECT_EQ(entries(), 2u);  // no temporary file left beside them
}
