// scene.cpp - waiting and stepping.

#include "troubles/scene.h"

#include <thread>

namespace soak {

namespace {

constexpr std::chrono::milliseconds k_look{10};

}  // namespace

void pause(const scene& at, std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (!at.over && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::min(time, k_look));
}

std::shared_lock<std::shared_mutex> begin_step(scene& at) {
    while (at.shared.calm_wanted && !at.over)
        std::this_thread::sleep_for(k_look);
    return std::shared_lock(at.steps);
}

}  // namespace soak
