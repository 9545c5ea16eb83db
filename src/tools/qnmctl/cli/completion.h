// Completion of command lines in a shell.
//
// The script of a shell is short: it asks the command itself, by a hidden command, what can come
// next on the line so far. So it never differs from the commands, and card IDs can be those that
// are heard at that moment.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "cli/command.h"

namespace qnmctl {

struct candidate {
    std::string word;
    std::string help;  // may be empty
};

struct candidates {
    std::vector<candidate> words = {};
    bool files = false;        // and names of files, which the shell knows better
    bool directories = false;  // and names of directories
};

// The cards that are heard with these settings.
using card_source = std::function<std::vector<candidate>(const settings&)>;

// What can stand in place of the last of the words, which follow "qnmctl"; the last one may be
// empty. Cards are looked for where an ID is wanted only.
candidates complete(command_tree& tree, const std::vector<std::string>& words,
                    const card_source& cards);

// A line for each word, its help behind a tab; ":files" and ":directories" for those.
std::string candidates_text(const candidates& of);

// The script that makes a shell, "bash" or "zsh", ask.
std::string completion_script(const std::string& shell);

}  // namespace qnmctl
