// scene.h - what all troubles of the far end share. Each is a function that does one act of a few
// seconds at most. A thread of its own calls it again and again until the scene is over.
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <shared_mutex>

#include "cardsim.h"
#include "stage.h"

namespace soak {

struct scene {
    stage& shared;
    cardsim::simulator& cards;
    std::atomic<bool> over = false;
    std::shared_mutex steps;  // a trouble shares it during a step; who has it alone has calm
};

using trouble = void (*)(scene& at, std::mt19937& random);

// Waits, but not past the end of the scene.
void pause(const scene& at, std::chrono::milliseconds time);

// Begins a step, which lasts as long as the returned object. No step begins while calm is wanted:
// with so many troubles, one step or another would always be in progress, and calm would never
// come.
std::shared_lock<std::shared_mutex> begin_step(scene& at);

}  // namespace soak
