// How deeply a TOML text nests, found out before it is parsed.
//
// A table within a table costs its parser, and whoever goes through the result, a part of the stack
// for each level. A dotted key makes a level of each of its parts, so a short file can have more of
// them than any stack holds.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace cardsim {

inline constexpr std::size_t nesting_limit = 32;  // a scenario needs three

// The line, from 1, in which a key has more parts than that or brackets lie deeper; nothing when
// there is none.
std::optional<std::size_t> line_nested_too_deep(std::string_view text);

}  // namespace cardsim
