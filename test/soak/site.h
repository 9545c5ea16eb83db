// site.h - where a manager of the soak lives: its configuration, and small log files that are
// replaced all the time.
#pragma once

#include <string>

#include "rig.h"

namespace soak {

struct site : e2e::installation {
    site();

    // The log files that should have been replaced by now, but were not; empty when all were.
    std::string unrotated() const;
};

}  // namespace soak
