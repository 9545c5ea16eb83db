// Runs long work on threads, while the main thread handles signals and the terminal.
//
// A call into a card may block for seconds, and ending in the middle of one could leave the card's
// EEPROM lock behind. So the first signal only asks the jobs to end, which they do between calls;
// the second one gives up the calls under way.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace qnmctl {

struct work_state {
    std::atomic<bool> ending = false;      // asked of the jobs
    std::atomic<std::uint64_t> steps = 0;  // done, counted by the jobs
};

// What the main thread does besides, whenever the descriptor is readable.
struct side_work {
    int fd = -1;
    std::function<void()> run = nullptr;
};

struct work {
    std::string label;     // of the progress line
    std::size_t jobs = 1;  // a few of them run at the same time, in order of their number
    std::uint64_t steps;   // of all jobs
    std::function<void(std::size_t job, work_state& state)> run;  // must not throw
    std::function<void()> give_up;  // makes the calls under way return
    side_work meanwhile = {};
};

// Returns when every job has returned or will never be started; false when a signal came.
bool run_work(const work& wanted, int signals);

}  // namespace qnmctl
