// Makes requests, answers and announcements go wrong: lost, late, sent twice, or changed.
//
// Each card has its own sequences of random numbers, drawn from its seed and its ID, so that the
// same requests meet the same faults in every run, whatever other cards do.
#pragma once

#include <chrono>

#include "cardsim.h"

namespace cardsim {

// An answer before it is sent.
struct reply {
    std::size_t port = 0;
    std::size_t path = 0;
    unsigned copies = 1;
    completion body;
};

struct fault_state {
    std::uint64_t random = 0;
    std::uint64_t announcing_random =
        0;                        // separate: announcements do not change faults of requests
    std::unique_ptr<reply> held;  // held back until the next answer has left
};

// Seeds the card's sequences.
void seed_faults(fault_state& state, const card& owner);

bool request_lost(fault_state& state, const fault_settings& faults, counters& counted);
bool read_silenced(const fault_settings& faults, std::uint32_t address, counters& counted);

// How often to send the frame of an announcement.
unsigned announcement_copies(fault_state& state, const fault_settings& faults, counters& counted);

enum class verdict { leave, wait, held, lost };

struct fate {
    verdict what = verdict::leave;
    std::chrono::milliseconds delay{0};  // if the answer waits
};

// Applies the faults to `outgoing` and says when it leaves. An answer that is held back is copied
// to the state.
fate decide(fault_state& state, const fault_settings& faults, reply& outgoing, counters& counted);

}  // namespace cardsim
