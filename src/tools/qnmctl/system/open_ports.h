// Which processes have ports of a manager open, whether or not they access cards by them.
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
    bool all_seen = true;  // otherwise there are sockets of processes that cannot be looked into
};

// Of all other processes that have libqnm loaded and that this user may look into.
open_ports find_open_ports();

}  // namespace qnmctl
