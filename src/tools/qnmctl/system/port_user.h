// Which process accesses cards by an interface. Of several managers one at a time may; it has a
// name that tells who it is, unless somebody else has that.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qnmctl {

struct port_user {
    bool manager = true;    // otherwise it has the name alone, which hides who accesses cards
    int pid = 0;            // 0: of another PID namespace
    std::string name = {};  // of the process
};

// "process 4711 (host)"
std::string process_text(const port_user& of);

std::optional<port_user> find_port_user(int if_index);

// The indexes of all interfaces whose name somebody has, ascending.
std::vector<int> used_indexes();

}  // namespace qnmctl
