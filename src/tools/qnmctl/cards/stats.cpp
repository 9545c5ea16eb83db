// stats: the manager's status dump.
#include <nlohmann/json.hpp>

#include "cards/card_text.h"
#include "cards/commands.h"
#include "cli/options.h"
#include "manager/listen.h"

namespace qnmctl {

namespace {

constexpr char stats_help[] =
    "Prints what a manager writes into its statistics log, here of the manager in this process. A\n"
    "host program's dumps are in the file that qnm_log4c.properties names for the logger\n"
    "statslogfile. In the dump's table of cards G-ID is the VLAN ID, VER the version plus 1 (list\n"
    "and show have the version itself), CONNECT the paths P0M0, P0M1, P1M0 and P1M1 (C connected,\n"
    "D disconnected or never heard), IG-STATE the monitoring (WATCH: monitored, IGNORE: stopped,\n"
    "RESTART: restarted, not heard since), VLAN MODE the VLAN mode, and R-ID the resource ID.\n"
    "JSON has all numbers under names.";

constexpr example stats_examples[] = {
    {"qnmctl stats", "The status dump after 3 seconds"},
    {"qnmctl stats -o json", "Its numbers for a script"},
};

struct stats_options {
    bool verbose = false;
    double seconds = 3;
};

void answer_stats(context& with, const stats_options& options) {
    const installation& running = with.running();
    const log_mark before(running.stats);
    const qnm_api_code_t code = qnm_stdump(options.verbose ? 1 : 0);
    if (code != QNM_API_SUCCESS) throw failed_call("qnm_stdump", code);
    const std::string dump = before.text_since();
    if (dump.empty()) throw error("the status dump was not written to " + running.stats.string());
    const bool kept = running.wanted.folder == at_the_end::kept;
    with.results.text(dump);
    with.results.record("stats", stats_json(dump, kept ? running.stats.string() : ""));
}

int run_stats(context& with, const stats_options& options) {
    start(with);
    listen(with, {.seconds = options.seconds});
    answer_stats(with, options);
    return exit_ok;
}

}  // namespace

void define_stats(command_tree& tree) {
    const auto stats = add_command_with<stats_options>(
        tree, {"stats", "Prints the manager's status dump", stats_help, stats_examples});
    add_flag(stats.self, "-v,--verbose", "Every field of every card, results per call",
             stats.options.verbose);
    add_seconds(stats.self, stats.options.seconds);
    add_output(stats.self);
    set_run(stats, run_stats);
    set_answer(stats, answer_stats);
}

}  // namespace qnmctl
