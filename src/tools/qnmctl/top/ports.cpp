// The kernel's table of interfaces.
#include "top/ports.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "installation/config_file.h"
#include "output/text.h"

namespace qnmctl {

namespace {

// Where the numbers of frames stand behind the name.
constexpr std::size_t received_at = 1;
constexpr std::size_t sent_at = 9;

bool has_link(int asked_by, const std::string& interface) {
    ifreq asked{};
    interface.copy(asked.ifr_name, IFNAMSIZ - 1);
    if (ioctl(asked_by, SIOCGIFFLAGS, &asked) != 0) return false;
    return (asked.ifr_flags & IFF_UP) != 0 && (asked.ifr_flags & IFF_RUNNING) != 0;
}

}  // namespace

all_port_counts parse_net_dev(std::string_view text) {
    all_port_counts all;
    for (const std::string& line : split(text, "\n")) {
        const std::size_t colon = line.rfind(':');  // an alias has one in its name
        if (colon == std::string::npos) continue;
        const std::vector<std::string> name = split(line.substr(0, colon), " ");
        const std::vector<std::string> numbers = split(line.substr(colon + 1), " ");
        if (name.size() != 1 || numbers.size() <= sent_at) continue;
        const auto received = parse_number(numbers[received_at]);
        const auto sent = parse_number(numbers[sent_at]);
        if (received && sent) all[name.front()] = {.received = *received, .sent = *sent};
    }
    return all;
}

all_port_counts read_port_counts() {
    all_port_counts all = parse_net_dev(read_text("/proc/net/dev"));
    const int asked_by = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (asked_by < 0) return all;
    for (auto& [name, counts] : all)
        counts.up = has_link(asked_by, name);
    close(asked_by);
    return all;
}

}  // namespace qnmctl
