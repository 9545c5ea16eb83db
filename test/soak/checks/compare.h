// compare.h - whether the library has come to know what the cards announce, once they rest.
#pragma once

#include <string>

#include "stage.h"

namespace soak {

// The first difference between the tables and the cards; empty when there is none. What forgeries
// have left must have expired.
std::string find_difference(const stage& shared);

}  // namespace soak
