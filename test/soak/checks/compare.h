// compare.h - whether the library knows what the cards announce, once the cards rest.
#pragma once

#include <string>

#include "stage.h"

namespace soak {

// The first difference between the tables and the cards; empty when there is none. Everything that
// forged frames have added must have expired.
std::string find_difference(const stage& shared);

}  // namespace soak
