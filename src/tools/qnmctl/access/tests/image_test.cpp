// Images as words, bytes and files.
#include "access/image.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "common/tests/temporary_dir.h"
#include "installation/config_file.h"
#include "output/text.h"

namespace qnmctl {
namespace {

namespace fs = std::filesystem;

using std::string_literals::operator""s;

void store(const fs::path& file, const std::string& contents) {
    std::ofstream(file, std::ios::binary) << contents;
}

std::string message(const auto& work) {
    try {
        work();
    } catch (const error& e) {
        return e.what();
    }
    return "no error";
}

std::size_t entries(const fs::path& dir) {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
}

TEST(Bytes, OfAWordStartWithTheLeastSignificantOne) {
    EXPECT_EQ("\x44\x33\x22\x11\xFF\x00\x00\x80"s, to_bytes({0x11223344, 0x800000FF}));
    EXPECT_EQ((word_list{0x11223344, 0x800000FF}), from_bytes("\x44\x33\x22\x11\xFF\x00\x00\x80"s));
}

TEST(Bytes, ThatMakeNoWholeWordAreLeftOut) {
    EXPECT_EQ(word_list{0x64636261}, from_bytes("abcdefg"));
    EXPECT_EQ(word_list{}, from_bytes("abc"));
    EXPECT_EQ("", to_bytes({}));
}

TEST(Differences, AreTheWordsThatHaveToBeWritten) {
    const auto found = differences({1, 2, 3, 4}, {1, 0x20, 3, 0x40});
    ASSERT_EQ(2U, found.size());
    EXPECT_EQ(4U, found[0].addr);
    EXPECT_EQ(2U, found[0].before);
    EXPECT_EQ(0x20U, found[0].after);
    EXPECT_EQ(12U, found[1].addr);
    EXPECT_TRUE(differences({1, 2}, {1, 2}).empty());
}

TEST(Differences, EndWithTheImage) {
    EXPECT_TRUE(differences({1, 2, 3}, {1}).empty());
}

class ImageFile : public testing::Test {
  protected:
    tools::temporary_dir dir_;
    const fs::path file_ = dir_.path() / "image";
};

TEST_F(ImageFile, IsReadInWords) {
    store(file_, "abcdABCD");
    EXPECT_EQ((word_list{0x64636261, 0x44434241}), read_image(file_, 8));
}

TEST_F(ImageFile, HasWholeWords) {
    for (const char* const contents : {"", "a", "abcde"}) {
        store(file_, contents);
        EXPECT_NE(std::string::npos,
                  message([&] { read_image(file_, 2048); }).find(" is no image: it has "))
            << contents;
    }
}

TEST_F(ImageFile, IsNotLongerThanItsLimit) {
    store(file_, std::string(2052, 'x'));
    EXPECT_EQ("cannot read " + file_.string() + ": it has 2052 bytes and may have 2048",
              message([&] { read_image(file_, 2048); }));
}

TEST_F(ImageFile, ThatCannotBeReadIsNamed) {
    EXPECT_EQ("cannot read " + file_.string() + ": No such file or directory",
              message([&] { read_image(file_, 2048); }));
    EXPECT_EQ("cannot read " + dir_.path().string() + ": it is a directory, not a regular file",
              message([&] { read_image(dir_.path(), 2048); }));
    EXPECT_EQ("cannot read /dev/zero: it is a device, not a regular file",
              message([] { read_image("/dev/zero", 2048); }));
}

TEST_F(ImageFile, AppearsWhole) {
    {
        new_file made(file_);
        EXPECT_FALSE(fs::exists(file_));
        made.commit("new");
    }
    EXPECT_EQ("new", read_text(file_));
    EXPECT_EQ(1U, entries(dir_.path()));
}

TEST_F(ImageFile, StaysAsItWasWithoutACommit) {
    store(file_, "old");
    { const new_file abandoned(file_); }
    EXPECT_EQ("old", read_text(file_));
    EXPECT_EQ(1U, entries(dir_.path()));
}

TEST_F(ImageFile, KeepsItsPermissions) {
    store(file_, "old");
    chmod(file_.c_str(), 0640);
    new_file(file_).commit("new");
    struct stat now {};
    ASSERT_EQ(0, stat(file_.c_str(), &now));
    EXPECT_EQ(0640U, now.st_mode & 0777U);
}

TEST_F(ImageFile, IsReplacedWhereALinkLeads) {
    store(file_, "old");
    const fs::path link = dir_.path() / "link";
    fs::create_symlink(file_, link);
    new_file(link).commit("new");
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ("new", read_text(file_));
}

TEST_F(ImageFile, IsNeverADevice) {
    EXPECT_EQ("/dev/full is not a regular file\nName a file that may be replaced.",
              message([] { const new_file made("/dev/full"); }));
    EXPECT_TRUE(fs::is_character_file("/dev/full"));
}

TEST_F(ImageFile, NeedsADirectory) {
    const std::string name = dir_.path() / "missing" / "image";
    EXPECT_EQ("cannot write " + name + ": No such file or directory",
              message([&] { const new_file made(name); }));
}

TEST_F(ImageFile, StaysAsItWasWhenTheNewOneCannotBeWritten) {
    store(file_, "old");
    std::string told;
    {
        new_file made(file_);
        fs::remove(file_);
        fs::create_directory(file_);  // a directory cannot be replaced by a file
        told = message([&] { made.commit("new"); });
    }
    EXPECT_EQ("cannot write " + file_.string() + ": Is a directory\nNothing was changed there.",
              told);
    EXPECT_EQ(1U, entries(dir_.path()));
}

}  // namespace
}  // namespace qnmctl
