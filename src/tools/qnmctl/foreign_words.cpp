// Question marks for what cannot be shown.
#include "foreign_words.h"

namespace qnmctl {

std::string printable(std::string_view word) {
    constexpr std::size_t longest = 60;
    std::string text;
    for (const char c : word.substr(0, longest))
        text += c >= ' ' && c <= '~' ? c : '?';
    return word.size() > longest ? text + "..." : text;
}

std::string in_quotes(std::string_view word) {
    return '"' + printable(word) + '"';
}

}  // namespace qnmctl
