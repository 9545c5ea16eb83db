// cards.h - the far end of the soak: a thousand cards that come, go and change, lose and repeat
// frames, links that flap, and signals for every thread of the host.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "stage.h"

namespace soak {

// Runs until the host process has ended; returns its wait status.
int play_cards(stage& shared, pid_t host, uint64_t seed);

}  // namespace soak
