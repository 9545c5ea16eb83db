// From words to requests: the command line and the lines on standard input, both by one table of
// verbs.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "cli/operands.h"
#include "installation/installation.h"
#include "output/text.h"
#include "output/writer.h"
#include "qnm.h"
#include "records/selection.h"

namespace qnmctl {

struct context;  // what a running verb works with; see manager/context.h
struct verb;

enum class monitor_action { stop, restart };

// How a card is accessed.
struct access_options {
    std::optional<std::uint32_t> retries = {};   // not given: as configured
    std::optional<std::uint32_t> interval = {};  // milliseconds; likewise
    std::uint32_t flags = 0;                     // QNM_FLAG_LIVECHECK and so on
};

// What the cards of the full-screen view are sorted by.
enum class top_order { id, kind, type, vlan, paths, heard, events, rate };

// How that view begins.
struct top_options {
    top_order order = top_order::id;
    bool reversed = false;
    std::string text = {};               // --filter
    std::optional<bool> connected = {};  // --state; not given: all cards
    double delay = 1;                    // seconds between two looks
};

// A verb and what was said with it.
struct request {
    const verb* asked = nullptr;
    std::uint64_t id = 0;
    selection cards = {};
    std::vector<std::uint32_t> numbers = {};  // the operands in their order
    std::string file = {};                    // the operand that is one
    access_options how = {};
    std::string raw = {};  // --raw
    bool yes = false;
    bool mask_ids = false;
    bool force = false;               // --force of a file that is there
    std::optional<double> wait = {};  // --wait; not given: the verb's
    qnm_log_level_t level = QNM_LOGLVL_NONE;
    monitor_action action = monitor_action::stop;
    bool verbose = false;
    output_form form = output_form::text;
    std::vector<std::string> events = {};    // --event; empty: every event
    std::string word = {};                   // a fixed word that has no field of its own
    std::vector<std::string> rest = {};      // of takes_rest
    std::optional<int> snaplen = {};         // --snaplen
    std::vector<std::string> messages = {};  // --message; empty: every message
    bool dropped = false;                    // --dropped
    double seconds = 0;                      // --for; 0: without limit
    std::uint64_t count = 0;                 // --count; 0: without limit
    top_options top = {};
};

// What may stand behind a verb; all_options() has the rows for each bit.
enum takes : unsigned {
    takes_nothing = 0,
    takes_action = 1U << 0,
    takes_id = 1U << 1,
    takes_verbose = 1U << 2,
    takes_filter = 1U << 3,  // of events
    takes_for = 1U << 4,
    takes_count = 1U << 5,
    takes_ids = 1U << 6,    // several, or options that choose cards
    takes_wait = 1U << 7,   // for the cards to be heard
    takes_retry = 1U << 8,  // --retries and --interval
    takes_livecheck = 1U << 9,
    takes_verify = 1U << 10,
    takes_force_lock = 1U << 11,
    takes_raw = 1U << 12,
    takes_yes = 1U << 13,
    takes_level = 1U << 14,
    takes_shell = 1U << 15,
    takes_dot = 1U << 16,     // a graph is a form of output, too
    takes_rest = 1U << 17,    // all that follows, as it is
    takes_top = 1U << 18,     // what the full-screen view begins with
    takes_frames = 1U << 19,  // a number of them, in place of events
    takes_snaplen = 1U << 20,
    takes_frame_filter = 1U << 21,
    takes_frame_fields = 1U << 22,
    takes_report = 1U << 23,  // what a report can be

    // Not for rows of the table of verbs.
    takes_output = 1U << 30,  // every verb does but those of a screen
    takes_global = 1U << 31,  // what may stand in front of the verb
};

struct verb {
    const char* name = "";       // one word, or two of which the first is that of a group
    const char* help = "";       // one line
    const char* more_help = "";  // further lines for its own --help
    unsigned takes = takes_nothing;
    double seconds = 0;  // of --for, when it is not given
    int (*run)(context&,
               const request&) = nullptr;  // from the command line; nullptr: only in lines
    void (*answer)(context&, const request&) = nullptr;  // from a line; nullptr: not in lines
    std::span<const operand> operands = {};              // behind the IDs
    bool streams = false;                                // goes on and tells events as they come
    bool endless = false;  // what it tells may have no end, so a signal is a usual one
    bool hidden = false;   // for scripts of its own; neither in help nor in the manual page
};

// The first words of verbs that have two.
struct verb_group {
    const char* name;
    const char* help;
};

std::span<const verb_group> verb_groups();

// What stands behind a verb beside its options, "stop|restart ID", "ID... ADDR [END]".
std::string words_text(const verb& of);

struct command_line {
    settings global = {};
    request asked = {};
};

// The exit status stands for a command line that leaves nothing to run: help, or wrong usage, both
// of which have been printed.
std::variant<command_line, int> parse_command_line(std::span<const verb> verbs, int argc,
                                                   const char* const* argv);

// The text says what is wrong with the line. A blank line is a request without a verb.
std::variant<request, std::string> parse_line(std::span<const verb> verbs, const std::string& line);

// As --log-level takes it; "none" when it is no level.
const char* level_word(qnm_log_level_t level);

// The answer to "help".
std::string lines_help(std::span<const verb> verbs);

}  // namespace qnmctl
