// rival.h - a second process with a manager of its own on the same ports, which tries to access the
// cards that the host accesses.
#pragma once

#include <cstdint>

#include "host.h"
#include "stage.h"

namespace soak {

// Runs until the soak is over. Returns whether everything was right.
bool run_rival(stage& shared, const plan& planned);

}  // namespace soak
