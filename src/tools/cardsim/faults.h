// What happens to requests, answers and announcements: lost, late, twice, or wrong.
//
// Each card has its own sequences of random numbers, drawn from its seed and its ID, so that the
// same requests meet the same faults in every run, whatever other cards do.
#pragma once

#include <chrono>

#include "cardsim.h"

namespace cardsim {

// An answer on its way out.
struct reply {
    std::size_t port = 0;
    std::size_t path = 0;
    unsigned copies = 1;
    completion body;
};

struct fault_state {
    std::uint64_t random = 0;
    std::uint64_t announcing_random = 0;  // own, so that what is asked meets the same faults
    std::unique_ptr<reply> held;          // until the next answer has left
};

// Starts the card's sequences.
void seed_faults(fault_state& state, const card& owner);

bool request_lost(fault_state& state, const fault_settings& faults, counters& counted);
bool read_silenced(const fault_settings& faults, std::uint32_t address, counters& counted);

// How often the frame of an announcement is to be sent.
unsigned announcement_copies(fault_state& state, const fault_settings& faults, counters& counted);

enum class verdict { leave, wait, held, lost };

struct fate {
    verdict what = verdict::leave;
    std::chrono::milliseconds delay{0};  // of an answer that waits
};

// Changes `given` by the faults and says when it leaves; an answer that is held back has been moved
// away.
fate decide(fault_state& state, const fault_settings& faults, reply& given, counters& counted);

}  // namespace cardsim
