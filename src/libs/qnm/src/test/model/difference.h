// difference.h - compares what the library holds with what its model holds.
#pragma once

#include <string>

#include "model.h"

// What differs, in words; empty when nothing does. Looks at the card tables in their order with
// their totals and group counts, all counters, the blacklist and the link states. Takes the
// library's locks itself.
std::string difference(const model::state& expected);
