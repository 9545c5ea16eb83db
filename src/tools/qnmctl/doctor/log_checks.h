// Checks where the library's log lines go: the properties file and the places that it names.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "doctor/finding.h"
#include "doctor/system.h"

namespace qnmctl {

struct appender_class {
    const char* name;   // without its packages, in small letters
    bool wants_layout;  // without one it writes nothing
};

// Those of log4cxx.
std::span<const appender_class> known_appender_classes();

void check_properties(const inspected& system, findings& found);
void check_logs(const inspected& system, findings& found);
void check_space(const inspected& system, findings& found);

}  // namespace qnmctl
