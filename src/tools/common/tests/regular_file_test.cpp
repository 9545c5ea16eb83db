// Files that are read, whole or in part, and files that are refused.
#include "common/regular_file.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "common/tests/temporary_dir.h"

namespace tools {
namespace {

namespace fs = std::filesystem;

class RegularFile : public testing::Test {
  protected:
    std::string path(const char* name) const { return (dir_ / name).string(); }

    std::string store(const char* name, const std::string& contents) const {
        std::ofstream(path(name), std::ios::binary) << contents;
        return path(name);
    }

    temporary_dir made_;
    fs::path dir_ = made_.path();
};

std::string contents_of(const file_contents& read) {
    const auto* const contents = std::get_if<std::string>(&read);
    return contents != nullptr ? *contents : "problem: " + std::get<file_problem>(read).text;
}

// What is wrong with a file that is not to be read.
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

// Nobody writes to the FIFO, and it must not be waited for.
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

// Why it is not opened.
std::string refusal(const std::string& name, links how = links::refused) {
    const opened_file found = open_regular(name, how);
    return found.state == file_state::readable ? "" : refusal_text(found);
}

TEST_F(RegularFile, IsReadInParts) {
    const opened_file found = open_regular(store("file", "one\ntwo\n"), links::refused);
    ASSERT_EQ(file_state::readable, found.state);
    EXPECT_EQ(8U, found.size());
    EXPECT_EQ("one", read_part(found, 0, 3));
    EXPECT_EQ("two\n", read_part(found, 4, 100));
    EXPECT_EQ("", read_part(found, 9, 100));
    EXPECT_EQ("ne\ntwo\n", read_from(found, 1));
}

// The end of a file that is longer than one read.
TEST_F(RegularFile, IsReadToItsEnd) {
    std::string whole;
    for (int i = 0; i < 20'000; ++i)
        whole += std::to_string(i) + '\n';
    const opened_file found = open_regular(store("file", whole), links::refused);
    EXPECT_EQ(whole, read_from(found, 0));
    EXPECT_EQ(whole.substr(17), read_from(found, 17));
    EXPECT_EQ(whole, contents_of(read_regular_file(path("file"), whole.size())));
}

TEST_F(RegularFile, MayHaveNoSizeInPartsToo) {
    const opened_file found = open_regular("/proc/self/status", links::refused);
    ASSERT_EQ(file_state::readable, found.state);
    EXPECT_NE("", read_from(found, 0));
}

TEST_F(RegularFile, IsNoLinkUnlessItMayBe) {
    const std::string file = store("file", "abc");
    const std::string link = path("link");
    fs::create_symlink(file, link);
    EXPECT_EQ(link + " is a symbolic link, which is not followed", refusal(link));
    EXPECT_EQ("", refusal(link, links::followed));
    fs::remove(file);
    EXPECT_EQ(link + " is a symbolic link, which is not followed", refusal(link));
    EXPECT_EQ("there is no file " + link, refusal(link, links::followed));
}

TEST_F(RegularFile, MayLieInAFolderThatIsReachedByALink) {
    store("file", "abc");
    fs::create_directory_symlink(dir_, path("link"));
    EXPECT_EQ("", refusal(path("link/file")));
}

TEST_F(RegularFile, IsNamedWhenItIsNone) {
    ASSERT_EQ(0, mkfifo(path("fifo").c_str(), 0600));
    for (const links how : {links::refused, links::followed})
        EXPECT_EQ(path("fifo") + " is a FIFO, not a regular file", refusal(path("fifo"), how));
    EXPECT_EQ(dir_.string() + " is a directory, not a regular file", refusal(dir_));
    EXPECT_EQ("/dev/zero is a device, not a regular file", refusal("/dev/zero"));
}

TEST_F(RegularFile, ThatIsMissingIsNamed) {
    EXPECT_EQ("there is no file " + path("nothing"), refusal(path("nothing")));
    const std::string below = store("file", "abc") + "/below";
    EXPECT_EQ("there is no file " + below, refusal(below));
}

TEST_F(RegularFile, ThatMayNotBeReadIsNamed) {
    if (geteuid() == 0) GTEST_SKIP() << "root may read all";
    const std::string file = store("file", "abc");
    fs::permissions(file, fs::perms::none);
    EXPECT_EQ("cannot read " + file + ": Permission denied", refusal(file));
}

}  // namespace
}  // namespace tools
