// Files that are read whole, and those that are not.
#include "regular_file.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace tools {
namespace {

namespace fs = std::filesystem;

class RegularFile : public testing::Test {
  protected:
    void SetUp() override {
        std::string name = testing::TempDir() + "/regular-file.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(name.data()));
        dir_ = name;
    }
    void TearDown() override { fs::remove_all(dir_); }

    std::string path(const char* name) const { return (dir_ / name).string(); }

    std::string store(const char* name, const std::string& contents) const {
        std::ofstream(path(name), std::ios::binary) << contents;
        return path(name);
    }

    fs::path dir_;
};

std::string contents_of(const file_contents& read) {
    const auto* const contents = std::get_if<std::string>(&read);
    return contents != nullptr ? *contents : "problem: " + std::get<file_problem>(read).text;
}

// What is wrong with a file that is none to be read.
std::string wrong(const std::string& name, std::size_t limit = 100) {
    const file_contents read = read_regular_file(name, limit);
    const auto* const problem = std::get_if<file_problem>(&read);
    if (problem == nullptr) return "read";
    EXPECT_TRUE(problem->wrong_file);
    return problem->text;
}

TEST_F(RegularFile, IsReadWhole) {
    const std::string whole(100, 'x');
    EXPECT_EQ(whole, contents_of(read_regular_file(store("file", whole), 100)));
    EXPECT_EQ("", contents_of(read_regular_file(store("file", ""), 100)));
}

TEST_F(RegularFile, MayBeReachedByALink) {
    store("file", "abc");
    fs::create_symlink("file", path("link"));
    EXPECT_EQ("abc", contents_of(read_regular_file(path("link"), 100)));
}

TEST_F(RegularFile, IsNotLongerThanItsLimit) {
    EXPECT_EQ("it has 101 bytes and may have 100", wrong(store("file", std::string(101, 'x'))));
    EXPECT_EQ(0, truncate(path("file").c_str(), 300'000'000));
    EXPECT_EQ("it has 300000000 bytes and may have 100", wrong(path("file")));
}

TEST_F(RegularFile, ThatTellsNoSizeIsReadAsFarAsItsLimit) {
    EXPECT_EQ("it has more than 10 bytes and may have 10", wrong("/proc/self/status", 10));
    EXPECT_NE("", contents_of(read_regular_file("/proc/self/status", 1 << 20)));
}

TEST_F(RegularFile, IsNoDirectoryAndNoDevice) {
    EXPECT_EQ("it is a directory, not a regular file", wrong(dir_));
    EXPECT_EQ("it is a device, not a regular file", wrong("/dev/zero"));
}

// Nobody writes to it, and nobody is waited for.
TEST_F(RegularFile, IsNoFifo) {
    ASSERT_EQ(0, mkfifo(path("fifo").c_str(), 0600));
    EXPECT_EQ("it is a FIFO, not a regular file", wrong(path("fifo")));
    fs::create_symlink("fifo", path("link"));
    EXPECT_EQ("it is a FIFO, not a regular file", wrong(path("link")));
}

TEST_F(RegularFile, IsNoSocket) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    path("socket").copy(name.sun_path, sizeof name.sun_path - 1);
    ASSERT_EQ(0, bind(fd, reinterpret_cast<const sockaddr*>(&name), sizeof name));
    EXPECT_EQ("it is a socket, not a regular file", wrong(path("socket")));
    close(fd);
}

TEST_F(RegularFile, ThatCannotBeOpenedIsNoWrongFile) {
    const file_contents read = read_regular_file(path("nothing"), 100);
    const auto* const problem = std::get_if<file_problem>(&read);
    ASSERT_NE(nullptr, problem);
    EXPECT_FALSE(problem->wrong_file);
    EXPECT_EQ("No such file or directory", problem->text);
}

}  // namespace
}  // namespace tools
