// stress.h - what the far end has done to the host. A trouble that did not happen proves nothing.
#pragma once

#include <string>

#include "stage.h"

namespace soak {

// The names of the troubles that have not happened; empty when all have.
std::string missing_stress(const stage& shared);

// How often each has happened.
std::string all_stress(const stage& shared);

uint64_t forgeries(const stage& shared);

// Foreign frames a second, in the time in which they were sent.
double foreign_rate(const stage& shared);

}  // namespace soak
