// links.h - cables that break, ports that go down and up at once, and many other interfaces that
// all change at the same time.
#pragma once

#include "troubles/scene.h"

namespace soak {

// In turn, one end of a cable is down for a while, and the host's ports go down and up in quick
// succession. At most one cable is dead at any time, and a step leaves all links up.
void flap_links(scene& at, std::mt19937& random);

// Interfaces that nobody uses. They have to exist before the scene begins.
struct crowd {
    crowd();
    ~crowd();
};

// All of them go up, or down, in one request: some hundred notifications in a few milliseconds for
// every listener.
void change_crowd(scene& at, std::mt19937& random);

}  // namespace soak
