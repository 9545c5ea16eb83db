// The checks of what is outside the library's files: the library itself, privileges, directory,
// interfaces, capture, clock and dissector.
#pragma once

#include "doctor/finding.h"
#include "doctor/system.h"

namespace qnmctl {

void check_library(const inspected& system, findings& found);
void check_privileges(const inspected& system, findings& found);
void check_directory(const inspected& system, findings& found);
void check_interfaces(const inspected& system, findings& found);
void check_links(const inspected& system, findings& found);
void check_mtu(const inspected& system, findings& found);
void check_vlan(const inspected& system, findings& found);
void check_users(const inspected& system, findings& found);
void check_capture(const inspected& system, findings& found);
void check_clock_steps(const inspected& system, findings& found);
void check_clock_sync(const inspected& system, findings& found);
void check_dissector(const inspected& system, findings& found);

// By how much the wall clock was set between the samples, at the largest step; 0 where the readings
// leave it possible that it was not set at all, however far apart they were.
std::int64_t clock_step(const std::vector<clock_sample>& samples);

}  // namespace qnmctl
