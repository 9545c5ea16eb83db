// Which cards are shown, and in which order.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/command.h"
#include "output/text.h"
#include "records/fields.h"
#include "records/selection.h"

namespace qnmctl {

struct card_filter {
    selection cards = {};
    std::optional<bool> connected = {};  // not given: all cards
    std::string text = {};  // words that all have to stand in a card's ID, kind, type or vlanN
};

bool passes(const card& record, const card_filter& filter);

enum class card_order { id, kind, type, vlan, paths, heard };

// How --sort calls the orders, by their value.
inline constexpr const char* card_order_words[] = {"id", "kind", "type", "vlan", "paths", "heard"};

// What a card is sorted by, the least first; of `heard` it is the time since then, which is to be
// shown with the longest first.
double order_key(const card& record, card_order order, wall_time now);

// The cards that pass, in their order; equal ones by ascending ID.
std::vector<card> arranged(const std::vector<card>& cards, const card_filter& filter,
                           card_order order, bool reversed, wall_time now);

// --card, --kind, --group and --state.
void add_filter(command& to, card_filter& filter);

}  // namespace qnmctl
