// What is right and what is wrong with a system that a manager is to run on, found without running
// one.
//
// A check is a row of one table: it looks at the inspected system and tells findings, each with its
// remedy where there is something to do. No check relies on another one, and one that fails itself
// keeps no other from being made.
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
