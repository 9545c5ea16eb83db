// Shell completion.
//
// The shell's script is short: it asks qnmctl, through a hidden command, how the line can go on. So
// completion always matches the commands, and offers the IDs of cards that are heard right now.
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
    bool files = false;        // also names of files, which the shell completes
    bool directories = false;  // also names of directories
};

// The cards that are heard with these settings.
using card_source = std::function<std::vector<candidate>(const settings&)>;

// What can replace the last of the words after "qnmctl", which may be empty. Cards are listened for
// only where an ID is expected.
candidates complete(command_tree& tree, const std::vector<std::string>& words,
                    const card_source& cards);

// One line per word, with its help after a tab; ":files" and ":directories" for those.
std::string candidates_text(const candidates& found);

// The completion script for a shell, "bash" or "zsh".
std::string completion_script(const std::string& shell);

}  // namespace qnmctl
