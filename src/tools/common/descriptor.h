// A file descriptor that closes itself at the end of its scope.
#pragma once

#include <unistd.h>

#include <utility>

namespace tools {

struct descriptor {
    descriptor() = default;
    explicit descriptor(int number) : fd(number) {}
    ~descriptor() {
        if (fd >= 0) close(fd);
    }
    descriptor(descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    descriptor& operator=(descriptor&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }

    int fd = -1;  // negative: none is open
};

}  // namespace tools
