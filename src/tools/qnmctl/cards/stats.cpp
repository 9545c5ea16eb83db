// stats: the manager's status dump.
#include <nlohmann/json.hpp>

#include "cards/card_text.h"
#include "cards/commands.h"
#include "cli/options.h"
#include "manager/listen.h"

namespace qnmctl {

namespace {

constexpr char stats_help[] =
    "The one that a manager writes into its statistics log, here of the manager in this very\n"
    "process. A host program's own is in the file that qnm_log4c.properties names for the logger\n"
    "statslogfile.";

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
    const bool kept = running.wanted.folder == at_the_end::kept;
    with.told.text(dump);
    with.told.record("stats", stats_json(dump, kept ? running.stats.string() : ""));
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
        tree, {"stats", "Prints the manager's status dump", stats_help});
    add_flag(stats.self, "-v,--verbose", "Every field of every card, results per call",
             stats.options.verbose);
    add_seconds(stats.self, stats.options.seconds);
    add_output(stats.self);
    set_run(stats, run_stats);
    set_answer(stats, answer_stats);
}

}  // namespace qnmctl
