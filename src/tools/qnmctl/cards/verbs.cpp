// What the verbs do that watch and ask.
//
// From the command line a verb starts the manager, listens, and answers; from a line it only
// answers, by the same function.
#include "cards/verbs.h"

#include <string>

#include "cards/card_text.h"
#include "cards/topology.h"
#include "manager/listen.h"
#include "output/text.h"

namespace qnmctl {

// ---- watch --------------------------------------------------------------------------------------

int run_watch(context& with, const request& asked) {
    start(with);
    listen_and_tell(with, asked);
    return exit_ok;
}

// ---- list ---------------------------------------------------------------------------------------

void answer_list(context& with, const request&) {
    const std::vector<card> cards = read_cards();
    if (with.told.is_text()) return with.told.text(cards_text(cards, with.how));
    for (const card& known : cards)
        with.told.record("card", card_json(known));
}

int run_list(context& with, const request& asked) {
    start(with);
    listen(with, {.seconds = asked.seconds});
    answer_list(with, asked);
    return exit_ok;
}

// ---- show ---------------------------------------------------------------------------------------

void answer_show(context& with, const request& asked) {
    const std::optional<card> known = read_card(asked.id);
    if (!known) {
        throw error(
            "no card " + id_text(asked.id) + " has been heard\n\"list\" shows the cards that are.",
            QNM_API_ENOENT);
    }
    with.told.text(card_text(*known, with.how));
    with.told.record("card", card_json(*known));
}

int run_show(context& with, const request& asked) {
    start(with);
    listen(with, {.seconds = asked.seconds,
                  .enough = [&asked] { return read_card(asked.id).has_value(); }});
    if (with.out.closed()) return exit_ok;  // nobody is left to be told
    if (is_signalled(with) && !read_card(asked.id)) {
        throw error("ended by a signal; the card was not heard by then");
    }
    answer_show(with, asked);
    return exit_ok;
}

// ---- topology -----------------------------------------------------------------------------------

void answer_topology(context& with, const request&) {
    const topology found = make_topology(read_cards());
    if (with.told.form() == output_form::dot) return with.told.text(topology_dot(found));
    with.told.text(topology_text(found, with.how));
    for (const topology_server& one : found.servers)
        with.told.record("qnsv", server_json(one));
    for (const card& one : found.unbound)
        with.told.record("unbound", unbound_json(one));
}

int run_topology(context& with, const request& asked) {
    start(with);
    listen(with, {.seconds = asked.seconds});
    answer_topology(with, asked);
    return exit_ok;
}

// ---- stats --------------------------------------------------------------------------------------

void answer_stats(context& with, const request& asked) {
    const installation& running = with.running();
    const log_mark before(running.stats);
    const qnm_api_code_t code = qnm_stdump(asked.verbose ? 1 : 0);
    if (code != QNM_API_SUCCESS) throw failed_call("qnm_stdump", code);
    const std::string dump = before.text_since();
    const bool kept = running.wanted.folder == at_the_end::kept;
    with.told.text(dump);
    with.told.record("stats", stats_json(dump, kept ? running.stats.string() : ""));
}

int run_stats(context& with, const request& asked) {
    start(with);
    listen(with, {.seconds = asked.seconds});
    answer_stats(with, asked);
    return exit_ok;
}

// ---- monitor ------------------------------------------------------------------------------------

namespace {

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

}  // namespace

void answer_monitor(context& with, const request& asked) {
    const monitor_words& words = monitor_calls[static_cast<std::size_t>(asked.action)];
    const qnm_api_code_t code = words.call(asked.id);
    if (code != QNM_API_SUCCESS) throw failed_call(words.call_name, code);
    with.told.text(std::string("monitor ") + words.name + ' ' + id_text(asked.id) + ": " +
                   code_name(code) + ", " + words.meaning + '\n');
    with.told.record("monitor", monitored_json(words.name, asked.id, code));
    tell_monitor(with, asked.id, asked.action == monitor_action::restart);
}

int run_monitor(context& with, const request& asked) {
    start(with);
    answer_monitor(with, asked);
    listen_and_tell(with, asked);
    return exit_ok;
}

// ---- Lines only ---------------------------------------------------------------------------------

void answer_help(context& with, const request&) {
    const std::string help = lines_help(with.verbs);
    with.told.text(help);
    with.told.record("help", {{"text", help}});
}

void answer_quit(context& with, const request&) {
    with.quit = true;
}

}  // namespace qnmctl
