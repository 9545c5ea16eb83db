// redirected_calls_fortified.cpp - the calls that _FORTIFY_SOURCE turns into others. The build
// compiles this file with that macro and with optimisation, which it needs.

#include <unistd.h>

#include "redirected_calls.h"

namespace redirected {

bool fgets_fortified(int size, FILE* stream) {
    char buf[k_fortified_size];
    return fgets(buf, size, stream) != nullptr;
}

ssize_t read_fortified(int fd, size_t size) {
    char buf[k_fortified_size];
    return read(fd, buf, size);
}

ssize_t recv_fortified(int fd, size_t size) {
    char buf[k_fortified_size];
    return recv(fd, buf, size, 0);
}

int poll_fortified(nfds_t nfds) {
    struct pollfd fds[2] = {{-1, 0, 0}, {-1, 0, 0}};
    return poll(fds, nfds, 0);
}

}  // namespace redirected
