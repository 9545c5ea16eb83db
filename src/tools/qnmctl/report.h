// What the command prints: events, the table of cards, one card. Text and JSON; no output here.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "changes.h"
#include "fields.h"
#include "output.h"
#include "text.h"

namespace qnmctl {

// An event as the library's event thread saw it. The card can be gone again by then.
struct observed {
    wall_time when;
    qnm_evt_type_t type = QNM_EVT_NEWDEVINFO;
    std::uint64_t id = 0;
    std::optional<card> record;
};

// One line without its end. `told` is what tell() made of the event; nothing of a card that is
// gone.
std::string event_line(const observed& seen, const told_change& told, bool coloured);
json event_json(const observed& seen, const told_change& told);

// The operator has stopped or restarted the monitoring of a card, which may be unknown.
struct monitor_change {
    wall_time when;
    std::uint64_t id = 0;
    std::optional<card> record;
    bool was_on = true;
    bool restarted = false;
};

std::string monitor_line(const monitor_change& of, bool coloured);
json monitor_json(const monitor_change& of);

// What a call for it has come to.
json monitored_json(const char* action, std::uint64_t id, qnm_api_code_t code);

// A status dump: its text, or the file that it was written to, empty where that is unknown.
json stats_json(const std::string& text, const std::string& file);

// A heading, a row for every card and a line with their numbers.
std::string cards_text(const std::vector<card>& cards, const look& how);

// Every field of a card, one a line: title, name, value.
std::string card_text(const card& shown, const look& how);
json card_json(const card& shown);

}  // namespace qnmctl
