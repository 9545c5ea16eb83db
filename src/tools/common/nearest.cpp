// Computes the distance row by row; three rows of the table are enough.
#include "common/nearest.h"

#include <algorithm>
#include <cctype>

namespace tools {

namespace {

bool same(char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
}

// A third of a word may be wrong, and two characters of a short one.
std::size_t reach_of(std::string_view word) {
    constexpr std::size_t least = 2;
    return std::max(least, word.size() / 3);
}

}  // namespace

std::size_t spelling_distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> above_last(b.size() + 1);
    std::vector<std::size_t> last(b.size() + 1);
    std::vector<std::size_t> now(b.size() + 1);
    for (std::size_t column = 0; column <= b.size(); ++column)
        last[column] = column;
    for (std::size_t row = 1; row <= a.size(); ++row) {
        now[0] = row;
        for (std::size_t column = 1; column <= b.size(); ++column) {
            const std::size_t exchanged =
                last[column - 1] + (same(a[row - 1], b[column - 1]) ? 0 : 1);
            now[column] = std::min({last[column] + 1, now[column - 1] + 1, exchanged});
            const bool swapped = row > 1 && column > 1 && same(a[row - 1], b[column - 2]) &&
                                 same(a[row - 2], b[column - 1]);
            if (swapped) now[column] = std::min(now[column], above_last[column - 2] + 1);
        }
        above_last.swap(last);
        last.swap(now);
    }
    return last.back();
}

std::optional<std::string> nearest_name(std::string_view word,
                                        const std::vector<std::string>& names) {
    std::size_t least = std::min(reach_of(word), word.empty() ? 0 : word.size() - 1);
    std::optional<std::string> nearest;
    for (const std::string& name : names) {
        const std::size_t distance = spelling_distance(word, name);
        if (distance > least || (nearest && distance == least)) continue;
        least = distance;
        nearest = name;
    }
    return nearest;
}

}  // namespace tools
