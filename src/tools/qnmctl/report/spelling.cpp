// Finds addresses by their digits and by the characters between and around them.
#include "report/spelling.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>

namespace qnmctl {

namespace {

constexpr std::size_t digits_of_address = 2 * address_bytes;
constexpr std::uint64_t last_address = 0xFFFFFFFFFFFF;

// Shorter numbers are taken as sizes, flags or counters.
constexpr std::uint64_t least_number = 0x1000000;

bool is_hex_digit(char c) {
    return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}

bool is_upper(char c) {
    return std::isupper(static_cast<unsigned char>(c)) != 0;
}

std::optional<std::uint64_t> number(std::string_view digits, int base) {
    std::uint64_t value = 0;
    const auto [end, code] =
        std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
    if (code != std::errc{} || end != digits.data() + digits.size()) return std::nullopt;
    return value;
}

// The address as written, or with its bytes reversed; nothing if neither is a wanted address.
std::optional<spelling> spelling_of(std::uint64_t value, std::size_t length, bool unmistakable,
                                    const is_known& known) {
    if (known(value)) return spelling{length, value};
    if (known(reversed_bytes(value))) return spelling{length, reversed_bytes(value), true};
    if (unmistakable && is_single_address(value)) return spelling{length, value};
    return std::nullopt;
}

// ---- Digits in groups ---------------------------------------------------------------------------

struct grouping {
    std::size_t digits;
    char separator;
    bool unmistakable;
};

constexpr grouping groupings[] = {{2, ':', true},  {2, '-', true},  {2, ' ', false},
                                  {2, '.', false}, {4, '.', false}, {4, ':', false},
                                  {4, '-', false}, {4, ' ', false}};

std::optional<spelling> grouped(std::string_view text, std::size_t at, const grouping& by,
                                const is_known& known) {
    const std::size_t length = digits_of_address + digits_of_address / by.digits - 1;
    if (text.size() - at < length) return std::nullopt;
    if (at + length < text.size() && is_hex_digit(text[at + length])) return std::nullopt;
    std::string digits;
    for (std::size_t i = 0; i < length; ++i) {
        const char c = text[at + i];
        const bool separates = i % (by.digits + 1) == by.digits;
        if (separates ? c != by.separator : !is_hex_digit(c)) return std::nullopt;
        if (!separates) digits += c;
    }
    return spelling_of(*number(digits, 16), length, by.unmistakable, known);
}

// ---- Digits in one run --------------------------------------------------------------------------

std::optional<spelling> whole_run(std::string_view run, bool prefixed, const is_known& known) {
    const auto value = number(run, 16);
    if (value && *value >= least_number && *value <= last_address && known(*value)) {
        return spelling{run.size(), *value};
    }
    const auto decimal = prefixed ? std::nullopt : number(run, 10);
    if (decimal && *decimal >= least_number && *decimal <= last_address && known(*decimal)) {
        return spelling{run.size(), *decimal, false, true};
    }
    return std::nullopt;
}

// A run of digits, at its start or further inside: a dump of bytes may be one long run.
std::optional<spelling> in_run(std::string_view text, std::size_t at, const is_known& known) {
    const bool starts = at == 0 || !is_hex_digit(text[at - 1]);
    std::size_t end = at;
    const std::size_t enough = at + 2 * digits_of_address;  // no number is longer
    while (end < text.size() && end < enough && is_hex_digit(text[end]))
        ++end;
    const std::string_view run = text.substr(at, end - at);
    const bool prefixed =
        at >= 2 && (text[at - 1] == 'x' || text[at - 1] == 'X') && text[at - 2] == '0';
    if (run.size() >= digits_of_address) {
        const bool alone = starts && prefixed && run.size() == digits_of_address;
        const auto value = number(run.substr(0, digits_of_address), 16);
        if (auto found = spelling_of(*value, digits_of_address, alone, known)) return found;
    }
    return starts ? whole_run(run, prefixed, known) : std::nullopt;
}

std::string hex_digits(std::uint64_t address) {
    char digits[digits_of_address + 1];
    std::snprintf(digits, sizeof digits, "%012llx", static_cast<unsigned long long>(address));
    return digits;
}

}  // namespace

bool is_single_address(std::uint64_t address) {
    constexpr std::uint64_t group_bit = std::uint64_t{1} << 40;
    return address != 0 && (address & group_bit) == 0;
}

std::uint64_t reversed_bytes(std::uint64_t address) {
    return __builtin_bswap64(address) >> 16;
}

std::uint64_t address_of(std::string_view bytes) {
    std::uint64_t address = 0;
    for (const char byte : bytes.substr(0, address_bytes))
        address = address << 8 | static_cast<unsigned char>(byte);
    return address;
}

std::optional<spelling> spelling_at(std::string_view text, std::size_t at, const is_known& known) {
    if (!is_hex_digit(text[at])) return std::nullopt;
    if (at == 0 || !is_hex_digit(text[at - 1])) {
        for (const grouping& by : groupings) {
            if (auto found = grouped(text, at, by, known)) return found;
        }
    }
    return in_run(text, at, known);
}

std::string respelt(const spelling& as, std::string_view clear, std::uint64_t address) {
    if (as.decimal) return std::to_string(address);
    std::string digits = hex_digits(as.reversed ? reversed_bytes(address) : address);
    if (std::any_of(clear.begin(), clear.end(), is_upper)) {
        for (char& c : digits)
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    if (static_cast<std::size_t>(std::count_if(clear.begin(), clear.end(), is_hex_digit)) !=
        digits.size()) {
        return digits;
    }
    std::string text(clear);
    auto next = digits.begin();
    for (char& c : text) {
        if (is_hex_digit(c)) c = *next++;
    }
    return text;
}

}  // namespace qnmctl
