// cards.h - the far end of the soak: a thousand cards that come, go, change, lose and repeat, links
// that flap, and signals for every thread of the host.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "stage.h"

namespace soak {

// Plays until the host process has ended. Its wait status.
int play_cards(stage& shared, pid_t host, uint64_t seed);

}  // namespace soak
