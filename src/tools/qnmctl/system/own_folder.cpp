// Walks a path by O_PATH descriptors. Links are not followed by the kernel; their targets are put
// in front of the remaining path.
#include "system/own_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <deque>
#include <vector>

#include "output/text.h"
#include "system/ownership.h"

namespace qnmctl {

namespace fs = std::filesystem;

namespace {

constexpr int most_links = 40;  // the kernel's own limit

enum class owners { self, anybody };

struct found_link {
    std::string target = {};  // empty, with errno: it cannot be followed
    bool is_foreign = false;  // it is another user's, and its target was not read
};

// Owner and target are taken from one open descriptor, because others who may write to the folder
// can replace the link at any time.
found_link find_link(const own_folder& in, const std::string& name) {
    const tools::descriptor link(openat(in.at.fd, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat about {};
    if (link.fd < 0 || fstat(link.fd, &about) != 0) return {};
    errno = ENOTDIR;  // unless it is a link
    if (!S_ISLNK(about.st_mode)) return {};
    errno = EACCES;
    if (!is_own_user(about.st_uid)) return {.is_foreign = true};
    char target[PATH_MAX];
    const ssize_t length = readlinkat(link.fd, "", target, sizeof target);
    errno = ELOOP;
    if (length <= 0 || length == sizeof target) return {};
    return {.target = std::string(target, static_cast<std::size_t>(length))};
}

class walk {
  public:
    walk(const fs::path& name, owners allowed) : owners_(allowed) { put_in_front(name); }

    // Whether the path leads to a folder; false with errno. Only the user's own links are followed;
    // folders must be the user's own as well if `owners` says so.
    bool go(bool makes) {
        if (!enter("/")) return false;
        while (!left_.empty()) {
            const std::string part = left_.front();
            left_.pop_front();
            if (!step(part, makes)) return false;
        }
        return true;
    }

    own_folder end() { return std::move(here_); }

    // The link of another user that ended the walk; empty: there was none.
    const fs::path& foreign_link() const { return foreign_link_; }

  private:
    void put_in_front(const fs::path& name) {
        const std::vector<std::string> parts = split(name.string(), "/");
        left_.insert(left_.begin(), parts.begin(), parts.end());
    }

    // Returns false with errno.
    bool enter(const std::string& part) {
        tools::descriptor next(
            openat(here_.at.fd, part.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (next.fd < 0) return false;
        struct stat about {};
        errno = EACCES;  // if the folder is another user's
        if (fstat(next.fd, &about) != 0) return false;
        if (owners_ == owners::self && !is_own(about)) return false;
        here_.at = std::move(next);
        here_.path = part == ".." ? here_.path.parent_path() : here_.path / part;
        return true;
    }

    bool step(const std::string& part, bool makes) {
        if (part == "." || enter(part)) return true;
        const int code = errno;
        if (code == ENOTDIR || code == ELOOP) return follow(part);
        if (code != ENOENT || !makes) return false;
        const bool result = mkdirat(here_.at.fd, part.c_str(), own_folder_mode) == 0;
        if (!result && errno != EEXIST) return false;
        return enter(part);
    }

    bool follow(const std::string& part) {
        const found_link link = find_link(here_, part);
        if (link.is_foreign) foreign_link_ = here_.path / part;
        if (link.target.empty()) return false;
        errno = ELOOP;
        if (++links_ > most_links) return false;
        put_in_front(link.target);
        return link.target.front() != '/' || enter("/");
    }

    owners owners_;
    own_folder here_;
    fs::path foreign_link_;
    std::deque<std::string> left_;
    int links_ = 0;
};

tools::opened_file not_opened(const std::string& name, int code) {
    const bool missing = code == ENOENT || code == ENOTDIR;
    return {.name = name,
            .state = missing ? tools::file_state::missing : tools::file_state::unreadable,
            .problem = std::strerror(code)};
}

tools::opened_file refused_link(const std::string& name, const std::string& problem) {
    return {.name = name, .state = tools::file_state::link, .problem = problem};
}

}  // namespace

std::optional<own_folder> open_own_folder(const fs::path& name, bool makes) {
    if (!name.is_absolute()) return std::nullopt;
    walk way(name, owners::self);
    if (!way.go(makes)) return std::nullopt;
    return way.end();
}

tools::opened_file open_by_own_links(const std::string& name, tools::links how) {
    std::error_code problem;
    fs::path at = fs::absolute(name, problem);
    if (problem) return not_opened(name, problem.value());
    for (int links = 0; links < most_links; ++links) {
        walk way(at.parent_path(), owners::anybody);
        if (!way.go(false)) {
            const int code = errno;
            if (way.foreign_link().empty()) return not_opened(name, code);
            return refused_link(name, " lies behind a symbolic link of another user, " +
                                          way.foreign_link().string() + ", which is not followed");
        }
        const own_folder folder = way.end();
        const std::string last = at.has_filename() ? at.filename().string() : ".";
        tools::opened_file found = tools::open_regular_at(folder.at.fd, last, name);
        if (found.state != tools::file_state::link || how == tools::links::refused) return found;
        const found_link link = find_link(folder, last);
        const int code = errno;
        if (link.is_foreign) {
            return refused_link(name, " is a symbolic link of another user, which is not followed");
        }
        if (link.target.empty()) return not_opened(name, code);
        at = folder.path / link.target;
    }
    return not_opened(name, ELOOP);
}

}  // namespace qnmctl
