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

#include "qnm.h"

namespace qnmctl {

inline constexpr int exit_ok = 0;
inline constexpr int exit_failed = 1;
inline constexpr int exit_usage = 2;

struct context;  // what a running verb works with; see verbs.h
struct verb;

// The options in front of the verb.
struct settings {
    std::string dir = {};                 // empty: the library's own directory
    std::vector<std::string> ports = {};  // not empty: a temporary directory for these
    std::vector<std::string> keys = {};   // "KEY=VALUE", further lines of its configuration
    std::string log = {};                 // the library's log; empty: only what explains a failure
    qnm_log_level_t log_level = QNM_LOGLVL_NONE;
};

enum class monitor_action { stop, restart };

// A verb and what was said with it.
struct request {
    const verb* asked = nullptr;
    std::uint64_t id = 0;
    monitor_action action = monitor_action::stop;
    bool verbose = false;
    bool as_json = false;
    double seconds = 0;       // --for; 0: without limit
    std::uint64_t count = 0;  // --count; 0: without limit
};

// What may stand behind a verb.
enum takes : unsigned {
    takes_nothing = 0,
    takes_action = 1U << 0,
    takes_id = 1U << 1,
    takes_verbose = 1U << 2,
    takes_json = 1U << 3,
    takes_for = 1U << 4,
    takes_count = 1U << 5,
};

struct verb {
    const char* name;
    const char* help;       // one line
    const char* more_help;  // further lines for its own --help; may be empty
    unsigned takes;
    double seconds;                            // of --for, when it is not given
    int (*run)(context&, const request&);      // from the command line; nullptr: only in lines
    void (*answer)(context&, const request&);  // from a line; nullptr: only on the command line
};

struct command_line {
    settings global;
    request asked;
};

// The exit status stands for a command line that leaves nothing to run: help, or wrong usage, both
// of which have been printed.
std::variant<command_line, int> parse_command_line(std::span<const verb> verbs, int argc,
                                                   const char* const* argv);

// The text says what is wrong with the line. A blank line is a request without a verb.
std::variant<request, std::string> parse_line(std::span<const verb> verbs, const std::string& line);

// The answer to "help".
std::string lines_help(std::span<const verb> verbs);

}  // namespace qnmctl
