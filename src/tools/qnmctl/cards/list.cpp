// list: the table of known cards.
#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>

#include "cards/arrangement.h"
#include "cards/card_text.h"
#include "cards/commands.h"
#include "cli/options.h"
#include "doctor/findings_text.h"
#include "manager/listen.h"

namespace qnmctl {

namespace {

constexpr char list_help[] =
    "VLAN is the card's VLAN ID, VER its version, MODE its VLAN mode, R-ID the resource ID of a\n"
    "QNIO card, and TROUBLE what the card announces of itself: link faults, power off, the\n"
    "interrupt vector. A narrow terminal gets the columns that matter most. The paths are named\n"
    "by local port P and path M on the card: C connected, D disconnected, - never heard. On a\n"
    "terminal a card without any path is red, one that has lost a path or announces an error\n"
    "yellow, and a table that is longer than the terminal goes through $PAGER. \"heard\" sorts by\n"
    "the time since a card was heard, the longest first.\n"
    "If no card is heard, the problems that doctor finds are printed, and the exit status is 5.";

constexpr example list_examples[] = {
    {"qnmctl list", "All cards that are heard within 3 seconds"},
    {"qnmctl list --for 10 --state disconnected", "Those that fall silent within 10 seconds"},
    {"qnmctl list --kind qnio --sort heard --reverse", "QNIO cards, the last heard first"},
};

struct list_options {
    card_filter filter = {};
    card_order order = card_order::id;
    bool reversed = false;
    double seconds = 3;
};

std::string list_text(const std::vector<card>& shown, std::size_t known, const context& with) {
    return cards_text(shown, with.how) + count_text(shown, known);
}

std::vector<card> chosen(const std::vector<card>& known, const list_options& options) {
    return arranged(known, options.filter, options.order, options.reversed,
                    std::chrono::system_clock::now());
}

void tell_cards(context& with, const std::vector<card>& cards) {
    for (const card& record : cards)
        with.results.record("card", card_json(record));
}

void answer_list(context& with, const list_options& options) {
    const std::vector<card> known = read_cards();
    const std::vector<card> cards = chosen(known, options);
    with.results.text(list_text(cards, known.size(), with) + '\n');
    tell_cards(with, cards);
}

// The manager is stopped before, so that doctor does not take it for somebody else's.
[[noreturn]] void fail_without_cards(context& with, const std::string& listened) {
    with.manager.reset();
    std::string text = "no card was heard within " + listened;
    std::string hints;
    for (const finding& found :
         examine(all_checks(), inspect_system(with.where, tshark_use::left_alone))) {
        if (found.rank < severity::warning) continue;
        hints += '\n' + (found.about.empty() ? "" : found.about + ' ') + found.text;
        if (!found.remedy.empty()) hints += "\n  " + found.remedy;
    }
    if (hints.empty()) {
        hints =
            "\nCards announce themselves about every second; --for listens longer. doctor finds "
            "nothing wrong here: look at the cards' power, their cables, and their VLAN.";
    }
    error failure(text + hints);
    failure.status = exit_no_card;
    throw failure;
}

int run_list(context& with, const list_options& options) {
    start(with);
    const auto begin = std::chrono::steady_clock::now();
    listen(with, {.seconds = options.seconds});
    const std::chrono::duration<double> listened = std::chrono::steady_clock::now() - begin;
    const std::vector<card> known = read_cards();
    if (known.empty() && !with.out.closed()) {
        fail_without_cards(with, seconds_text(listened.count()));
    }
    const std::vector<card> cards = chosen(known, options);
    tell_in_pager(with, list_text(cards, known.size(), with) + ", heard within " +
                            seconds_text(listened.count()) +
                            "; slower cards may be missing, --for listens longer\n");
    tell_cards(with, cards);
    return exit_ok;
}

}  // namespace

void define_list(command_tree& tree) {
    const auto list = add_command_with<list_options>(
        tree, {"list", "Lists the known cards", list_help, list_examples});
    list_options& options = list.options;
    add_filter(list.self, options.filter);
    add_option(list.self, {"--sort", "ORDER", "id (default), kind, type, vlan, paths or heard"},
               choice(options.order, card_order_words));
    add_flag(list.self, "--reverse", "Reverse the order", options.reversed);
    add_seconds(list.self, options.seconds);
    add_output(list.self);
    set_run(list, run_list);
    set_answer(list, answer_list);
}

}  // namespace qnmctl
