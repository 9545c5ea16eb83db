// The name that was probably meant by a misspelt one.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

// By how many characters left out, put in, exchanged or swapped with their neighbour two words
// differ (Damerau and Levenshtein), upper and lower case being the same.
std::size_t spelling_distance(std::string_view a, std::string_view b);

// Nothing when no name is near enough to have been meant.
std::optional<std::string> nearest_name(std::string_view word,
                                        const std::vector<std::string>& names);

}  // namespace tools
