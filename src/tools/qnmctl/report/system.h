// What a report says of the system around the manager.
#pragma once

#include <optional>
#include <string>

#include "output/writer.h"

namespace qnmctl {

// Of the command, the libraries with the files they were loaded from, the kernel, the distribution.
json versions_json();

// An interface's MAC address, link, MTU, driver and counters; nothing when there is none of that
// name.
std::optional<json> port_json(int number, const std::string& interface);

// What /etc/os-release calls the distribution; empty when it does not.
std::string distribution_name(const std::string& os_release);

}  // namespace qnmctl
