// What was added to a log since it was marked, rotations included.
#include "installation/log_text.h"

#include <gtest/gtest.h>

#include <fstream>

#include "common/tests/temporary_dir.h"
#include "output/text.h"

namespace qnmctl {
namespace {

namespace fs = std::filesystem;

class LogMark : public testing::Test {
  protected:
    void add(const std::string& text) const { std::ofstream(log, std::ios::app) << text; }
    void rotate() const {
        if (fs::exists(log.string() + ".1")) fs::rename(log.string() + ".1", log.string() + ".2");
        fs::rename(log, log.string() + ".1");
    }

    tools::temporary_dir dir;
    fs::path log = dir.path() / "log";
};

TEST_F(LogMark, HasWhatCameSince) {
    add("before\n");
    const log_mark mark(log);
    EXPECT_EQ("", mark.text_since());
    add("since\n");
    EXPECT_EQ("since\n", mark.text_since());
}

TEST_F(LogMark, HasAllOfALogThatWasNotThere) {
    const log_mark mark(log);
    EXPECT_EQ("", mark.text_since());
    add("one\n");
    EXPECT_EQ("one\n", mark.text_since());
    rotate();
    add("two\n");
    EXPECT_EQ("one\ntwo\n", mark.text_since());
}

TEST_F(LogMark, FollowsRotations) {
    add("before\n");
    const log_mark mark(log);
    add("one\n");
    rotate();
    EXPECT_EQ("one\n", mark.text_since());  // the new one is not there yet
    add("two\n");
    rotate();
    add("three\n");
    EXPECT_EQ("one\ntwo\nthree\n", mark.text_since());
}

TEST_F(LogMark, SaysWhatIsLost) {
    add("before\n");
    const log_mark mark(log);
    rotate();
    add("two\n");
    fs::remove(log.string() + ".1");
    EXPECT_THROW(static_cast<void>(mark.text_since()), error);
}

TEST_F(LogMark, OfNothingHasNothing) {
    EXPECT_EQ("", log_mark().text_since());
}

}  // namespace
}  // namespace qnmctl
