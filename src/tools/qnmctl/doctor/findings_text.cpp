// Lays out findings.
#include "doctor/findings_text.h"

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

#include "output/table.h"
#include "output/text.h"

namespace qnmctl {

namespace {

struct rank_words {
    const char* name;
    const char* one;
    const char* many;
    const char* colour;
};

// Indexed by severity.
constexpr rank_words ranks[] = {
    {"ok", "ok", "ok", "\033[32m"},
    {"note", "note", "notes", "\033[36m"},
    {"warning", "warning", "warnings", "\033[33m"},
    {"error", "error", "errors", "\033[31m"},
};

const rank_words& words_of(severity rank) {
    return ranks[static_cast<std::size_t>(rank)];
}

std::string place_text(const finding& verdict) {
    if (verdict.about.empty()) return {};
    return verdict.about + (verdict.line > 0 ? ':' + std::to_string(verdict.line) : std::string()) +
           ": ";
}

// Wraps words into lines of the width; all but the first are indented. A longer word has a line of
// its own.
std::string wrapped(const std::string& text, std::size_t indent, std::size_t width) {
    constexpr std::size_t narrowest = 20;
    const std::size_t room = std::max(narrowest, width > indent ? width - indent : 0);
    std::string lines;
    std::size_t filled = 0;
    for (const std::string& word : split(text, " ")) {
        const std::size_t length = width_of(word);
        const bool full = filled > 0 && filled + 1 + length > room;
        if (full) lines += '\n' + std::string(indent, ' ');
        if (filled > 0 && !full) lines += ' ';
        filled = full || filled == 0 ? length : filled + 1 + length;
        lines += word;
    }
    return lines;
}

std::string finding_text(const finding& verdict, const look& how) {
    constexpr std::size_t rank_width = 9;
    constexpr std::size_t check_width = 13;
    constexpr std::size_t indent = rank_width + check_width;
    const rank_words& rank = words_of(verdict.rank);
    std::string name = verdict.check;
    name.resize(check_width - 1, ' ');
    const std::string blanks(rank_width - std::string(rank.name).size(), ' ');
    std::string text = in_colour(rank.name, rank.colour, how.coloured);
    text +=
        blanks + name + ' ' + wrapped(place_text(verdict) + verdict.text, indent, how.width) + '\n';
    if (!verdict.remedy.empty())
        text += std::string(indent, ' ') + wrapped(verdict.remedy, indent, how.width) + '\n';
    return text;
}

std::string summary_text(const findings& all) {
    std::vector<std::string> parts;
    for (std::size_t at = 0; at < std::size(ranks); ++at) {
        const std::size_t number = count(all, static_cast<severity>(at));
        parts.push_back(std::to_string(number) + ' ' +
                        (number == 1 ? ranks[at].one : ranks[at].many));
    }
    return join(parts, ", ") + '\n';
}

}  // namespace

std::string findings_text(const findings& all, const look& how) {
    std::string text;
    for (const finding& verdict : all)
        text += finding_text(verdict, how);
    return text + summary_text(all);
}

json finding_json(const finding& verdict) {
    json object = {{"check", verdict.check}, {"severity", words_of(verdict.rank).name}};
    object["about"] = verdict.about.empty() ? json() : json(verdict.about);
    object["line"] = verdict.line == 0 ? json() : json(verdict.line);
    object["text"] = verdict.text;
    object["remedy"] = verdict.remedy.empty() ? json() : json(verdict.remedy);
    return object;
}

json summary_json(const findings& all) {
    json object = json::object();
    for (std::size_t at = 0; at < std::size(ranks); ++at)
        object[ranks[at].many] = count(all, static_cast<severity>(at));
    return object;
}

}  // namespace qnmctl
