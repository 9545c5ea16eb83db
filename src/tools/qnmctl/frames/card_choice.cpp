// Learns from announcements which address belongs to which card.
#include "frames/card_choice.h"

#include <algorithm>
#include <string>

namespace qnmctl {

namespace {

// Its card is known by the ID, whichever path it has come over.
bool is_announcement(const frame_reading& reading) {
    if (reading.kind == nullptr) return false;
    const std::string word = reading.kind->word;
    return word == "devinfo" || word == "notify";
}

}  // namespace

bool card_choice::take(const frame_reading& reading) {
    constexpr std::uint64_t path = 1;
    if (!reading.card) return wanted_.empty();
    const bool announced = is_announcement(reading);
    if (announced && (*reading.card & path) != 0) own_.insert(*reading.card);
    const bool exact = announced || own_.count(*reading.card) > 0;
    const auto is_wanted = [&](std::uint64_t id) {
        return *reading.card == id || (!exact && (*reading.card & ~path) == id);
    };
    return wanted_.empty() || std::any_of(wanted_.begin(), wanted_.end(), is_wanted);
}

}  // namespace qnmctl
