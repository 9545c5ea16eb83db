// From words to a command with its options: the command line, and lines on standard input.
#pragma once

#include <string>
#include <variant>

#include "cli/command.h"

namespace qnmctl {

// The command that is to run, or the exit status where none is: help, or wrong usage, both of which
// have been printed then.
std::variant<const command*, int> parse_command_line(command_tree& tree, int argc,
                                                     const char* const* argv);

// The command that is to answer, or what is wrong with the line; nullptr for a blank line. The tree
// is one for lines, and used once.
std::variant<const command*, std::string> parse_line(command_tree& tree, const std::string& line);

// "ADDR", "[END]"
std::string word_text(const command& of, const CLI::Option& word);

// What stands behind a command beside its options, "stop|restart ID", "ID... ADDR [END]".
std::string words_text(const command& of);

// The answer to "help": the lines that a tree for lines has.
std::string lines_help(const command_tree& tree);

}  // namespace qnmctl
