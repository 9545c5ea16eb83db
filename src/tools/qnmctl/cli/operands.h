// The words behind a verb that are neither options nor card IDs: what may stand there, and what is
// wrong with what does.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qnmctl {

enum class operand_form { number, file };

struct operand {
    const char* name;
    const char* help;
    operand_form form = operand_form::number;
    std::uint64_t least = 0;
    std::uint64_t most = UINT32_MAX;
    std::uint64_t step = 1;  // a number is a multiple of it
    bool optional = false;   // only at the end, and not where several cards can be named
};

// Why a word cannot stand for an operand; nothing when it can.
std::optional<std::string> wrong_operand(const operand& wanted, const std::string& word);

// "ADDR", "[END]"
std::string operand_text(const operand& of);

}  // namespace qnmctl
