// show: every field of one card.
#include <nlohmann/json.hpp>

#include "cards/card_text.h"
#include "cards/commands.h"
#include "cli/options.h"
#include "manager/listen.h"

namespace qnmctl {

namespace {

constexpr char show_help[] =
    "Each line has the title of a field, its name in JSON and its value. For a QNSV card the\n"
    "bridge settings and the downstream ports follow the fields that both kinds of cards have.";

constexpr example show_examples[] = {
    {"qnmctl show 0x020000001000", "Every field of a card"},
    {"qnmctl show 02:00:00:00:10:00 -o json",
     "The same for a script, with the ID as a MAC address"},
};

struct show_options {
    std::uint64_t id = 0;
    double seconds = 10;
    bool verbose = false;
};

void answer_show(context& with, const show_options& options) {
    const std::optional<card> known = read_card(options.id);
    if (!known) {
        throw error("no card " + id_text(options.id) +
                        " has been heard\n\"list\" shows the cards that are.",
                    QNM_API_ENOENT);
    }
    with.results.text(
        card_text(*known, with.how, options.verbose ? down_ports::all : down_ports::connected));
    with.results.record("card", card_json(*known));
}

int run_show(context& with, const show_options& options) {
    start(with);
    listen(with, {.seconds = options.seconds,
                  .enough = [&options] { return read_card(options.id).has_value(); }});
    if (with.out.closed()) return exit_ok;  // nobody reads the output
    if (is_signalled(with) && !read_card(options.id)) {
        throw error("ended by a signal; the card was not heard by then");
    }
    answer_show(with, options);
    return exit_ok;
}

}  // namespace

void define_show(command_tree& tree) {
    const auto show = add_command_with<show_options>(
        tree,
        {"show", "Prints every field of a card, as soon as it is known", show_help, show_examples});
    add_card(show.self, show.options.id);
    add_seconds(show.self, show.options.seconds);
    add_flag(show.self, "-v,--verbose", "Downstream ports without a card as well",
             show.options.verbose);
    add_output(show.self);
    set_run(show, run_show);
    set_answer(show, answer_show);
}

}  // namespace qnmctl
