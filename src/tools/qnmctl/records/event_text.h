// Events in words: a line for people and an object for scripts.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "output/text.h"
#include "qnm.h"
#include "records/changes.h"
#include "records/fields.h"

namespace qnmctl {

// An event as the library's event thread saw it. The card can be gone again by then.
struct observed {
    wall_time when;
    qnm_evt_type_t type = QNM_EVT_NEWDEVINFO;
    std::uint64_t id = 0;
    std::optional<card> record;
};

// The meaning of an event for the operator, by ascending weight.
enum class meaning { plain, back, faulty, lost };

meaning meaning_of(const observed& seen, const reported_change& reported);

// Coloured by its meaning. One line without its end. `reported` is the result of tell(); empty if
// the card is gone.
std::string event_line(const observed& seen, const reported_change& reported, bool coloured);
json event_json(const observed& seen, const reported_change& reported);

// The operator has stopped or restarted the monitoring of a card, which may be unknown.
struct monitor_change {
    wall_time when;
    std::uint64_t id = 0;
    std::optional<card> record;
    bool was_on = true;
    bool restarted = false;
};

std::string monitor_line(const monitor_change& event, bool coloured);
json monitor_json(const monitor_change& event);

}  // namespace qnmctl
