// links.cpp - takes interfaces down and up.

#include "troubles/links.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <system_error>

#include "rig.h"

namespace soak {

namespace {

using std::chrono::milliseconds;

constexpr unsigned k_flaps_of_a_burst = 20;
constexpr size_t k_crowd_cables = 100;
constexpr char k_crowd[] = "77";  // the group of the crowd's interfaces

// Sets interfaces up and down by a system call: starting a program for each would take longer than
// a frame is on its way.
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

// Several times in a row, so that a thread that is told that the port is down finds it up, or down
// again.
void flap_port(scene& at, std::mt19937& random, const switchboard& interfaces) {
    const std::string port = any_port("qnm", random);
    const unsigned times = 1 + random() % 6;
    for (unsigned n = 0; n < times; n++) {
        interfaces.set(port, false);
        if (random() % 4 == 0) pause(at, milliseconds(random() % 3));
        interfaces.set(port, true);
        at.shared.port_flaps++;
    }
}

// Meanwhile the host hurries, and its cards come back at once, because what matters is who sends
// when the port goes down.
void flap_ports(scene& at, std::mt19937& random) {
    const switchboard interfaces;
    at.shared.hurry = true;
    for (unsigned n = 0; n < k_flaps_of_a_burst && !at.over; n++) {
        flap_port(at, random, interfaces);
        pause(at, milliseconds(random() % 20));
        for (size_t number = 0; number < k_lasting; number++)
            at.cards.devinfo(card_id(number));
        pause(at, milliseconds(random() % 20));
    }
    at.shared.hurry = false;
}

}  // namespace

void flap_links(scene& at, std::mt19937& random) {
    for (void (*const act)(scene&, std::mt19937&) : {break_cable, flap_ports}) {
        pause(at, milliseconds(1000 + random() % 2000));
        const auto step = begin_step(at);
        act(at, random);
    }
}

crowd::crowd() {
    e2e::run("for n in $(seq " + std::to_string(k_crowd_cables) +
             "); do echo link add crowd$n group " + k_crowd +
             " type veth peer name throng$n group " + k_crowd + "; done | ip -batch -");
}

crowd::~crowd() {
    try {
        e2e::run(std::string("ip link del group ") + k_crowd);
    } catch (const std::exception& problem) {
        fprintf(stderr, "%s\n", problem.what());  // they go with the namespace
    }
}

void change_crowd(scene& at, std::mt19937& random) {
    for (const char* const state : {" up", " down"}) {
        pause(at, milliseconds(500 + random() % 2000));
        const auto step = begin_step(at);
        e2e::run(std::string("ip link set group ") + k_crowd + state);
        at.shared.crowd_changes++;
    }
}

}  // namespace soak
