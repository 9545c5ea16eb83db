// Finds a place for the folder, creates it there, and removes what earlier runs have left.
#include "installation/private_folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "output/text.h"
#include "system/ownership.h"

namespace qnmctl {

namespace fs = std::filesystem;

namespace {

constexpr char removed_start[] = "run.";
constexpr char kept_start[] = "kept.";
constexpr char own_name[] = "qnmctl";

// ---- Places -------------------------------------------------------------------------------------

std::string variable(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

// Only this user can write there, so everything in it is from the user's own runs.
bool is_private(const own_folder& folder) {
    struct stat about {};
    if (fstat(folder.at.fd, &about) != 0 || about.st_uid != geteuid()) return false;
    return (about.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::optional<own_folder> state_in(const fs::path& folder) {
    auto found = open_own_folder(folder / own_name, true);
    return found && is_private(*found) ? std::move(found) : std::nullopt;
}

// The home directory must exist; the folder for state is created.
std::optional<own_folder> state_folder() {
    if (auto named = state_in(variable("XDG_STATE_HOME"))) return named;
    const fs::path home = variable("HOME");
    return open_own_folder(home, false) ? state_in(home / ".local" / "state") : std::nullopt;
}

std::string random_name() {
    constexpr char letters[] = "abcdefghijklmnopqrstuvwxyz234567";  // 32 of them
    unsigned char bytes[12];
    if (getrandom(bytes, sizeof bytes, 0) != sizeof bytes) return {};
    std::string name;
    for (const unsigned char byte : bytes)
        name += letters[byte % 32];
    return name;
}

bool is_usable(const fs::path& path) {
    return path.native().size() <= longest_dir && is_plain_name(path);
}

// Whether the name still leads to the open folder.
bool is_still(const tools::descriptor& folder, const own_folder& parent, const std::string& name) {
    struct stat open {};
    struct stat named {};
    if (fstat(folder.fd, &open) != 0) return false;
    if (fstatat(parent.at.fd, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0) return false;
    return open.st_dev == named.st_dev && open.st_ino == named.st_ino && is_own(open);
}

tools::descriptor open_folder(const own_folder& parent, const std::string& name) {
    return tools::descriptor(
        openat(parent.at.fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// On a full disk a folder can often still be created, but no file be written.
bool has_room(const tools::descriptor& folder) {
    constexpr char name[] = "room";
    constexpr off_t wanted = 8192;  // for the configuration and the first lines of the log
    const tools::descriptor file(
        openat(folder.fd, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    const int code = file.fd < 0 ? errno : posix_fallocate(file.fd, 0, wanted);
    unlinkat(folder.fd, name, 0);
    return code != ENOSPC && code != EDQUOT;
}

void remove_leftover(const own_folder& from, const std::string& name) {
    const tools::descriptor folder = open_folder(from, name);
    if (folder.fd < 0 || flock(folder.fd, LOCK_EX | LOCK_NB) != 0) return;
    if (!is_still(folder, from, name)) return;
    std::error_code ignored;  // what cannot be removed stays for the next run
    fs::remove_all(from.path / name, ignored);
}

}  // namespace

bool is_plain_name(const fs::path& name) {
    const std::string& text = name.native();
    const auto is_printable = [](unsigned char c) { return c >= ' ' && c < 0x7F; };
    return text.find("${") == std::string::npos &&
           std::all_of(text.begin(), text.end(), is_printable);
}

private_folder::private_folder(at_the_end what) : what_(what) {
    const std::string start = what == at_the_end::kept ? kept_start : removed_start;
    const auto state = state_folder();
    if (state) {
        remove_leftovers(*state);
        if (make_in(state, start)) return;
    }
    const std::string shared_start = std::string(own_name) + '.' + start;
    const std::string chosen = variable("TMPDIR");
    if (!chosen.empty() && make_in(open_own_folder(chosen, false), shared_start)) return;
    if (make_in(open_own_folder("/tmp", false), shared_start)) return;
    throw error(
        "there is no place for the files of this run\nSet XDG_STATE_HOME to a folder of your own "
        "that has room and that nobody else can write to.");
}

private_folder::~private_folder() {
    std::error_code ignored;  // nobody can be told any more
    if (what_ == at_the_end::removed) fs::remove_all(path_, ignored);
}

bool private_folder::make_in(const std::optional<own_folder>& parent, const std::string& start) {
    constexpr int tries = 100;
    if (!parent || !is_usable(parent->path / (start + random_name()))) return false;
    for (int tried = 0; tried < tries; ++tried) {
        if (make(*parent, start + random_name())) return true;
        if (errno != EEXIST) return false;
    }
    return false;
}

// Returns false with errno; after EEXIST another name may work.
bool private_folder::make(const own_folder& parent, const std::string& name) {
    if (mkdirat(parent.at.fd, name.c_str(), own_folder_mode) != 0) return false;
    tools::descriptor result = open_folder(parent, name);
    // Where the file system has no locks, nobody removes what is left.
    const bool taken =
        result.fd >= 0 && flock(result.fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    if (result.fd < 0 || taken || !is_still(result, parent, name)) {
        errno = EEXIST;
        return false;
    }
    if (!has_room(result)) {
        unlinkat(parent.at.fd, name.c_str(), AT_REMOVEDIR);
        errno = ENOSPC;
        return false;
    }
    lock_ = std::move(result);
    path_ = parent.path / name;
    return true;
}

void remove_leftovers(const own_folder& from) {
    // The names are read first, so that nothing is removed while the folder is read.
    std::error_code problem;
    std::vector<std::string> names;
    for (fs::directory_iterator at(from.path, problem), end; !problem && at != end;
         at.increment(problem))
        names.push_back(at->path().filename().string());
    for (const std::string& name : names) {
        if (name.starts_with(removed_start)) remove_leftover(from, name);
    }
}

}  // namespace qnmctl
