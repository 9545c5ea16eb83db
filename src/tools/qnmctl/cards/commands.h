// The commands that watch and ask.
#pragma once

#include "cli/command.h"

namespace qnmctl {

void define_watch(command_tree& tree);
void define_list(command_tree& tree);
void define_show(command_tree& tree);
void define_topology(command_tree& tree);
void define_stats(command_tree& tree);
void define_monitor(command_tree& tree);
void define_loglevel(command_tree& tree);

}  // namespace qnmctl
