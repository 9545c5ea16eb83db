// Defines the shared options, each once.
#include "cli/options.h"

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iterator>

namespace qnmctl {

namespace {

constexpr const char* kind_words[] = {"qnsv", "qnio"};
constexpr const char* level_words[] = {"fatal", "error", "warn", "info", "debug", "trace"};
constexpr const char* form_words[] = {"text", "json", "jsonl", "dot"};
constexpr std::size_t forms_without_graph = 3;
constexpr limits group_limits = {.least = 1, .most = 4094};

value port_list(std::vector<std::string>& target) {
    return {[&target](const std::string& word) -> refusal {
                target = split(word, ",");
                if (target.empty()) return "no interface named";
                return std::nullopt;
            },
            offers::interfaces};
}

value setting_list(std::vector<std::string>& target) {
    return {.take = [&target](const std::string& word) -> refusal {
                target.push_back(word);
                return std::nullopt;
            },
            .repeatable = true};
}

value directory_name(std::string& target) {
    value taken = any_text(target);
    taken.offered = offers::directories;
    return taken;
}

void add_form(command& to, std::size_t count, const char* help) {
    if (to.tree.use == used_for::lines) return;
    add_option(to, {"-o,--output", "FORM", help},
               choice(to.form, std::span(form_words).first(count)));
    const output_form short_form =
        to.streams ? output_form::json_lines : output_form::json_document;
    to.app.add_flag_callback(
        "--json", [&to, short_form] { to.form = short_form; },
        to.streams ? "Short for -o jsonl" : "Short for -o json");
}

}  // namespace

void add_globals(command_tree& tree) {
    command& root = tree.root;
    settings& global = tree.global;
    add_option(root,
               {"--dir", "DIR",
                "Installation directory, the one that holds conf (default: /opt/tarvo/qnm)"},
               directory_name(global.dir));
    add_option(root,
               {"--ports", "IF0[,IF1]",
                "Interfaces of port 0 and 1, in place of an installation's configuration (default: "
                "$QNMCTL_PORTS)"},
               port_list(global.ports));
    add_option(root, {"--set", "KEY=VALUE", "With --ports: a further key of qnm.conf; repeatable"},
               setting_list(global.keys));
    add_option(root,
               {"--log", "FILE", "File that the library's log is added to (default: none is kept)"},
               file_name(global.log));
    add_flag(root, "--keep-logs", "Keep the folder with the library's logs, and say where it is",
             global.keep_logs);
    add_option(
        root,
        {"--log-level", "LEVEL", "How much is logged: fatal, error, warn, info, debug or trace"},
        choice(global.log_level, level_words));
}

// Checked here, because the parser would add a line to the help for each such rule.
refusal wrong_globals(const settings& global) {
    if (!global.ports.empty() && !global.dir.empty()) return "--ports and --dir exclude each other";
    if (!global.keys.empty() && global.ports.empty()) return "--set requires --ports";
    return wrong_settings(global);
}

void take_default_ports(settings& global) {
    static constexpr char variable[] = "QNMCTL_PORTS";
    const char* const ports = std::getenv(variable);
    if (ports == nullptr || !global.ports.empty() || !global.dir.empty()) return;
    global.ports = split(ports, ",");
    if (global.ports.empty() && *ports != '\0') global.ports = {ports};  // refused later
    global.ports_from = variable;
}

void add_card(command& to, std::uint64_t& id) {
    add_operand(to, "ID", id_help, card_id(id));
}

void add_cards(command& to, selection& cards) {
    to.cards = &cards;
    add_flag(to, "--all", "All known cards", cards.all);
    add_kind_and_group(to, cards);
    CLI::Option* const ids = to.app.add_option("ID", to.words, id_help)->type_name("");
    to.tree.values.emplace(ids, card_ids(cards.ids));
}

void add_card_option(command& to, std::vector<std::uint64_t>& ids) {
    add_option(to, {"--card", "ID", "Only this card; repeatable"}, card_ids(ids));
}

void add_kind_and_group(command& to, selection& cards) {
    add_option(to, {"--kind", "KIND", "Only cards of this kind, qnsv or qnio"},
               choice(cards.kind, kind_words));
    add_option(to, {"--group", "VLANID", "Only cards of this group, which is their VLAN ID"},
               number(cards.group, group_limits));
}

void add_card_filter(command& to, selection& cards) {
    add_card_option(to, cards.ids);
    add_kind_and_group(to, cards);
}

void add_seconds(command& to, double& target, const char* help) {
    if (to.tree.use == used_for::lines) return;
    const std::string otherwise = target == 0
                                      ? "without limit if not given"
                                      : std::to_string(static_cast<int>(target)) + " if not given";
    add_option(to, {"--for", "SECONDS", std::string(help) + ", " + otherwise}, seconds(target));
}

void add_count(command& to, std::uint64_t& target, const char* help) {
    if (to.tree.use == used_for::lines) return;
    add_option(to, {"--count", "N", help}, number(target, {.least = 1, .most = UINT64_MAX}));
}

void add_output(command& to) {
    add_form(to, forms_without_graph,
             "text (default), json: one document, or jsonl: one object a line");
}

void add_output_with_graph(command& to) {
    add_form(to, std::size(form_words),
             "text (default), json: one document, jsonl: one object a line, or dot: for Graphviz");
}

std::span<const char* const> log_level_words() {
    return level_words;
}

const char* level_word(qnm_log_level_t level) {
    const bool known = level >= 0 && level < static_cast<int>(std::size(level_words));
    return known ? level_words[level] : "none";
}

}  // namespace qnmctl
