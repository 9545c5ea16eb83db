// The event is a counter of the kernel (eventfd) that never blocks.
#include "common/wake_event.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace tools {

wake_event::wake_event() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (fd_.fd < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot make an event descriptor");
    }
}

void wake_event::set() const {
    const std::uint64_t count = 1;
    // It fails only if the counter is full, and then the event is set anyway.
    [[maybe_unused]] const ssize_t written = write(fd_.fd, &count, sizeof count);
}

void wake_event::clear() const {
    std::uint64_t count = 0;
    // It fails only if the event is not set.
    [[maybe_unused]] const ssize_t length = read(fd_.fd, &count, sizeof count);
}

}  // namespace tools
