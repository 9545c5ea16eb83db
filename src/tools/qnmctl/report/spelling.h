// The ways in which an address stands in a text.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace qnmctl {

inline constexpr std::size_t address_bytes = 6;

// Whether it can be a card's: neither zero nor a group's.
bool is_single_address(std::uint64_t address);

std::uint64_t reversed_bytes(std::uint64_t address);

// The address that six bytes are, first byte most significant.
std::uint64_t address_of(std::string_view bytes);

// An address found in a text.
struct spelling {
    std::size_t length;     // of the text
    std::uint64_t address;  // as it is meant
    bool reversed = false;  // the last byte is written first
    bool decimal = false;
};

using is_known = std::function<bool(std::uint64_t)>;

// The address that the text has at a place. What is unmistakable, 0x and twelve digits or six pairs
// with colons or hyphens between, is found in any case; everything else only when it is known.
std::optional<spelling> spelling_at(std::string_view text, std::size_t at, const is_known& known);

// Another address in the same spelling.
std::string respelt(const spelling& as, std::string_view clear, std::uint64_t address);

}  // namespace qnmctl
