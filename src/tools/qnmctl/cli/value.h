// Values of options and operands: where a word is stored, and what it can be.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "output/text.h"

namespace qnmctl {

// What completion offers for a value.
enum class offers { nothing, words, files, directories, interfaces, cards };

// Why a word is refused; nothing when it is accepted.
using refusal = std::optional<std::string>;

// Where a word is stored, and what it can be.
struct value {
    std::function<refusal(const std::string& word)> take;
    offers offered = offers::nothing;
    std::vector<std::string> words = {};  // the only ones allowed; empty: anything
    bool repeatable = false;
};

// Stores the word if it is allowed; otherwise says why it is not.
refusal refused(const value& taken, const std::string& word);

struct limits {
    std::uint64_t least = 0;
    std::uint64_t most = UINT32_MAX;
    std::uint64_t step = 1;  // the number must be a multiple of it
};

// Why a word is not a number within the limits.
refusal wrong_number(const std::string& word, const limits& bounds);

// Also for an optional target.
template <class Value>
struct value_type {
    using type = Value;
};
template <class Value>
struct value_type<std::optional<Value>> {
    using type = Value;
};

template <class Number>
value number(Number& target, const limits& bounds = {}) {
    return {[&target, bounds](const std::string& word) {
        auto wrong = wrong_number(word, bounds);
        if (!wrong) target = static_cast<typename value_type<Number>::type>(*parse_number(word));
        return wrong;
    }};
}

// One of the words, which are in the order of the enumeration.
value choice_by_place(std::function<void(std::size_t place)> store,
                      std::span<const char* const> words);
template <class Enumeration>
value choice(Enumeration& target, std::span<const char* const> words) {
    return choice_by_place(
        [&target](std::size_t place) {
            target = static_cast<typename value_type<Enumeration>::type>(place);
        },
        words);
}

value seconds(double& target);
value seconds(std::optional<double>& target);
value any_text(std::string& target);
value file_name(std::string& target);
value card_id(std::uint64_t& target);
value card_ids(std::vector<std::uint64_t>& target);  // repeatable
value one_of(std::string& target, std::span<const char* const> words);
value some_of(std::vector<std::string>& target, std::span<const char* const> words);  // repeatable

}  // namespace qnmctl
