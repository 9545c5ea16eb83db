// What an event means: the differences between a card's record now and when it was last
// reported.
//
// The library's events carry only a card ID, and one frame can raise several of them. So that each
// line says what it is about, every event type keeps its own last printed record of a card: an
// update is compared in all fields, a channel event in the paths, and so on.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "records/fields.h"
#include "records/reason.h"

namespace qnmctl {

// The event name of a line that watch adds itself: the operator has stopped or restarted the
// monitoring of a card.
inline constexpr char monitor_event[] = "MONITOR";

struct change {
    std::string section_title;
    std::string name;  // "vlan_id", "state.P0M0", "down_port[3].io_mac"
    field before;
    field after;
    reason why = {};
};

struct reported_change {
    bool first = false;  // the card was not known here before, or is reported as new
    std::vector<change> changes;
    reason why = {};  // of the event, even where it changes nothing
};

// A card as the last event of a type reported it.
struct reported_card {
    card record;
    reason why = {};  // of that event
};

struct known_cards {
    std::map<std::uint64_t, std::array<reported_card, QNM_EVT_MAX>> last_reported = {};
    watch_facts facts = {};
};

// What the event changed. Remembers the record as reported.
reported_change tell(known_cards& known, qnm_evt_type_t type, const card& now);

// The record that an update was compared with last, in all fields; nothing if the card has not been
// reported yet.
std::optional<card> reported_before(const known_cards& known, std::uint64_t id);

// "VLAN ID 10 -> 11", "path P1M0 disconnected -> connected"; without why.
std::string change_text(const change& difference);

// All changes, each with its reason; neighbours with the same reason share it.
std::string changes_text(const std::vector<change>& all);

// What an event says when nothing differs from what was told before, since a record is read after
// the event arose and can be ahead of it: the present state of what the event is about.
std::string present_text(qnm_evt_type_t type, const card& now);

}  // namespace qnmctl
