// Numbers from words, and the limits they have to keep.
#include "operands.h"

#include <charconv>

namespace qnmctl {

namespace {

struct notation {
    std::string_view prefix;
    int base;
};

constexpr notation notations[] = {{"0x", 16}, {"0X", 16}, {"0b", 2}, {"0B", 2}, {"", 10}};

}  // namespace

std::optional<std::uint64_t> parse_number(std::string_view text) {
    for (const notation& tried : notations) {
        if (!text.starts_with(tried.prefix)) continue;
        const std::string_view digits = text.substr(tried.prefix.size());
        const char* const end = digits.data() + digits.size();
        std::uint64_t value = 0;
        const auto [stop, problem] = std::from_chars(digits.data(), end, value, tried.base);
        if (problem != std::errc{} || stop != end) return std::nullopt;
        return value;
    }
    return std::nullopt;
}

std::optional<std::string> wrong_operand(const operand& wanted, const std::string& word) {
    const std::string start = std::string(wanted.name) + ": ";
    if (wanted.form == operand_form::file) {
        if (word.empty()) return start + "the name of the file is empty";
        return std::nullopt;
    }
    const auto value = parse_number(word);
    if (!value) return start + '"' + word + "\" is no number; write decimal, 0x1F or 0b11";
    if (*value < wanted.least) {
        return start + word + " is below " + std::to_string(wanted.least);
    }
    if (*value > wanted.most) {
        return start + word + " is above " + std::to_string(wanted.most);
    }
    if (*value % wanted.step != 0) {
        return start + word + " is no multiple of " + std::to_string(wanted.step);
    }
    return std::nullopt;
}

std::string operand_text(const operand& of) {
    return of.optional ? '[' + std::string(of.name) + ']' : of.name;
}

}  // namespace qnmctl
