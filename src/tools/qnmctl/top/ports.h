// Link and frame counts of the interfaces that are the manager's ports.
//
// The library counts its own messages, but tells them only by a status dump into a log; the kernel
// counts all frames of an interface, the cards' and others, and can be asked as often as one likes.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace qnmctl {

struct port_counts {
    bool up = false;  // switched on, and with a link
    std::uint64_t received = 0;
    std::uint64_t sent = 0;
};

// By name; interfaces that are not there are not in it.
using all_port_counts = std::map<std::string, port_counts>;

// Those of all interfaces from the text of /proc/net/dev, which says nothing of links. Lines of
// another form are left out.
all_port_counts parse_net_dev(std::string_view text);

// As the kernel has them now.
all_port_counts read_port_counts();

}  // namespace qnmctl
