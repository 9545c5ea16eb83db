// How deeply a TOML text nests, checked before it is parsed.
//
// Each level of tables within tables costs the parser, and everything that walks the result, a part
// of the stack. Every part of a dotted key makes a level, so a short file can have more levels than
// any stack holds.
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
