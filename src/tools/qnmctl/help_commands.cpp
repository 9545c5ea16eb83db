// Implements completion, with the hidden command that its scripts call, the manual page, and the
// lines "help" and "quit".
#include "help_commands.h"

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "cards/card_text.h"
#include "cli/command_line.h"
#include "cli/completion.h"
#include "cli/man_page.h"
#include "cli/options.h"
#include "manager/listen.h"
#include "manager/start.h"
#include "output/text.h"

namespace qnmctl {

namespace {

// Long enough to hear an announcement of every card, short enough for somebody at a prompt.
constexpr double seconds_at_a_prompt = 1.2;

constexpr char quick_stop[] = "devinfo_flag_check_interval=10";

std::filesystem::path dir_of(const settings& chosen) {
    return chosen.dir.empty() ? default_dir : chosen.dir;
}

// With the global options of the line, but without logs that would stay.
void install_to_look(settings chosen, installation& result) {
    chosen.log.clear();
    chosen.keep_logs = false;
    const auto same_key = [](const std::string& setting) {
        return split(setting, "=").front() == split(quick_stop, "=").front();
    };
    if (std::none_of(chosen.keys.begin(), chosen.keys.end(), same_key)) {
        chosen.keys.emplace_back(quick_stop);
    }
    install(chosen, result);
}

std::vector<candidate> heard_cards(const context& with, const settings& chosen) {
    if (chosen.ports.empty() && !std::filesystem::is_directory(dir_of(chosen))) return {};
    installation where;
    install_to_look(chosen, where);
    context own{.define = with.define,
                .where = where,
                .log_level = QNM_LOGLVL_NONE,
                .out = with.out,
                .results = with.results,
                .signals = with.signals,
                .how = {}};
    start(own);
    listen(own, {.seconds = seconds_at_a_prompt});
    std::vector<candidate> found;
    for (const card& record : read_cards()) {
        found.push_back(
            {id_text(common(record).ecd_id), std::string(kind_text(record)) + " card of group " +
                                                 std::to_string(common(record).ecd_vlan_id)});
    }
    return found;
}

constexpr char completion_help[] =
    "\"source <(qnmctl completion bash)\" switches it on for a running shell; packages install it\n"
    "for all. Card IDs are completed, too: the cards that can be heard within a second are\n"
    "offered, by --ports or --dir where they stand on the line. The shell's user needs\n"
    "CAP_NET_RAW for that: sudo setcap cap_net_raw+ep $(command -v qnmctl).";

constexpr example completion_examples[] = {
    {"source <(qnmctl completion bash)", "Completion in this shell"},
};

constexpr const char* shell_words[] = {"bash", "zsh"};

struct completion_options {
    std::string shell = {};
};

int run_completion(context& with, const completion_options& options) {
    const std::string script = completion_script(options.shell);
    with.results.text(script);
    with.results.record("script", {{"shell", options.shell}, {"text", script}});
    return exit_ok;
}

struct complete_options {
    std::vector<std::string> words = {};
};

// Without a manager, for lack of a privilege for example, there are no cards to offer. Nothing is
// printed, because nobody would see it.
int run_complete(context& with, const complete_options& options) {
    const auto cards = [&](const settings& chosen) -> std::vector<candidate> {
        try {
            return heard_cards(with, chosen);
        } catch (const error&) {
            return {};
        }
    };
    command_tree tree(used_for::command_line);
    with.define(tree);
    with.results.text(candidates_text(complete(tree, options.words, cards)));
    return exit_ok;
}

struct no_options {};

int run_man_page(context& with, const no_options&) {
    command_tree tree(used_for::command_line);
    command_tree lines(used_for::lines);
    with.define(tree);
    with.define(lines);
    with.results.text(man_page(tree, lines));
    return exit_ok;
}

void answer_help(context& with, const no_options&) {
    command_tree tree(used_for::lines);
    with.define(tree);
    const std::string help = lines_help(tree);
    with.results.text(help);
    with.results.record("help", {{"text", help}});
}

void answer_quit(context& with, const no_options&) {
    with.quit = true;
}

void define_completion(command_tree& tree) {
    const auto completion = add_command_with<completion_options>(
        tree, {"completion", "Prints the completion script of a shell", completion_help,
               completion_examples});
    add_operand(completion.self, "SHELL", "bash or zsh",
                one_of(completion.options.shell, shell_words));
    add_output(completion.self);
    set_run(completion, run_completion);

    const auto complete = add_command_with<complete_options>(
        tree, {"complete", "Lists what can come next on a line"});
    hide(complete.self);
    add_rest(complete.self, "WORD", complete.options.words);
    set_run(complete, run_complete);
}

void define_man_page(command_tree& tree) {
    const auto page = add_command_with<no_options>(tree, {"man-page", "Prints the manual page"});
    hide(page.self);
    set_run(page, run_man_page);
}

void define_lines(command_tree& tree) {
    set_answer(add_command_with<no_options>(tree, {"help", "Lists these commands"}), answer_help);
    set_answer(add_command_with<no_options>(tree, {"quit", "Ends"}), answer_quit);
}

}  // namespace

void define_help_commands(command_tree& tree) {
    if (tree.use == used_for::lines) return define_lines(tree);
    define_completion(tree);
    define_man_page(tree);
}

}  // namespace qnmctl
