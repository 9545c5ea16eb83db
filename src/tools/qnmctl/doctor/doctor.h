// What is right and what is wrong with a system that a manager is to run on, found without running
// one.
//
// A check is a row of one table: it looks at the inspected system and tells findings, each with its
// remedy where there is something to do. No check relies on another one, and one that fails itself
// keeps no other from being made.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "doctor/system.h"

namespace qnmctl {

// error: the manager does not start, or does without something that it is told to use.
enum class severity { ok, note, warning, error };

struct finding {
    severity rank = severity::ok;
    std::string about = {};   // an interface or a file, say; empty: the system
    int line = 0;             // of that file, from 1; 0: the whole
    std::string text = {};    // one line
    std::string remedy = {};  // likewise; empty: there is nothing to do
    const char* check = "";   // its name; whoever runs the check fills it in
};

using findings = std::vector<finding>;

struct check {
    const char* name;  // scripts rely on it
    void (*look)(const inspected& system, findings& found);
};

std::span<const check> all_checks();

findings examine(std::span<const check> checks, const inspected& system);

std::size_t count(const findings& of, severity rank);

}  // namespace qnmctl
