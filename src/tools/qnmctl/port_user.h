// Which process accesses cards by an interface. Of several managers one at a time may; the library
// keeps a name for that, which tells who has it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qnmctl {

struct port_user {
    bool manager = true;    // otherwise it has the name alone, and managers pass it over
    int pid = 0;            // 0: of another PID namespace
    std::string name = {};  // of the process
};

// "process 4711 (host)"
std::string process_text(const port_user& of);

std::optional<port_user> find_port_user(int if_index);

// The indexes of all interfaces whose name somebody has, ascending.
std::vector<int> used_indexes();

}  // namespace qnmctl
