// Waits with poll(), then writes as much as fits.
#include "common/descriptor_writer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "common/end_signals.h"

namespace tools {

namespace {

constexpr std::size_t longest_part = std::size_t{64} * 1024;
constexpr int pause_milliseconds = 10;

// Opens the same file a second time; none is open where that is not allowed.
descriptor open_again(int fd) {
    const std::string name = "/proc/self/fd/" + std::to_string(fd);
    return descriptor(open(name.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

}  // namespace

descriptor_writer::descriptor_writer(int fd, int signals) : fd_(fd), signals_(signals) {
    struct stat kind {};
    if (fstat(fd, &kind) != 0) return;
    socket_ = S_ISSOCK(kind.st_mode);
    regular_ = S_ISREG(kind.st_mode);
    if (S_ISFIFO(kind.st_mode) || (S_ISCHR(kind.st_mode) && isatty(fd) == 1)) own_ = open_again(fd);
}

// A pipe that can be written, but only by the shared descriptor, takes PIPE_BUF without blocking.
long descriptor_writer::write_some(std::string_view bytes) const {
    const std::size_t part = std::min(bytes.size(), longest_part);
    if (socket_) return send(fd_, bytes.data(), part, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (own_.fd >= 0) return ::write(own_.fd, bytes.data(), part);
    return ::write(fd_, bytes.data(), regular_ ? part : std::min<std::size_t>(part, PIPE_BUF));
}

void descriptor_writer::take_error(int code) {
    if (code == EINTR) return;
    if (code == EAGAIN) {
        // poll() says ready and write() says full: a terminal with room for half a line end, for
        // example. Without a pause this would spin.
        poll(nullptr, 0, pause_milliseconds);
        if (is_end_signalled(signals_)) end_ = output_end::signalled;
        return;
    }
    const bool gone = code == EPIPE || code == ECONNRESET;
    end_ = gone ? output_end::reader_gone : output_end::failed;
    code_ = code;
}

std::size_t descriptor_writer::write(std::string_view bytes) {
    std::size_t written = 0;
    while (written < bytes.size() && end_ == output_end::none) {
        if (!wait_until_ready(own_.fd >= 0 ? own_.fd : fd_, POLLOUT, signals_)) {
            end_ = output_end::signalled;
            break;
        }
        const long taken = write_some(bytes.substr(written));
        const int code = taken < 0 ? errno : 0;
        if (taken >= 0) written += static_cast<std::size_t>(taken);
        if (code != 0) take_error(code);
    }
    return written;
}

std::string output_problem(const descriptor_writer& to, std::string_view name) {
    const std::string start = "cannot write to " + std::string(name) + ": ";
    switch (to.ended()) {
        case output_end::none:
            return {};
        case output_end::reader_gone:
            return start + "its reader has gone";
        case output_end::signalled:
            return start + "ended by a signal while its reader took nothing";
        case output_end::failed:
            break;
    }
    return start + (to.code() == EBADF ? "it is closed" : std::strerror(to.code()));
}

}  // namespace tools
