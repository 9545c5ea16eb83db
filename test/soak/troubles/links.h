// links.h - cables that break, and ports that go down and up at once.
#pragma once

#include "troubles/scene.h"

namespace soak {

// In turn: one end of a cable is down for a while; the host's ports go down and up in quick
// succession. At most one cable is dead at any time, and a step leaves all links up.
void flap_links(scene& at, std::mt19937& random);

}  // namespace soak
