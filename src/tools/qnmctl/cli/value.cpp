// Stores words, or says what is wrong with them.
#include "cli/value.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <utility>

namespace qnmctl {

namespace {

refusal take_seconds(const std::string& word, double& target) {
    constexpr double longest = 1e9;
    double number = 0;
    const char* const end = word.data() + word.size();
    const auto [stop, code] = std::from_chars(word.data(), end, number);
    const bool usable = code == std::errc{} && stop == end && std::isfinite(number);
    if (!usable || number <= 0 || number > longest) {
        return '"' + word + "\" is not a number of seconds above 0";
    }
    target = number;
    return std::nullopt;
}

refusal take_id(const std::string& word, std::uint64_t& target) {
    const auto id = parse_id(word);
    if (!id) return '"' + word + "\" is no card ID; write 0x001122334455 or 00:11:22:33:44:55";
    target = *id;
    return std::nullopt;
}

}  // namespace

refusal refused(const value& taken, const std::string& word) {
    const auto& known = taken.words;
    if (!known.empty() && std::find(known.begin(), known.end(), word) == known.end()) {
        return '"' + word + "\" is none of " + join(known, ", ");
    }
    return taken.take(word);
}

refusal wrong_number(const std::string& word, const limits& bounds) {
    const auto number = parse_number(word);
    if (!number) return '"' + word + "\" is no number; write decimal, 0x1F or 0b11";
    if (*number < bounds.least) return word + " is below " + std::to_string(bounds.least);
    if (*number > bounds.most) return word + " is above " + std::to_string(bounds.most);
    if (*number % bounds.step != 0)
        return word + " is no multiple of " + std::to_string(bounds.step);
    return std::nullopt;
}

value choice_by_place(std::function<void(std::size_t place)> store,
                      std::span<const char* const> words) {
    const auto take = [store = std::move(store), words](const std::string& word) -> refusal {
        store(
            static_cast<std::size_t>(std::find(words.begin(), words.end(), word) - words.begin()));
        return std::nullopt;
    };
    return {take, offers::words, {words.begin(), words.end()}};
}

value seconds(double& target) {
    return {[&target](const std::string& word) { return take_seconds(word, target); }};
}

value seconds(std::optional<double>& target) {
    return {[&target](const std::string& word) { return take_seconds(word, target.emplace()); }};
}

value any_text(std::string& target) {
    return {[&target](const std::string& word) -> refusal {
        target = word;
        return std::nullopt;
    }};
}

value file_name(std::string& target) {
    return {[&target](const std::string& word) -> refusal {
                if (word.empty()) return "the name of the file is empty";
                target = word;
                return std::nullopt;
            },
            offers::files};
}

value card_id(std::uint64_t& target) {
    return {[&target](const std::string& word) { return take_id(word, target); }, offers::cards};
}

value card_ids(std::vector<std::uint64_t>& target) {
    return {
        .take = [&target](const std::string& word) { return take_id(word, target.emplace_back()); },
        .offered = offers::cards,
        .repeatable = true};
}

value one_of(std::string& target, std::span<const char* const> words) {
    value taken = any_text(target);
    taken.offered = offers::words;
    taken.words.assign(words.begin(), words.end());
    return taken;
}

value some_of(std::vector<std::string>& target, std::span<const char* const> words) {
    return {.take = [&target](const std::string& word) -> refusal {
                target.push_back(word);
                return std::nullopt;
            },
            .offered = offers::words,
            .words = {words.begin(), words.end()},
            .repeatable = true};
}

}  // namespace qnmctl
