// The options and fixed words of all verbs, and those in front of the verb, in one table that
// parsing, help, completion and the manual page are made from.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cli/command_line.h"

namespace qnmctl {

inline constexpr char id_help[] = "Card ID, as 0x001122334455 or 00:11:22:33:44:55";

// What completion offers where a value is wanted.
enum class offers { nothing, words, files, directories, interfaces, cards };

struct option {
    unsigned taken = takes_nothing;           // by verbs with one of these bits
    const char* names = "";                   // "-v,--verbose"; a word of its own: "ACTION"
    const char* value = nullptr;              // how the help calls it, "SECONDS"; nullptr: a flag
    const char* help = "";                    // one line
    offers offered = offers::nothing;         // in place of the value
    std::span<const char* const> words = {};  // all that the value can be; empty: anything
    bool repeatable = false;

    // Takes a value that is one of the words, if there are any; the result says what is wrong with
    // it. A flag has an empty one.
    std::optional<std::string> (*set)(const std::string& value, command_line& into) = nullptr;

    bool is_word() const { return names[0] != '-'; }
};

// The rows, in the order in which help shows them.
std::span<const option> all_options();

// Those that stand in front of the verb or behind it.
std::vector<const option*> global_options();

// Those of a verb: its fixed words first, in their order.
std::vector<const option*> options_of(const verb& defined);

// Of a verb that is given in a line of standard input.
std::vector<const option*> options_in_lines(const verb& defined);

// The help of an option, with what holds for this verb in particular.
std::string option_help(const option& of, const verb& defined);

// Checks and takes a value; the result says what is wrong with it.
std::optional<std::string> set_value(const option& of, const std::string& value,
                                     command_line& into);

std::vector<std::string> names_of(const option& of);  // "-v", "--verbose"

// What is wrong with the options in front of the verb taken together.
std::optional<std::string> wrong_globals(const settings& given);

// A card ID as it was typed; the text says why it is none.
std::optional<std::string> take_id(const std::string& word, std::uint64_t& into);

}  // namespace qnmctl
