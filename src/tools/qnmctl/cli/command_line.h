// Parses the command line, and lines on standard input, into a command with its options.
#pragma once

#include <string>
#include <variant>

#include "cli/command.h"

namespace qnmctl {

// The command to run, or the exit status after help or a usage error was printed.
std::variant<const command*, int> parse_command_line(command_tree& tree, int argc,
                                                     const char* const* argv);

// The command that answers the line, or what is wrong with it; nullptr for a blank line. The tree
// must be one for lines that was not used before.
std::variant<const command*, std::string> parse_line(command_tree& tree, const std::string& line);

// "ADDR", "[END]"
std::string word_text(const command& verb, const CLI::Option& word);

// The operands of a command: "stop|restart ID", "ID... ADDR [END]".
std::string words_text(const command& verb);

// The answer to the line "help": all commands of a tree for lines.
std::string lines_help(const command_tree& tree);

}  // namespace qnmctl
