// list: the table of known cards.
#include "cards/card_text.h"
#include "cards/commands.h"
#include "cli/options.h"
#include "manager/listen.h"

namespace qnmctl {

namespace {

constexpr char list_help[] =
    "VER is the card's version, MODE its VLAN mode, R-ID the resource ID of a QNIO card. A "
    "terminal\n"
    "that is too narrow gets the columns that matter most. Under a path, by local port P and path "
    "M\n"
    "on the card: C connected, D lost, - never heard.";

struct list_options {
    double seconds = 3;
};

void answer_list(context& with, const list_options&) {
    const std::vector<card> cards = read_cards();
    if (with.told.is_text()) return with.told.text(cards_text(cards, with.how));
    for (const card& known : cards)
        with.told.record("card", card_json(known));
}

int run_list(context& with, const list_options& options) {
    start(with);
    listen(with, {.seconds = options.seconds});
    answer_list(with, options);
    return exit_ok;
}

}  // namespace

void define_list(command_tree& tree) {
    const auto list =
        add_command_with<list_options>(tree, {"list", "Lists the known cards", list_help});
    add_seconds(list.self, list.options.seconds);
    add_output(list.self);
    set_run(list, run_list);
    set_answer(list, answer_list);
}

}  // namespace qnmctl
