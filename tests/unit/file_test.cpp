#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>

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
    mode_t mode(const std::string& path) {
        struct stat st {};
        EXPECT_EQ(stat(path.c_str(), &st), 0);
        return st.st_mode & 07777;
    }
    std::string dir;
};

}  // namespace

TEST_F(FileTest, NewFilesArePrivateAndRewritesKeepTheirMode) {
    std::string path = dir + "/f";
    hvlib::create_private_file_with_contents(path, "first contents");
    EXPECT_EQ(mode(path), 0600u);
    chmod(path.c_str(), 0644);
    hvlib::create_private_file_with_contents(path, "second");
    EXPECT_EQ(mode(path), 0644u);
    EXPECT_EQ(hvlib::read_file_contents(path), "second");
    hvlib::create_private_file_with_contents(path, "");
    EXPECT_EQ(hvlib::read_file_contents(path), "");
}

TEST_F(FileTest, ReadsAnySizeByteExact) {
    for (size_t size :
         {size_t(0), size_t(1), size_t(4095), size_t(4096), size_t(4097), size_t(10000)}) {
        std::string data;
        for (size_t i = 0; i < size; ++i) data += static_cast<char>(i * 7 % 256);
        std::string path = dir + "/data" + std::to_string(size);
        hvlib::create_private_file_with_contents(path, data);
        EXPECT_EQ(hvlib::read_file_contents(path), data) << size;
    }
}

TEST_F(FileTest, ReadableIsQuietlyFalseForMissingOrForbiddenFiles) {
    EXPECT_FALSE(hvlib::file_readable(dir + "/missing"));
    std::string path = dir + "/f";
    hvlib::create_private_file_with_contents(path, "x");
    EXPECT_TRUE(hvlib::file_readable(path));
    if (geteuid() != 0) {  // root reads anything
        chmod(path.c_str(), 0200);
        EXPECT_FALSE(hvlib::file_readable(path));
    }
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

TEST_F(FileTest, TryReadReturnsTheErrorInsteadOfEnding) {
    std::string contents = "stale";
    EXPECT_EQ(hvlib::try_read_file_contents(dir + "/missing", contents), ENOENT);
    EXPECT_EQ(contents, "");
    EXPECT_EQ(hvlib::try_read_file_contents(dir, contents), EISDIR);
    std::string data(10000, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i % 251);
    hvlib::create_private_file_with_contents(dir + "/f", data);
    EXPECT_EQ(hvlib::try_read_file_contents(dir + "/f", contents), 0);
    EXPECT_EQ(contents, data);
}

TEST_F(FileTest, AtomicReplaceLeavesOnlyTheWholeNewFile) {
    std::string path = dir + "/state";
    EXPECT_EQ(hvlib::replace_file_atomically(path, "first"), 0);
    EXPECT_EQ(mode(path), 0600u);
    EXPECT_EQ(hvlib::replace_file_atomically(path, std::string(100000, 'y')), 0);
    EXPECT_EQ(hvlib::read_file_contents(path), std::string(100000, 'y'));
    EXPECT_EQ(hvlib::replace_file_atomically(path, ""), 0);
    EXPECT_EQ(hvlib::read_file_contents(path), "");
    // no temporary file is left beside it
    size_t entries = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        (void)entry;
        ++entries;
    }
    EXPECT_EQ(entries, 1u);
}

TEST_F(FileTest, AtomicReplaceFailsWithoutTouchingWhatIsThere) {
    EXPECT_EQ(hvlib::replace_file_atomically(dir + "/no/such", "x"), ENOENT);
    // a directory in the way: the rename fails and the new file goes again
    std::string blocked = dir + "/blocked";
    ASSERT_EQ(mkdir(blocked.c_str(), 0700), 0);
    ASSERT_EQ(mkdir((blocked + "/inside").c_str(), 0700), 0);
    EXPECT_NE(hvlib::replace_file_atomically(blocked, "x"), 0);
    EXPECT_TRUE(std::filesystem::is_directory(blocked + "/inside"));
    size_t entries = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        (void)entry;
        ++entries;
    }
    EXPECT_EQ(entries, 1u);
}
