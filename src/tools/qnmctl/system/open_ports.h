// Finds the processes that have ports of a manager open, even if they do not access cards.
#pragma once

#include <vector>

#include "system/port_user.h"

namespace qnmctl {

struct open_port {
    int if_index = 0;  // 0: the interface has gone
    port_user user = {};
};

struct open_ports {
    std::vector<open_port> found = {};
    bool all_seen = true;  // false: some sockets belong to processes that cannot be inspected
};

// Of all other processes that have libqnm loaded and that this user may inspect.
open_ports find_open_ports();

}  // namespace qnmctl
