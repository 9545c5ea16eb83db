// Takes links and counts from what the kernel says of interfaces.
#include "top/ports.h"

#include "system/interfaces.h"

namespace qnmctl {

all_port_counts read_port_counts() {
    all_port_counts all;
    for (const auto& [name, counters] : read_counters()) {
        all[name] = {.up = read_interface(name).running,
                     .received = counters[rx_packets_at],
                     .sent = counters[tx_packets_at]};
    }
    return all;
}

}  // namespace qnmctl
