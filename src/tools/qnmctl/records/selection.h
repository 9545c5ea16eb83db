// Selects cards: by ID, or by kind and group.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "records/fields.h"

namespace qnmctl {

enum class card_kind { server, device };

// The cards that a command is for: those with the given IDs, or the known ones of a kind or group.
// As a filter, members that are not set let every card through.
struct selection {
    std::vector<std::uint64_t> ids = {};  // empty: by what follows
    bool all = false;
    std::optional<card_kind> kind = {};
    std::optional<std::uint16_t> group = {};

    bool by_property() const { return all || kind || group; }
};

// Whether a card gets through a filter.
bool fits(const card& record, const selection& wanted);

// Of the cards that are known, those that fit; each once, by ascending ID.
std::vector<std::uint64_t> fitting_ids(const std::vector<card>& known, const selection& wanted);

}  // namespace qnmctl
