// What a command works with while it runs: the installation, the output, the running manager.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "cli/command.h"
#include "installation/installation.h"
#include "manager/session.h"
#include "output/output.h"
#include "output/writer.h"
#include "records/changes.h"
#include "records/digest.h"
#include "records/selection.h"

namespace qnmctl {

// Which events are printed. An empty list lets all through.
struct event_filter {
    selection cards = {};
    std::vector<std::string> events = {};  // names
};

// What a command works with while it runs.
struct context {
    define_commands define;     // for lines on standard input
    const installation& where;  // as named by the operator
    qnm_log_level_t log_level;
    output& out;
    writer& results;  // of the command, written to out
    int signals;      // readable when the command is to end
    look how;         // texts on standard output

    installation copy = {};  // of an operator's directory, that the manager runs on
    std::unique_ptr<session> manager = nullptr;
    event_filter filter = {};
    std::optional<digest> digested = {};  // of a text that is watched
    known_cards known = {};
    std::set<std::uint64_t> stopped = {};          // cards that are not monitored
    bool quit = false;                             // by a line "quit"
    std::uint64_t reported_events = 0;             // since it listens
    std::function<void()> tell_waiting = nullptr;  // prints the events that wait; set in a watch

    // What the manager runs on.
    const installation& running() const { return where.temporary ? where : copy; }
};

}  // namespace qnmctl
