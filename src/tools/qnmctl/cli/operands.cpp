// Compares a word with the limits of its operand.
#include "cli/operands.h"

#include "output/text.h"

namespace qnmctl {

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
