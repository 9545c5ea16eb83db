// Looked at before it is opened, because opening alone does something to some devices, and once
// more behind that, because it may have been replaced meanwhile.
#include "regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace tools {

namespace {

struct descriptor {
    int fd;
    ~descriptor() {
        if (fd >= 0) close(fd);
    }
};

file_problem system_problem(int code) {
    return {false, std::strerror(code)};
}

std::string too_long(const std::string& size, std::size_t limit) {
    return "it has " + size + " bytes and may have " + std::to_string(limit);
}

// What keeps the file from being read; an empty text when nothing does.
file_problem unusable(const struct stat& file, std::size_t limit) {
    const std::string kind = strange_kind(file.st_mode);
    if (!kind.empty()) return {true, "it is " + kind + ", not a regular file"};
    const auto size = static_cast<std::uintmax_t>(std::max<off_t>(0, file.st_size));
    if (size > limit) return {true, too_long(std::to_string(size), limit)};
    return {};
}

}  // namespace

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

file_contents read_regular_file(const std::string& name, std::size_t limit) {
    struct stat found {};
    if (stat(name.c_str(), &found) != 0) return system_problem(errno);
    if (auto wrong = unusable(found, limit); !wrong.text.empty()) return wrong;
    const descriptor file{open(name.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
    if (file.fd < 0 || fstat(file.fd, &found) != 0) return system_problem(errno);
    if (auto wrong = unusable(found, limit); !wrong.text.empty()) return wrong;
    std::string contents;
    char chunk[16384];
    while (contents.size() <= limit) {  // it may have grown, and some tell no size
        const ssize_t length = read(file.fd, chunk, sizeof chunk);
        if (length < 0 && errno != EINTR) return system_problem(errno);
        if (length == 0) return contents;
        if (length > 0) contents.append(chunk, static_cast<std::size_t>(length));
    }
    return file_problem{true, too_long("more than " + std::to_string(limit), limit)};
}

}  // namespace tools
