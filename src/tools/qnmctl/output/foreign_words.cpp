// Cuts words, then makes them visible.
#include "output/foreign_words.h"

#include <algorithm>

#include "common/visible.h"

namespace qnmctl {

std::string printable(std::string_view word) {
    constexpr std::size_t longest = 60;
    const auto continues = [&](std::size_t at) {
        return (static_cast<unsigned char>(word[at]) & 0xC0) == 0x80;
    };
    std::size_t end = std::min(word.size(), longest);
    while (end < word.size() && end > longest - 4 && continues(end))
        --end;  // do not cut a character in two
    const std::string text = tools::visible_line(word.substr(0, end));
    return word.size() > longest ? text + "..." : text;
}

std::string in_quotes(std::string_view word) {
    return '"' + printable(word) + '"';
}

}  // namespace qnmctl
