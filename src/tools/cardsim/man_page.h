// The manual page of qnm-cardsim, made from its options, commands and keys.
#pragma once

#include <span>
#include <string>
#include <vector>

namespace cardsim {

struct option_text {
    std::string term;  // "--ports IF0,IF1"
    std::string help;
};

struct key_text {
    std::string_view name;
    std::string_view help;
};

// The keys of a scenario: of a [[card]], and of the bridge and down port records inside it.
std::span<const key_text> card_key_texts();
std::span<const key_text> bridge_key_texts();
std::span<const key_text> down_port_key_texts();

// In the man(7) language.
std::string man_page(std::span<const option_text> options, const std::string& version);

}  // namespace cardsim
