// Paths through folders of other users, who replace links at that very moment.
#include "system/own_folder.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "common/tests/temporary_dir.h"

namespace {

// Runs just before the target of a link is read, when the other user's link takes its place.
struct exchange {
    std::filesystem::path link = {};  // empty: nothing happens
    std::filesystem::path others = {};
    int done = 0;
};
exchange next_exchange;

ssize_t exchange_and_read(int folder, const char* name, char* target, size_t size) {
    if (!next_exchange.link.empty()) {
        if (rename(next_exchange.others.c_str(), next_exchange.link.c_str()) == 0)
            ++next_exchange.done;
        next_exchange.link.clear();
    }
    return syscall(SYS_readlinkat, folder, name, target, size);
}

}  // namespace

// These replace the system's functions for everything that is linked into this program.
extern "C" {
ssize_t readlinkat(int folder, const char* name, char* target, size_t size) noexcept {
    return exchange_and_read(folder, name, target, size);
}
ssize_t __readlinkat_chk(int folder, const char* name, char* target, size_t size,
                         size_t /*room*/) noexcept;
ssize_t __readlinkat_chk(int folder, const char* name, char* target, size_t size,
                         size_t /*room*/) noexcept {
    return exchange_and_read(folder, name, target, size);
}
}

namespace qnmctl {
namespace {

namespace fs = std::filesystem;

constexpr uid_t another = 65534;

// "open" is a folder of another user, with a link of this user's to a file that the other one
// shows.
class OwnFolder : public testing::Test {
  protected:
    OwnFolder() {
        for (const fs::path& made : {open, shown, hidden})
            fs::create_directory(made);
        std::ofstream(shown / "log") << "shown";
        std::ofstream(hidden / "log") << "hidden";
    }
    ~OwnFolder() override { next_exchange = {}; }

    // Replaces the link by one of the other user's while it is followed. Returns false where that
    // is not possible.
    bool exchange_later(const fs::path& target, const fs::path& others_target) {
        fs::create_symlink(target, link);
        fs::create_symlink(others_target, open / "others");
        if (lchown((open / "others").c_str(), another, another) != 0) return false;
        if (chown(open.c_str(), another, another) != 0) return false;
        next_exchange = {.link = link, .others = open / "others"};
        return true;
    }

    static std::string text_of(const tools::opened_file& file) {
        return file.state == tools::file_state::readable ? tools::read_from(file, 0)
                                                         : tools::refusal_text(file);
    }

    tools::temporary_dir dir;
    fs::path top = fs::canonical(dir.path());
    fs::path open = top / "open";
    fs::path shown = top / "shown";
    fs::path hidden = top / "hidden";
    fs::path link = open / "link";
};

TEST_F(OwnFolder, IsReachedByTheLinkWhoseOwnerWasLookedAt) {
    if (!exchange_later(shown, hidden)) GTEST_SKIP() << "cannot give files away";
    EXPECT_EQ("shown", text_of(open_by_own_links(link / "log", tools::links::refused)));
    EXPECT_EQ(1, next_exchange.done);
    // From here on it belongs to the other user.
    EXPECT_EQ(link.string() + "/log lies behind a symbolic link of another user, " + link.string() +
                  ", which is not followed",
              text_of(open_by_own_links(link / "log", tools::links::refused)));
}

TEST_F(OwnFolder, HasFilesByTheLinkWhoseOwnerWasLookedAt) {
    if (!exchange_later(shown / "log", hidden / "log")) GTEST_SKIP() << "cannot give files away";
    EXPECT_EQ("shown", text_of(open_by_own_links(link, tools::links::followed)));
    EXPECT_EQ(1, next_exchange.done);
    EXPECT_EQ(link.string() + " is a symbolic link of another user, which is not followed",
              text_of(open_by_own_links(link, tools::links::followed)));
}

TEST_F(OwnFolder, HasFilesByItsOwnLinks) {
    fs::create_symlink("../shown/log", link);
    EXPECT_EQ("shown", text_of(open_by_own_links(link, tools::links::followed)));
    EXPECT_EQ(link.string() + " is a symbolic link, which is not followed",
              text_of(open_by_own_links(link, tools::links::refused)));
    EXPECT_EQ("there is no file " + (link / "log").string(),
              text_of(open_by_own_links(link / "log", tools::links::followed)));
    fs::create_symlink("endless", open / "endless");
    const auto endless = open_by_own_links(open / "endless", tools::links::followed);
    EXPECT_EQ(tools::file_state::unreadable, endless.state);
    EXPECT_EQ(std::strerror(ELOOP), endless.problem);
}

}  // namespace
}  // namespace qnmctl
