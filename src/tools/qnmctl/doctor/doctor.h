// Checks whether a manager can run on a system, without running one.
//
// A check is a row of one table: it looks at the inspected system and returns findings, each with a
// remedy if there is something to do. Checks are independent, and if one fails the others are still
// made.
#pragma once

#include <cstddef>
#include <span>

#include "doctor/finding.h"
#include "doctor/system.h"

namespace qnmctl {

struct check {
    const char* name;  // scripts rely on it
    void (*look)(const inspected& system, findings& found);
};

std::span<const check> all_checks();

findings examine(std::span<const check> checks, const inspected& system);

std::size_t count(const findings& all, severity rank);

}  // namespace qnmctl
