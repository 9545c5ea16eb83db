// Writing to a descriptor without ever being stuck on it.
#include "output.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "operands.h"
#include "text.h"

namespace qnmctl {

// False when the output is over.
bool output::wait_writable() {
    pollfd waited[] = {{fd_, POLLOUT, 0}, {signals_, POLLIN, 0}};
    while (poll(waited, 2, -1) < 0) {
        if (errno != EINTR) throw error(std::string("cannot wait for output: ") + strerror(errno));
    }
    if ((waited[0].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) return false;
    return waited[0].revents != 0;
}

void output::write(std::string_view text) {
    while (!text.empty() && !closed_) {
        if (!wait_writable()) {
            closed_ = true;
            return;
        }
        // A pipe that can be written takes this much without blocking.
        const ssize_t taken =
            ::write(fd_, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
        if (taken >= 0) {
            text.remove_prefix(static_cast<std::size_t>(taken));
        } else if (errno == EPIPE) {
            closed_ = true;
        } else if (errno != EINTR && errno != EAGAIN) {
            throw error(std::string("cannot write to standard output: ") + strerror(errno));
        }
    }
}

namespace {

// Of a variable of the environment; empty when it is not set.
std::string value_of(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

// As every program of the C library takes it, by the first that is set.
bool has_unicode() {
    for (const char* const name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const std::string locale = value_of(name);
        if (locale.empty()) continue;
        return locale.find("UTF-8") != std::string::npos ||
               locale.find("utf8") != std::string::npos;
    }
    return false;
}

std::size_t width_at(int fd) {
    const auto given = parse_number(value_of("COLUMNS"));
    if (given && *given > 0) return *given;
    winsize size{};
    if (ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    return SIZE_MAX;
}

}  // namespace

look look_of(int fd) {
    return {.coloured = isatty(fd) == 1 && value_of("NO_COLOR").empty(),
            .unicode = has_unicode(),
            .width = width_at(fd)};
}

std::string in_colour(const std::string& text, const char* colour, bool coloured) {
    return coloured ? colour + text + "\033[0m" : text;
}

}  // namespace qnmctl
