// qnm_limits.h - how much memory frames can make the library take.
//
// Whoever is on the cards' Ethernet can announce as many cards as there are addresses, and make
// known ones change faster than a callback returns. Beyond these ceilings what is new is refused;
// what is known goes on.
#pragma once

#include <cstdint>

namespace qnm {

// Cards of both kinds together.
constexpr uint32_t k_cards_max = 262144;

// Write locks of cards. A lock outlives its card until there are so many; from then on it goes with
// the card. So there are at most twice as many, and those that are being held.
constexpr uint32_t k_spare_locks_max = 262144;

// Events that wait for their callbacks.
constexpr uint32_t k_events_max = 1000000;

}  // namespace qnm
