// What commands share while the manager runs: starting it, waiting, and printing.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "manager/context.h"

namespace qnmctl {

// How long to listen, and what to do meanwhile.
struct listening {
    double seconds = 0;                      // 0: without limit
    std::uint64_t count = 0;                 // events told; 0: without limit
    bool tells = false;                      // events are printed
    bool takes_lines = false;                // from standard input
    std::function<bool()> enough = nullptr;  // asked after each batch of events
};

void start(context& with);

// Returns when the time is over, enough events were printed, a signal or "quit" comes, or the
// reader of the output has gone. Throws error when the manager ends.
void listen(context& with, const listening& how);

// Listens, tells the events and answers lines, as long as was asked for.
void listen_and_tell(context& with, double seconds, std::uint64_t count);

// Tells that the monitoring of a card was stopped or restarted just now; an event like others.
void tell_monitor(context& with, std::uint64_t id, bool restarted);

// Throws error when the manager has ended by itself.
void check_running(const context& with);

// Whether a signal is pending.
bool is_signalled(const context& with);

// Prints a text that may be longer than the terminal, through the pager if there is one. Prints
// nothing in other forms than text.
void tell_in_pager(context& with, const std::string& text);

// Reports a failure of one part of the command; the rest goes on.
void tell_failure(context& with, const std::string& text,
                  std::optional<qnm_api_code_t> code = std::nullopt);

}  // namespace qnmctl
