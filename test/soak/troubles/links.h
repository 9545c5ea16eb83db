// links.h - cables that break.
#pragma once

#include "troubles/scene.h"

namespace soak {

// One end of a cable is down for a while. A step leaves all links up.
void flap_links(scene& at, std::mt19937& random);

}  // namespace soak
