// Whether this process may open raw sockets.
#pragma once

#include <string>

namespace qnmctl {

// The capability CAP_NET_RAW, and whether it has the effect that it is needed for.
struct privileges {
    bool root = false;
    bool effective = false;
    bool permitted = false;
    bool attainable = true;    // in the bounding set, so that a program file can bring it
    int socket_error = 0;      // errno of opening a raw socket
    std::string program = {};  // path of the command
};

privileges read_privileges();

}  // namespace qnmctl
