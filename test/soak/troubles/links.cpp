// links.cpp - takes interfaces down and up.

#include "troubles/links.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <system_error>

namespace soak {

namespace {

using std::chrono::milliseconds;

// Sets interfaces up and down by the kernel's own call: a program started for each would take
// longer than a frame that is under way.
class switchboard {
  public:
    switchboard() {
        if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "socket");
    }
    ~switchboard() { close(fd_); }
    switchboard(const switchboard&) = delete;
    switchboard& operator=(const switchboard&) = delete;

    void set(const std::string& interface, bool up) const {
        ifreq request{};
        interface.copy(request.ifr_name, sizeof request.ifr_name - 1);
        ask(SIOCGIFFLAGS, request);
        const int flags = up ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP;
        request.ifr_flags = static_cast<short>(flags);
        ask(SIOCSIFFLAGS, request);
    }

  private:
    void ask(unsigned long what, ifreq& request) const {
        if (ioctl(fd_, what, &request) == 0) return;
        throw std::system_error(errno, std::generic_category(), request.ifr_name);
    }

    const int fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

std::string any_port(const char* kind, std::mt19937& random) {
    return kind + std::to_string(random() % 2);
}

void break_cable(scene& at, std::mt19937& random) {
    const switchboard interfaces;
    const std::string end = any_port(random() % 4 == 0 ? "qnm" : "qsim", random);
    interfaces.set(end, false);
    pause(at, milliseconds(random() % 1000));
    interfaces.set(end, true);
    at.shared.flaps++;
}

}  // namespace

void flap_links(scene& at, std::mt19937& random) {
    pause(at, milliseconds(1500 + random() % 3000));
    const auto step = begin_step(at);
    break_cable(at, random);
}

}  // namespace soak
