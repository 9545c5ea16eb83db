// What the command prints: events, the table of cards, one card. Text and JSON; no output here.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "changes.h"
#include "fields.h"
#include "text.h"

namespace qnmctl {

// An event as the library's event thread saw it. The card can be gone again by then.
struct observed {
    wall_time when;
    qnm_evt_type_t type = QNM_EVT_NEWDEVINFO;
    std::uint64_t id = 0;
    std::optional<card> record;
};

// One line without its end; `known` is brought up to date.
std::string event_line(const observed& seen, known_cards& known, bool coloured);
json event_json(const observed& seen, known_cards& known);

// A heading, a row for every card and a line with their numbers.
std::string table_text(const std::vector<card>& cards, bool coloured);
json table_json(const std::vector<card>& cards);

// Every field of a card, one a line: title, name, value.
std::string card_text(const card& shown, bool coloured);
json card_json(const card& shown);

}  // namespace qnmctl
