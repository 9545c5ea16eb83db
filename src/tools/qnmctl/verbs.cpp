// What the verbs do.
//
// Everything is done by the main thread, which waits for events, lines of standard input and
// signals at once, so that no two texts can mix. From the command line a verb starts the manager,
// listens, and answers; from a line it only answers, by the same function.
#include "verbs.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iterator>
#include <string>

#include "config_file.h"
#include "report.h"
#include "start.h"
#include "text.h"

namespace qnmctl {

namespace {

using clock = std::chrono::steady_clock;

// How long to listen, and what to do meanwhile.
struct listening {
    double seconds = 0;                      // 0: without limit
    std::uint64_t count = 0;                 // events told; 0: without limit
    bool tells = false;                      // events are printed
    bool takes_lines = false;                // from standard input
    std::function<bool()> enough = nullptr;  // asked after each batch of events
};

// ---- Texts --------------------------------------------------------------------------------------

void print_json(context& with, const json& object) {
    with.out.write(object.dump(-1, ' ', false, json::error_handler_t::replace) + '\n');
}

void print_error(const std::string& text) {
    std::fputs(message_text(text).c_str(), stderr);
}

void tell_event(context& with, const observed& seen) {
    if (with.as_json) {
        print_json(with, event_json(seen, with.known));
    } else {
        with.out.write(event_line(seen, with.known, with.coloured) + '\n');
    }
}

// ---- Lines --------------------------------------------------------------------------------------

void answer_line(context& with, const std::string& line) {
    const std::variant<request, std::string> parsed = parse_line(verbs, line);
    if (const auto* wrong = std::get_if<std::string>(&parsed)) return print_error(*wrong);
    const auto& asked = std::get<request>(parsed);
    if (asked.asked == nullptr) return;
    try {
        asked.asked->answer(with, asked);
    } catch (const error& e) {
        print_error(e.what());
    }
}

// Reads what there is and answers the lines that are whole; false at the end of standard input.
bool answer_input(context& with, std::string& pending) {
    char chunk[4096];
    const ssize_t length = read(STDIN_FILENO, chunk, sizeof chunk);
    if (length < 0 && (errno == EINTR || errno == EAGAIN)) return true;
    if (length > 0)
        pending.append(chunk, static_cast<std::size_t>(length));
    else if (!pending.empty())
        pending += '\n';  // a last line without its end
    for (std::size_t end = 0; !with.quit && (end = pending.find('\n')) != std::string::npos;) {
        const std::string line = pending.substr(0, end);
        pending.erase(0, end + 1);
        answer_line(with, line);
    }
    return length > 0;
}

// ---- Listening ----------------------------------------------------------------------------------

// Prints what has been queued, up to the wanted number; false when that is reached.
bool tell_events(context& with, const listening& how, std::uint64_t& told) {
    const session::batch batch = with.manager->take();
    if (how.tells && batch.lost != 0) {
        print_error(std::to_string(batch.lost) + " events lost, the output is too slow");
    }
    for (const observed& seen : batch.events) {
        if (!how.tells) break;
        tell_event(with, seen);
        if (++told == how.count) return false;
    }
    return !how.enough || !how.enough();
}

void check_running(const context& with) {
    const auto ended = with.manager->result();
    if (!ended) return;
    std::string text = std::string("the manager has ended: ") + code_name(*ended);
    const std::string log = with.where.temporary
                                ? with.where.log.string()
                                : file_of_logger(read_text(with.where.properties()), "logfile");
    if (!log.empty()) text += "\nIts log is " + log;
    throw error(text);
}

int milliseconds_until(clock::time_point deadline) {
    if (deadline == clock::time_point::max()) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - clock::now());
    return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 60'000));
}

clock::time_point deadline_after(double seconds) {
    if (seconds == 0) return clock::time_point::max();
    return clock::now() +
           std::chrono::duration_cast<clock::duration>(std::chrono::duration<double>(seconds));
}

// Until time, number, signal, "quit" or the end of the reader. Throws error when the manager ends.
void listen(context& with, const listening& how) {
    enum { signal, wake, out, input };
    pollfd waited[] = {{with.signals, POLLIN, 0},
                       {with.manager->wake_fd(), POLLIN, 0},
                       {with.out.fd(), 0, 0},  // only that its reader has gone
                       {how.takes_lines ? STDIN_FILENO : -1, POLLIN, 0}};
    const clock::time_point deadline = deadline_after(how.seconds);
    std::string pending;
    std::uint64_t told = 0;
    while (!with.quit && !with.out.closed() && clock::now() < deadline) {
        if (poll(waited, std::size(waited), milliseconds_until(deadline)) < 0) {
            if (errno == EINTR) continue;
            throw error(std::string("cannot wait: ") + std::strerror(errno));
        }
        if (waited[signal].revents != 0 || (waited[out].revents & POLLERR) != 0) return;
        if (waited[wake].revents != 0) {
            if (!tell_events(with, how, told)) return;
            check_running(with);
        }
        if (waited[input].revents != 0 && !answer_input(with, pending)) waited[input].fd = -1;
    }
}

void start(context& with, const request& asked) {
    with.as_json = asked.as_json;
    with.manager = start_manager(with.where, with.log_level);
}

// ---- watch --------------------------------------------------------------------------------------

void listen_and_tell(context& with, const request& asked) {
    if (isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1) {
        std::fputs("watching; \"help\" lists the commands, \"quit\" ends\n", stderr);
    }
    listen(with,
           {.seconds = asked.seconds, .count = asked.count, .tells = true, .takes_lines = true});
}

int run_watch(context& with, const request& asked) {
    start(with, asked);
    listen_and_tell(with, asked);
    return exit_ok;
}

// ---- list ---------------------------------------------------------------------------------------

void answer_list(context& with, const request&) {
    const std::vector<card> cards = read_cards();
    if (with.as_json) {
        print_json(with, {{"cards", table_json(cards)}});
    } else {
        with.out.write(table_text(cards, with.coloured));
    }
}

int run_list(context& with, const request& asked) {
    start(with, asked);
    listen(with, {.seconds = asked.seconds});
    if (with.as_json) {
        with.out.write(table_json(read_cards()).dump(2) + '\n');
    } else {
        answer_list(with, asked);
    }
    return exit_ok;
}

// ---- show ---------------------------------------------------------------------------------------

void answer_show(context& with, const request& asked) {
    const std::optional<card> known = read_card(asked.id);
    if (!known) {
        throw error("no card " + id_text(asked.id) +
                    " has been heard\n\"list\" shows the cards that are.");
    }
    if (with.as_json) {
        print_json(with, card_json(*known));
    } else {
        with.out.write(card_text(*known, with.coloured));
    }
}

int run_show(context& with, const request& asked) {
    start(with, asked);
    listen(with, {.seconds = asked.seconds,
                  .enough = [&asked] { return read_card(asked.id).has_value(); }});
    answer_show(with, asked);
    return exit_ok;
}

// ---- stats --------------------------------------------------------------------------------------

void print_dump(context& with, const std::string& dump) {
    if (with.as_json) {
        print_json(with, {{"stats", dump}});
    } else {
        with.out.write(dump);
    }
}

// Of an operator's installation the dump is in a log of his; it may hold anything else, too.
void tell_dump_place(context& with) {
    const std::string properties = with.where.properties().string();
    const std::string file = file_of_logger(read_text(properties), "statslogfile");
    const std::string place =
        file.empty() ? "where " + properties + " sends the logger statslogfile" : "to " + file;
    print_dump(with, "The status dump was written " + place + '\n');
}

void answer_stats(context& with, const request& asked) {
    const std::size_t before = with.where.temporary ? read_text(with.where.stats).size() : 0;
    const qnm_api_code_t code = qnm_stdump(asked.verbose ? 1 : 0);
    if (code != QNM_API_SUCCESS) throw failed_call("qnm_stdump", code);
    if (!with.where.temporary) return tell_dump_place(with);
    print_dump(with, read_text(with.where.stats).substr(before));
}

int run_stats(context& with, const request& asked) {
    start(with, asked);
    listen(with, {.seconds = asked.seconds});
    answer_stats(with, asked);
    return exit_ok;
}

// ---- monitor ------------------------------------------------------------------------------------

struct monitor_words {
    const char* name;
    const char* call_name;
    qnm_api_code_t (*call)(std::uint64_t);
    const char* meaning;
};

// Indexed by monitor_action.
constexpr monitor_words monitor_calls[] = {
    {"stop", "qnm_stop_monitor", qnm_stop_monitor,
     "its announcements are dropped until monitoring is restarted"},
    {"restart", "qnm_restart_monitor", qnm_restart_monitor,
     "its next announcement brings its record up to date"},
};

void answer_monitor(context& with, const request& asked) {
    const monitor_words& words = monitor_calls[static_cast<std::size_t>(asked.action)];
    const qnm_api_code_t code = words.call(asked.id);
    if (code != QNM_API_SUCCESS) throw failed_call(words.call_name, code);
    if (with.as_json) {
        print_json(
            with,
            {{"monitor", words.name}, {"id", id_text(asked.id)}, {"result", code_name(code)}});
    } else {
        with.out.write(std::string("monitor ") + words.name + ' ' + id_text(asked.id) + ": " +
                       code_name(code) + ", " + words.meaning + '\n');
    }
}

int run_monitor(context& with, const request& asked) {
    start(with, asked);
    answer_monitor(with, asked);
    listen_and_tell(with, asked);
    return exit_ok;
}

// ---- Lines only ---------------------------------------------------------------------------------

void answer_help(context& with, const request&) {
    const std::string help = lines_help(verbs);
    if (with.as_json) {
        print_json(with, {{"help", help}});
    } else {
        with.out.write(help);
    }
}

void answer_quit(context& with, const request&) {
    with.quit = true;
}

constexpr unsigned takes_limits = takes_for | takes_count;

constexpr char watch_help[] =
    "One line for every event: local time, event, kind and ID of the card, what changed. Ends at\n"
    "Ctrl-C, SIGTERM, or when its reader has gone. While it runs, lines on standard input are\n"
    "commands: list, show ID, stats [-v], monitor stop|restart ID, help, quit. Their end does not\n"
    "end it.";

constexpr char list_help[] =
    "C under a path (P local port, M path on the card) is connected, D disconnected.";

constexpr char stats_help[] =
    "With --ports the dump is printed. With --dir it goes where the operator's\n"
    "qnm_log4c.properties sends the logger statslogfile, and that place is printed.";

constexpr char monitor_help[] =
    "Monitoring is controlled in a running manager, and the manager runs in this very process. So\n"
    "the command goes on like watch, and when it ends, the stop ends with it. In a running watch,\n"
    "the lines \"monitor stop ID\" and \"monitor restart ID\" do the same.";

constexpr verb table[] = {
    {"watch", "Tells events as they come", watch_help, takes_json | takes_limits, 0, run_watch,
     nullptr},
    {"list", "Lists the known cards", list_help, takes_json | takes_for, 3, run_list, answer_list},
    {"show", "Prints every field of a card, as soon as it is known", "",
     takes_id | takes_json | takes_for, 10, run_show, answer_show},
    {"stats", "Prints the manager's status dump", stats_help,
     takes_verbose | takes_json | takes_for, 3, run_stats, answer_stats},
    {"monitor", "Stops or restarts the monitoring of a card", monitor_help,
     takes_action | takes_id | takes_json | takes_limits, 0, run_monitor, answer_monitor},
    {"help", "Lists these commands", "", takes_nothing, 0, nullptr, answer_help},
    {"quit", "Ends", "", takes_nothing, 0, nullptr, answer_quit},
};

}  // namespace

const std::span<const verb> verbs = table;

}  // namespace qnmctl
