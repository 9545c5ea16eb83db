// watch: prints events as they occur, until it is ended.
#include <array>

#include "cards/commands.h"
#include "cli/options.h"
#include "installation/config_file.h"
#include "manager/listen.h"

namespace qnmctl {

namespace {

constexpr char watch_help[] =
    "Text begins with a summary of the cards heard in the first seconds. A port whose link goes\n"
    "down or comes back is one line with the number of its cards, and what several events\n"
    "report is printed once. With --all, --event or --count there is a line for each event; in\n"
    "JSON there always is a record for each. The line of an event has the local time, the\n"
    "event, kind and ID of the card, and what changed, from what to what, with the reason:\n"
    "announced, expired after so long a silence, link down on a port, stopped or restarted by\n"
    "the operator. With several filters an event has to pass all of them. A card passes --kind\n"
    "and --group by its record before or after the event, so the event in which it leaves a\n"
    "group is printed too. Ends at Ctrl-C, SIGTERM, or when its reader has gone. While it runs,\n"
    "lines on standard input are commands, on cards already heard: \"help\" lists them, \"quit\"\n"
    "ends it, the end of standard input does not.";

constexpr example watch_examples[] = {
    {"qnmctl watch", "What happens to the cards from now on"},
    {"qnmctl watch --group 10 --event CHANNELSTATECHANGE", "Paths lost and found in a group"},
    {"qnmctl watch --for 60 -o jsonl", "A minute of events for a script"},
};

struct watch_options {
    event_filter filter = {};
    double seconds = 0;
    std::uint64_t count = 0;
    bool all = false;
    bool verbose = false;
};

const auto event_words = [] {
    std::array<const char*, QNM_EVT_MAX + 1> words{};
    for (int type = 0; type < QNM_EVT_MAX; ++type) {
        words.at(type) = qnm_event_name(static_cast<qnm_evt_type_t>(type));
    }
    words.back() = monitor_event;
    return words;
}();

// A user who counts events, or selects some, wants each of them.
bool is_digested(const watch_options& options) {
    return !options.all && options.count == 0 && options.filter.events.empty();
}

int run_watch(context& with, const watch_options& options) {
    with.filter = options.filter;
    start(with);
    if (with.results.is_text() && is_digested(options)) {
        with.digested.emplace(
            digest_options{.each_card = options.verbose,
                           .ports = configured_ports(read_config(with.running().config())),
                           .coloured = with.how.coloured},
            digest::clock::now());
    }
    listen_and_tell(with, options.seconds, options.count);
    return exit_ok;
}

}  // namespace

void define_watch(command_tree& tree) {
    if (tree.use == used_for::lines) return;
    const auto watch = add_command_with<watch_options>(
        tree,
        {"watch", "Prints events as they occur, with the reason", watch_help, watch_examples});
    watch.self.streams = watch.self.endless = true;
    add_card_filter(watch.self, watch.options.filter.cards);
    add_option(watch.self, {"--event", "EVENT", "Only events of this name; repeatable"},
               some_of(watch.options.filter.events, event_words));
    add_flag(watch.self, "-a,--all", "A line for every event from the start", watch.options.all);
    add_flag(watch.self, "-v,--verbose", "The cards of a port that goes down as well",
             watch.options.verbose);
    add_seconds(watch.self, watch.options.seconds);
    add_count(watch.self, watch.options.count, "End after this many events");
    add_output(watch.self);
    set_run(watch, run_watch);
}

}  // namespace qnmctl
