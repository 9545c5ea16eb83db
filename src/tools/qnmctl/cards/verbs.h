// The verbs that watch and ask.
#pragma once

#include "cli/command_line.h"
#include "manager/context.h"

namespace qnmctl {

int run_watch(context& with, const request& asked);

int run_list(context& with, const request& asked);
void answer_list(context& with, const request& asked);

int run_show(context& with, const request& asked);
void answer_show(context& with, const request& asked);

int run_topology(context& with, const request& asked);
void answer_topology(context& with, const request& asked);

int run_stats(context& with, const request& asked);
void answer_stats(context& with, const request& asked);

int run_monitor(context& with, const request& asked);
void answer_monitor(context& with, const request& asked);

void answer_help(context& with, const request& asked);

void answer_quit(context& with, const request& asked);

}  // namespace qnmctl
