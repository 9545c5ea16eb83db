// Finds the process that accesses cards through an interface. Only one manager at a time may; it
// holds a socket name that tells who it is, unless another process has taken the name.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qnmctl {

struct port_user {
    bool manager = true;    // false: a stranger holds the name, so the manager is unknown
    int pid = 0;            // 0: of another PID namespace
    std::string name = {};  // of the process
};

// "process 4711 (host)"
std::string process_text(const port_user& user);

std::optional<port_user> find_port_user(int if_index);

// The indexes of all interfaces whose socket name is taken, ascending.
std::vector<int> used_indexes();

}  // namespace qnmctl
