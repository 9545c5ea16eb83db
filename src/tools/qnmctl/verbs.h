// The verbs of the command, in one table that parsing, help and dispatch are fed from.
#pragma once

#include <memory>
#include <span>

#include "changes.h"
#include "command_line.h"
#include "installation.h"
#include "output.h"
#include "session.h"

namespace qnmctl {

extern const std::span<const verb> verbs;

// What a verb works with while it runs.
struct context {
    const installation& where;
    qnm_log_level_t log_level;
    output& out;
    int signals;    // readable when the command is to end
    bool coloured;  // texts on standard output

    std::unique_ptr<session> manager;
    known_cards known;
    bool as_json = false;
    bool quit = false;  // asked for by a line
};

}  // namespace qnmctl
