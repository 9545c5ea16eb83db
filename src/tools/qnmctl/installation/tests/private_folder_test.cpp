// The folder of a run: where it is made, who may read it, and when it is removed.
#include "installation/private_folder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <thread>
#include <vector>

#include "common/tests/temporary_dir.h"
#include "output/text.h"

namespace qnmctl {
namespace {

namespace fs = std::filesystem;

constexpr uid_t another = 65534;

// A variable of the environment, for a while.
class variable {
  public:
    variable(const char* name, const std::string& value) : name_(name) {
        const char* const old = std::getenv(name);
        if (old != nullptr) old_ = old;
        setenv(name, value.c_str(), 1);
    }
    ~variable() { old_ ? setenv(name_, old_->c_str(), 1) : unsetenv(name_); }
    variable(const variable&) = delete;
    variable& operator=(const variable&) = delete;

  private:
    const char* name_;
    std::optional<std::string> old_;
};

class PrivateFolder : public testing::Test {
  protected:
    PrivateFolder() {
        fs::create_directory(home);
        fs::create_directory(scratch);
    }

    static fs::path place() { return private_folder().path().parent_path(); }

    // Makes a folder in a process that ends without removing it; returns its path.
    fs::path leave(at_the_end what = at_the_end::removed) const {
        const fs::path told = dir.path() / "told";
        const pid_t pid = fork();
        if (pid == 0) {
            const private_folder made(what);
            std::ofstream(made.path() / "file") << "left";
            std::ofstream(told) << made.path().string();
            _exit(0);
        }
        waitpid(pid, nullptr, 0);
        std::string path;
        std::getline(std::ifstream(told), path);
        return path;
    }

    static bool give_away(const fs::path& what) {
        return lchown(what.c_str(), another, another) == 0;
    }

    tools::temporary_dir dir;
    fs::path top = fs::canonical(dir.path());
    fs::path home = top / "home";
    fs::path state = top / "state";
    fs::path scratch = top / "scratch";
    variable with_state{"XDG_STATE_HOME", state};
    variable with_home{"HOME", home};
    variable with_scratch{"TMPDIR", scratch};
};

TEST_F(PrivateFolder, GoesWithItsRecord) {
    fs::path path;
    {
        const private_folder folder;
        path = folder.path();
        EXPECT_EQ(state / "qnmctl", path.parent_path());
        EXPECT_EQ(fs::perms::owner_all, fs::status(path).permissions());
        EXPECT_EQ(fs::perms::owner_all, fs::status(path.parent_path()).permissions());
        fs::create_directories(path / "a" / "b");
    }
    EXPECT_FALSE(fs::exists(path));
}

TEST_F(PrivateFolder, IsMadeInTheHomeWhereNoStateIsNamed) {
    const variable none("XDG_STATE_HOME", "");
    EXPECT_EQ(home / ".local/state/qnmctl", place());
    EXPECT_EQ(fs::perms::owner_all, fs::status(home / ".local").permissions());
    const variable relative("XDG_STATE_HOME", "state");
    EXPECT_EQ(home / ".local/state/qnmctl", place());
}

TEST_F(PrivateFolder, IsTemporaryWithoutAHome) {
    const variable none("XDG_STATE_HOME", "");
    const variable missing("HOME", home / "missing");
    EXPECT_EQ(scratch, place());
    EXPECT_FALSE(fs::exists(home / "missing"));
    unsetenv("HOME");
    EXPECT_EQ(scratch, place());
    EXPECT_TRUE(fs::is_empty(scratch));
    const variable nowhere("TMPDIR", scratch / "missing");
    EXPECT_EQ("/tmp", place());
}

TEST_F(PrivateFolder, IsMadeBehindOwnLinks) {
    fs::create_directory(top / "elsewhere");
    fs::create_directory_symlink("elsewhere/../elsewhere/.", state);
    EXPECT_EQ(top / "elsewhere/qnmctl", place());
    fs::remove(state);
    fs::create_directory_symlink(top / "elsewhere", state);
    EXPECT_EQ(top / "elsewhere/qnmctl", place());
    fs::remove(state);
    fs::create_directory_symlink(state, state);  // an endless one
    EXPECT_EQ(home / ".local/state/qnmctl", place());
}

TEST_F(PrivateFolder, IsNotMadeWhereAllMayWrite) {
    const fs::path next = home / ".local/state/qnmctl";
    fs::create_directories(state / "qnmctl");
    fs::permissions(state / "qnmctl", fs::perms::all);
    EXPECT_EQ(next, place());
    // Where others may write, they may have folders, too.
    fs::permissions(state / "qnmctl", fs::perms::all | fs::perms::sticky_bit);
    EXPECT_EQ(next, place());
    fs::permissions(state / "qnmctl", fs::perms::owner_all);
    fs::permissions(state, fs::perms::all);
    EXPECT_EQ(next, place());
    // But files of this user stay where they are.
    fs::permissions(state, fs::perms::all | fs::perms::sticky_bit);
    EXPECT_EQ(state / "qnmctl", place());
}

TEST_F(PrivateFolder, IsNotMadeWhereItIsAnothersPlace) {
    fs::create_directories(state / "qnmctl");
    if (!give_away(state / "qnmctl")) GTEST_SKIP() << "cannot give files away";
    EXPECT_EQ(home / ".local/state/qnmctl", place());
    ASSERT_TRUE(give_away(state));
    EXPECT_EQ(home / ".local/state/qnmctl", place());
    ASSERT_TRUE(give_away(home));
    EXPECT_EQ(scratch, place());
    ASSERT_TRUE(give_away(scratch));
    EXPECT_EQ("/tmp", place());
}

TEST_F(PrivateFolder, IsNotMadeBehindAnothersLink) {
    fs::create_directory(top / "elsewhere");
    fs::create_directory_symlink(top / "elsewhere", state);
    if (!give_away(state)) GTEST_SKIP() << "cannot give files away";
    EXPECT_EQ(home / ".local/state/qnmctl", place());
    EXPECT_TRUE(fs::is_empty(top / "elsewhere"));
}

TEST_F(PrivateFolder, IsNotMadeWhereItsNameWouldBeMisread) {
    const variable none("HOME", "");
    const variable odd("XDG_STATE_HOME", state / "${HOME}");
    EXPECT_EQ(scratch, place());
    for (const char* const name : {"a\nb", "j\303\274rgen"}) {
        const variable misread("XDG_STATE_HOME", state / name);
        EXPECT_EQ(scratch, place());
    }
    fs::path deep = state;
    for (int at = 0; at < 6; ++at)
        deep /= std::string(100, 'x');
    const variable longest("XDG_STATE_HOME", deep);
    EXPECT_EQ(scratch, place());
}

TEST_F(PrivateFolder, OfARunThatWasKilledIsRemovedByALaterOne) {
    const fs::path kept = leave(at_the_end::kept);
    const fs::path left = leave();
    ASSERT_TRUE(fs::exists(left / "file"));
    const private_folder later;
    EXPECT_FALSE(fs::exists(left));
    EXPECT_TRUE(fs::exists(kept / "file"));
}

TEST_F(PrivateFolder, OfARunThatGoesOnStays) {
    const private_folder first;
    const private_folder second;
    EXPECT_TRUE(fs::exists(first.path()));
    EXPECT_NE(first.path(), second.path());
}

TEST_F(PrivateFolder, LeavesOtherThingsAlone) {
    place();
    const fs::path own = state / "qnmctl";
    fs::create_directory(own / "mine");
    std::ofstream(own / "run.file") << "mine";
    fs::create_directory(top / "elsewhere");
    std::ofstream(top / "elsewhere" / "file") << "mine";
    fs::create_directory_symlink(top / "elsewhere", own / "run.link");
    place();
    EXPECT_TRUE(fs::exists(own / "mine"));
    EXPECT_TRUE(fs::exists(own / "run.file"));
    EXPECT_TRUE(fs::exists(top / "elsewhere" / "file"));
}

// Each process removes the folders that it takes for left behind, while the others have just made
// theirs.
TEST_F(PrivateFolder, IsNobodyElsesWhileManyComeAndGo) {
    constexpr int threads = 8;
    constexpr int rounds = 100;
    std::atomic<int> lost = 0;
    std::vector<std::jthread> all;
    for (int number = 0; number < threads; ++number) {
        all.emplace_back([&lost] {
            for (int round = 0; round < rounds; ++round) {
                const private_folder folder;
                std::ofstream(folder.path() / "file") << "mine";
                std::this_thread::yield();
                if (!fs::exists(folder.path() / "file")) ++lost;
            }
        });
    }
    all.clear();
    EXPECT_EQ(0, lost);
    EXPECT_TRUE(fs::is_empty(state / "qnmctl"));
}

}  // namespace
}  // namespace qnmctl
