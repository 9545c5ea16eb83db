// Adds commands and options to the parser's tree.
#include "cli/command.h"

#include <CLI/CLI.hpp>
#include <utility>

namespace qnmctl {

namespace {

constexpr char commands_heading[] = "Commands";

// The App to add a command to: its group's, or the root.
CLI::App& parent_of(command_tree& tree, const std::vector<std::string>& words) {
    return words.size() > 1 ? *tree.app->get_subcommand(words.front()) : *tree.app;
}

CLI::App& add_app(CLI::App& parent, const std::string& name, const std::string& help) {
    CLI::App& added = *parent.add_subcommand(name, help);
    added.group(commands_heading);
    added.fallthrough();
    return added;
}

// The last of an option's names: "--output" of "-o,--output".
std::string last_name(const char* names) {
    return split(names, ",").back();
}

// What follows the options in a command's --help.
std::string footer(const command_texts& texts) {
    std::string text = texts.more_help;
    if (texts.examples.empty()) return text;
    text += text.empty() ? "Examples:" : "\n\nExamples:";
    for (const example& shown : texts.examples)
        text += std::string("\n  ") + shown.command + "\n      " + shown.meaning;
    return text;
}

CLI::Option& add_taking(command& to, const std::string& names, const std::string& help,
                        const value& taken) {
    const std::string name = last_name(names.c_str());
    if (!taken.repeatable) {
        return *to.app.add_option_function<std::string>(
            names, [name, taken](const std::string& word) { take_word(name, taken, word); }, help);
    }
    const auto take_all = [name, taken](const std::vector<std::string>& words) {
        for (const std::string& word : words)
            take_word(name, taken, word);
    };
    return *to.app.add_option_function<std::vector<std::string>>(names, take_all, help)
                ->allow_extra_args(false);
}

}  // namespace

void take_word(const std::string& name, const value& taken, const std::string& word) {
    if (const auto wrong = refused(taken, word)) throw CLI::ValidationError(name, *wrong);
}

command_tree::command_tree(used_for purpose)
    : use(purpose),
      app(std::make_unique<CLI::App>()),
      root{.tree = *this, .app = *app, .name = ""} {
    app->set_version_flag("--version", "qnmctl " QNMCTL_VERSION);
    app->get_formatter()->label("SUBCOMMAND", "COMMAND");
    app->get_formatter()->column_width(32);
    if (use == used_for::lines) app->set_help_flag();
}

command_tree::~command_tree() = default;

void add_group(command_tree& tree, const char* name, const char* help) {
    add_app(*tree.app, name, help).require_subcommand(1);
}

command& add_command(command_tree& tree, const command_texts& texts) {
    const std::vector<std::string> words = split(texts.name, " ");
    CLI::App& app = add_app(parent_of(tree, words), words.back(), texts.help);
    app.footer(footer(texts));
    tree.commands.push_back({.tree = tree,
                             .app = app,
                             .name = texts.name,
                             .more_help = texts.more_help,
                             .examples = texts.examples});
    return tree.commands.back();
}

CLI::App* find_app(CLI::App& parent, const std::string& name) {
    const auto named =
        parent.get_subcommands([&](CLI::App* app) { return app->get_name() == name; });
    return named.empty() ? nullptr : named.front();
}

void hide(command& verb) {
    verb.hidden = true;
    verb.app.group("");
}

void refuse_on_command_line(command_tree& tree, const command_texts& texts) {
    command& added = add_command(tree, texts);
    hide(added);
    added.app.fallthrough(false)->prefix_command();  // takes whatever follows
    added.run = [name = std::string(texts.name)](context&) -> int {
        throw usage_error('"' + name +
                          "\" is a line of watch, not a command: it steers the manager " +
                          "that watch runs\nStart qnmctl watch and type the line there.");
    };
}

void add_option(command& to, const option_texts& texts, value taken) {
    CLI::Option& added = add_taking(to, texts.names, texts.help, taken);
    added.type_name(texts.value);
    to.tree.values.emplace(&added, std::move(taken));
}

void add_flag(command& to, const char* names, const char* help, bool& target) {
    to.app.add_flag_callback(
        names, [&target] { target = true; }, help);
}

void add_flag(command& to, const char* names, const char* help, std::uint32_t& flags,
              std::uint32_t bit) {
    to.app.add_flag_callback(
        names, [&flags, bit] { flags |= bit; }, help);
}

// Where several IDs can stand, the operands are parsed together with them, and the parser knows
// them for the help only.
void add_operand(command& to, const char* name, const char* help, value taken, presence needed) {
    const bool behind_cards = to.cards != nullptr;
    CLI::Option& added = behind_cards ? *to.app.add_option_function<std::string>(
                                            name, [](const std::string&) {}, help)
                                      : add_taking(to, name, help, taken);
    added.type_name("")->required(needed == presence::required && !behind_cards);
    to.tree.values.emplace(&added, taken);
    if (behind_cards) to.operands.push_back({name, std::move(taken)});
}

void add_rest(command& to, const char* name, std::vector<std::string>& target) {
    CLI::Option* const added = to.app.add_option(name, target)->type_name("");
    to.tree.values.emplace(added, value{.take = nullptr, .repeatable = true});
}

}  // namespace qnmctl
