// A file is checked before it is opened, because opening some devices already has an effect, and
// again afterwards, because it may have been replaced in between.
#include "common/regular_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tools {

namespace {

file_state state_of(const struct stat& about) {
    if (S_ISLNK(about.st_mode)) return file_state::link;
    return S_ISREG(about.st_mode) ? file_state::readable : file_state::no_file;
}

void fail(opened_file& into, int code) {
    into.state = code == ENOENT || code == ENOTDIR ? file_state::missing : file_state::unreadable;
    into.problem = std::strerror(code);
}

// Returns 0, or the errno value that ended it early.
int append_part(const opened_file& opened, std::uint64_t start, std::size_t limit,
                std::string& to) {
    char chunk[16384];
    std::size_t taken = 0;
    while (taken < limit) {
        const ssize_t length = pread(opened.file.fd, chunk, std::min(sizeof chunk, limit - taken),
                                     static_cast<off_t>(start + taken));
        if (length < 0 && errno == EINTR) continue;
        if (length < 0) return errno;
        if (length == 0) break;
        to.append(chunk, static_cast<std::size_t>(length));
        taken += static_cast<std::size_t>(length);
    }
    return 0;
}

opened_file open_from(int folder, const std::string& there, const std::string& name, links how) {
    opened_file found = {.name = name};
    const bool follows = how == links::followed;
    if (fstatat(folder, there.c_str(), &found.about, follows ? 0 : AT_SYMLINK_NOFOLLOW) != 0) {
        fail(found, errno);
        return found;
    }
    found.state = state_of(found.about);
    if (found.state != file_state::readable) return found;
    constexpr int always = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    found.file = descriptor(openat(folder, there.c_str(), follows ? always : always | O_NOFOLLOW));
    const int code = errno;
    if (found.file.fd < 0) {
        fail(found, code);
        if (!follows && code == ELOOP) found.state = file_state::link;
    } else if (fstat(found.file.fd, &found.about) != 0) {
        fail(found, errno);
    } else {
        found.state = state_of(found.about);
    }
    return found;
}

file_problem too_long(const std::string& size, std::size_t limit) {
    return {true, "it has " + size + " bytes and may have " + std::to_string(limit)};
}

}  // namespace

opened_file open_regular(const std::string& name, links how) {
    return open_from(AT_FDCWD, name, name, how);
}

opened_file open_regular_at(int folder, const std::string& there, const std::string& name) {
    return open_from(folder, there, name, links::refused);
}

std::string refusal_text(const opened_file& opened) {
    switch (opened.state) {
        case file_state::missing:
            return "there is no file " + opened.name;
        case file_state::link:
            return opened.name + (opened.problem.empty()
                                      ? " is a symbolic link, which is not followed"
                                      : opened.problem);
        case file_state::no_file:
            return opened.name + " is " + strange_kind(opened.about.st_mode) +
                   ", not a regular file";
        default:
            return "cannot read " + opened.name + ": " + opened.problem;
    }
}

std::string read_part(const opened_file& opened, std::uint64_t start, std::size_t limit) {
    std::string text;
    append_part(opened, start, limit, text);
    return text;
}

std::string read_from(const opened_file& opened, std::uint64_t start) {
    return read_part(opened, start, SIZE_MAX);
}

file_contents read_regular_file(const std::string& name, std::size_t limit) {
    return contents_of(open_regular(name, links::followed), limit);
}

file_contents contents_of(const opened_file& file, std::size_t limit) {
    if (file.state == file_state::no_file) {
        return file_problem{true,
                            "it is " + strange_kind(file.about.st_mode) + ", not a regular file"};
    }
    if (file.state != file_state::readable) return file_problem{false, file.problem};
    if (file.size() > limit) return too_long(std::to_string(file.size()), limit);
    std::string contents;
    // The file may have grown, and some files have no size.
    const std::size_t one_more = std::min(limit, SIZE_MAX - 1) + 1;
    const int code = append_part(file, 0, one_more, contents);
    if (code != 0) return file_problem{false, std::strerror(code)};
    if (contents.size() > limit) return too_long("more than " + std::to_string(limit), limit);
    return contents;
}

std::string strange_kind(unsigned mode) {
    constexpr struct {
        unsigned type;
        const char* words;
    } kinds[] = {{S_IFDIR, "a directory"},
                 {S_IFIFO, "a FIFO"},
                 {S_IFSOCK, "a socket"},
                 {S_IFCHR, "a device"},
                 {S_IFBLK, "a device"}};
    if (S_ISREG(mode)) return {};
    for (const auto& row : kinds) {
        if ((mode & S_IFMT) == row.type) return row.words;
    }
    return "something unknown";
}

}  // namespace tools
