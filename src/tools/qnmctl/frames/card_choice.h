// Chooses frames by the cards that they come from or go to.
//
// A 40G card's two MAC addresses differ in the lowest bit, and its ID is the even one; the odd one
// may as well be the ID of a 1G/10G card. Only announcements tell which it is, so an odd address
// counts as the 40G card's until it has announced itself as a card of its own.
#pragma once

#include <cstdint>
#include <set>
#include <vector>

#include "frames/frame_reading.h"

namespace qnmctl {

class card_choice {
  public:
    // IDs or MAC addresses; none: every card.
    explicit card_choice(std::vector<std::uint64_t> wanted) : wanted_(std::move(wanted)) {}

    // Takes the next frame, and says whether it is wanted.
    bool take(const frame_reading& reading);

  private:
    std::vector<std::uint64_t> wanted_;
    std::set<std::uint64_t> own_ = {};  // odd addresses that are IDs
};

}  // namespace qnmctl
