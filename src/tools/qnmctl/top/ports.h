// Links and frame counts of interfaces, for the manager's ports.
//
// The library counts only its own messages, and writes them into a log by a status dump. The kernel
// counts all frames of an interface, of cards and others, and can be asked at any time.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace qnmctl {

struct port_counts {
    bool up = false;  // the interface is up and has a link
    std::uint64_t received = 0;
    std::uint64_t sent = 0;
};

// By name, of all interfaces.
using all_port_counts = std::map<std::string, port_counts>;

all_port_counts read_port_counts();

}  // namespace qnmctl
