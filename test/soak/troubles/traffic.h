// traffic.h - frames of other protocols on the cards' Ethernet.
#pragma once

#include "troubles/scene.h"

namespace soak {

// Fills one port, then the other, and then rests; traffic.cpp says how fast, and why it rests.
void send_foreign(scene& at, std::mt19937& random);

}  // namespace soak
