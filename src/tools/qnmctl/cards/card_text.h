// What the command prints of cards: their table, one card, and results of calls about them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "output/output.h"
#include "output/text.h"
#include "records/changes.h"
#include "records/fields.h"

namespace qnmctl {

// The result of a call that stops or restarts monitoring.
json monitored_json(const char* action, std::uint64_t id, qnm_api_code_t code);

// A status dump: its numbers, its text, and the file that has it as well, empty if none has.
json stats_json(const std::string& text, const std::string& file);

// A heading and a row for every card, in colour where it is lost or faulty.
std::string cards_text(const std::vector<card>& cards, const look& how);

// "1 QNSV, 2 QNIO", and of how many where not all that are known are shown.
std::string count_text(const std::vector<card>& cards, std::size_t known);

enum class down_ports { connected, all };

// The fields of a card, one a line: title, name, value. Downstream ports without a card can be left
// out; then only their numbers are printed.
std::string card_text(const card& shown, const look& how, down_ports ports = down_ports::all);

}  // namespace qnmctl
