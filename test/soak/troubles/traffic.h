// traffic.h - frames that are none of the cards' business, on the cards' Ethernet.
#pragma once

#include "troubles/scene.h"

namespace soak {

// Fills one port, then the other, and then rests: see there how fast, and why it rests.
void send_foreign(scene& at, std::mt19937& random);

}  // namespace soak
