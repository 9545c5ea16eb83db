// The texts of the overall help.
#include "cli/usage.h"

#include <algorithm>

#include "output/text.h"

namespace qnmctl {

namespace {

constexpr example all[] = {
    {"qnmctl --ports eth1,eth2 watch", "Tell what happens to the cards, and why"},
    {"qnmctl --ports eth1 list --for 5 -o json", "The table of cards for a script"},
    {"qnmctl --dir /opt/tarvo/qnm show 0x001122334455", "Every field of one card"},
    {"qnmctl --ports eth1 reg read 0x001122334455 0x100", "Read a register"},
};

}  // namespace

std::span<const example> examples() {
    return all;
}

std::string help_footer() {
    std::string text = "\"qnmctl help COMMAND\" has more about a command.\n\nExamples:\n";
    for (const example& shown : all)
        text += std::string("  sudo ") + shown.command + '\n';
    text += "\nExit status:\n";
    for (const status_row& row : exit_statuses()) {
        const std::string number = std::to_string(row.status);
        text += std::string(4 - number.size(), ' ') + number + "  " + row.meaning + '\n';
    }
    text.pop_back();
    return text;
}

}  // namespace qnmctl
