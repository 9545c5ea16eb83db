// Which cards are meant: those that are named, or those of a kind or a group.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "records/fields.h"

namespace qnmctl {

enum class card_kind { server, device };

// The cards that a command is for: those that are named, or of the known ones those that fit. Where
// it is a filter, what is not given lets every card through.
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
