// Learns from announcements whose address is whose.
#include "frames/card_choice.h"

#include <algorithm>
#include <string>

namespace qnmctl {

namespace {

// Its card is known by the ID, whichever path it has come over.
bool is_announcement(const frame_reading& of) {
    if (of.kind == nullptr) return false;
    const std::string word = of.kind->word;
    return word == "devinfo" || word == "notify";
}

}  // namespace

bool card_choice::take(const frame_reading& of) {
    constexpr std::uint64_t path = 1;
    if (!of.card) return wanted_.empty();
    const bool announced = is_announcement(of);
    if (announced && (*of.card & path) != 0) own_.insert(*of.card);
    const bool exact = announced || own_.count(*of.card) > 0;
    const auto is_wanted = [&](std::uint64_t id) {
        return *of.card == id || (!exact && (*of.card & ~path) == id);
    };
    return wanted_.empty() || std::any_of(wanted_.begin(), wanted_.end(), is_wanted);
}

}  // namespace qnmctl
