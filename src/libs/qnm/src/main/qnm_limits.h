// qnm_limits.h - how much memory frames can make the library take.
//
// Any host on the cards' Ethernet can announce as many cards as there are addresses, and make known
// ones change faster than a callback returns. Beyond these limits new cards and events are refused;
// known cards are served as before.
#pragma once

#include <cstdint>

namespace qnm {

// Cards of both kinds together.
constexpr uint32_t k_cards_max = 262144;

// Write locks of cards. A lock outlives its card as long as there are no more than this; beyond it,
// a lock is freed with its card. So there are at most k_cards_max more, and those that are held.
constexpr uint32_t k_spare_locks_max = 262144;

// Events that wait for their callbacks.
constexpr uint32_t k_events_max = 1000000;

}  // namespace qnm
