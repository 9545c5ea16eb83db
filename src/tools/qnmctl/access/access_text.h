// What the command prints about accesses to cards: results, dumps, and why one failed. Text and
// JSON; no output and no access here.
//
// The result for a card is a row of items, from which both text and JSON are made.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "access/image.h"
#include "qnm.h"
#include "records/fields.h"

namespace qnmctl {

// What a call works on; needed to explain its failure.
enum class access_scope { registers, eeprom, eeprom_lock, vlan, reset, mms };

inline constexpr int from_card = -1;

struct access_item {
    const char* name;   // in JSON
    const char* words;  // in front of the value
    int source;         // which operand it is, or from_card
    int digits;         // hexadecimal ones; 0: decimal
};

struct access_words {
    const char* call;  // the library's
    access_scope scope;
    std::span<const access_item> items;
    const char* done;      // behind the items
    const char* verified;  // instead of it, with QNM_FLAG_VERIFY; nullptr: nothing to verify
};

// One card's result. Without a code the command was ended before the card's turn came.
struct outcome {
    std::uint64_t id = 0;
    std::optional<qnm_api_code_t> code = {};
    std::uint32_t value = 0;  // from the card
};

// The operands that are numbers, those that there are.
inline constexpr std::size_t most_operands = 3;
using operand_numbers = std::array<std::uint32_t, most_operands>;

struct access_call_words {
    const access_words* words;
    operand_numbers numbers;
    std::uint32_t flags;
};

std::string outcome_text(const outcome& result,
                         const access_call_words& call);  // of a success; one line
json outcome_json(const outcome& result, const access_call_words& call);

// Why the call failed for a card, and what to try: in general, or as is known.
std::string failure_text(std::uint64_t id, const char* call, access_scope scope,
                         qnm_api_code_t code, const std::string& known = "");

// Consecutive words of a card, from an address on.
struct dump {
    std::uint64_t id = 0;
    std::uint32_t start = 0;
    word_list words = {};
};

// Lines of four words: address, hexadecimal, and as text the bytes in the order of an image file.
std::string dump_text(const dump& source);
json dump_json(const dump& source, std::optional<qnm_api_code_t> code);

std::string difference_text(const std::vector<difference>& all);  // a line for each
json difference_json(const std::vector<difference>& all);

}  // namespace qnmctl
