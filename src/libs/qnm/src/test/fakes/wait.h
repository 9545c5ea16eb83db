// wait.h - waits for a condition that another thread makes true.
//
// Checks the condition every millisecond instead of using a condition variable, so that waiting
// orders no memory between the threads and hides no data race. The limit only says when a test
// gives up.
#pragma once

#include <chrono>
#include <thread>

template <typename Holds>
bool wait_until(const Holds& holds, std::chrono::seconds limit = std::chrono::seconds(60)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!holds()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}
