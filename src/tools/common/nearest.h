// Finds the name that a misspelt one probably stands for.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

// The Damerau-Levenshtein distance of two words, ignoring case: how many characters are missing,
// added, replaced or swapped with their neighbour.
std::size_t spelling_distance(std::string_view a, std::string_view b);

// Nothing when no name is close enough.
std::optional<std::string> nearest_name(std::string_view word,
                                        const std::vector<std::string>& names);

}  // namespace tools
