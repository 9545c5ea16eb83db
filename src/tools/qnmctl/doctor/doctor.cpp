// The table of checks, and the loop that makes them.
#include "doctor/doctor.h"

#include <algorithm>
#include <exception>

#include "doctor/checks.h"
#include "doctor/config_checks.h"
#include "doctor/log_checks.h"

namespace qnmctl {

namespace {

constexpr check table_of_checks[] = {
    {"library", check_library},
    {"privileges", check_privileges},
    {"directory", check_directory},
    {"config_file", check_config_file},
    {"config_line", check_config_lines},
    {"interface", check_interfaces},
    {"link", check_links},
    {"mtu", check_mtu},
    {"vlan", check_vlan},
    {"capture", check_capture},
    {"access", check_users},
    {"clock_step", check_clock_steps},
    {"clock_sync", check_clock_sync},
    {"properties", check_properties},
    {"log_file", check_logs},
    {"free_space", check_space},
    {"dissector", check_dissector},
};

}  // namespace

std::span<const check> all_checks() {
    return table_of_checks;
}

findings examine(std::span<const check> checks, const inspected& system) {
    findings all;
    for (const check& current : checks) {
        findings found;
        try {
            current.look(system, found);
        } catch (const std::exception& problem) {
            found.push_back({.rank = severity::error,
                             .text = std::string("the check failed: ") + problem.what(),
                             .remedy = "Please report this, with the files that it looked at."});
        }
        for (finding& verdict : found) {
            verdict.check = current.name;
            all.push_back(verdict);
        }
    }
    return all;
}

std::size_t count(const findings& all, severity rank) {
    return static_cast<std::size_t>(std::count_if(
        all.begin(), all.end(), [&](const finding& verdict) { return verdict.rank == rank; }));
}

}  // namespace qnmctl
