// Writing to a descriptor without ever being stuck on it.
#include "output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "text.h"

namespace qnmctl {

// False when the output is over.
bool output::wait_writable() {
    pollfd waited[] = {{fd_, POLLOUT, 0}, {signals_, POLLIN, 0}};
    while (poll(waited, 2, -1) < 0) {
        if (errno != EINTR) throw error(std::string("cannot wait for output: ") + strerror(errno));
    }
    if ((waited[0].revents & POLLERR) != 0) return false;
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

bool wants_colour(int fd) {
    const char* const refused = std::getenv("NO_COLOR");
    return isatty(fd) == 1 && (refused == nullptr || *refused == '\0');
}

}  // namespace qnmctl
