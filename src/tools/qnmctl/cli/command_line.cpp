// Parses command lines. Errors that the parser would describe vaguely are described here.
#include "cli/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>

#include "cli/options.h"
#include "cli/usage.h"
#include "common/nearest.h"
#include "common/standard_files.h"
#include "output/text.h"

namespace qnmctl {

namespace {

// ---- IDs and operands ---------------------------------------------------------------------------

std::string operands_text(const command& verb) {
    std::string text;
    for (const operand& wanted : verb.operands)
        text += ' ' + wanted.name;
    return text;
}

[[noreturn]] void fail_few_words(const command& verb) {
    throw CLI::ValidationError("too few words; the command takes ID..." + operands_text(verb) +
                               ", or no ID if --all, --kind or --group choose the cards");
}

void check_selection(const selection& cards) {
    if (cards.ids.empty() && !cards.by_property()) {
        throw CLI::ValidationError(
            "no card is named; write its ID, or choose by --all, --kind or --group");
    }
    if (!cards.ids.empty() && cards.by_property()) {
        throw CLI::ValidationError("IDs and --all, --kind or --group exclude each other");
    }
}

// The last words are the operands, those before them IDs.
void divide_words(const command& verb) {
    if (verb.cards == nullptr) return;
    const std::size_t least = verb.operands.size() + (verb.cards->by_property() ? 0 : 1);
    if (verb.words.empty() && !verb.cards->by_property()) check_selection(*verb.cards);
    if (verb.words.size() < least) fail_few_words(verb);
    const std::size_t ids = verb.words.size() - verb.operands.size();
    const value id = card_ids(verb.cards->ids);
    for (std::size_t at = 0; at < ids; ++at)
        take_word("ID", id, verb.words[at]);
    for (std::size_t at = 0; at < verb.operands.size(); ++at)
        take_word(verb.operands[at].name, verb.operands[at].taken, verb.words[ids + at]);
    check_selection(*verb.cards);
}

// ---- What is wrong ------------------------------------------------------------------------------

const command* find_command(const command_tree& tree, const CLI::App& app) {
    const auto found =
        std::find_if(tree.commands.begin(), tree.commands.end(),
                     [&](const command& candidate) { return &candidate.app == &app; });
    return found == tree.commands.end() ? nullptr : &*found;
}

std::vector<std::string> shown_names(const command_tree& tree) {
    std::vector<std::string> names;
    for (const command& candidate : tree.commands) {
        if (!candidate.hidden) names.push_back(candidate.name);
    }
    return names;
}

bool is_group(const command_tree& tree, const CLI::App& app) {
    return find_command(tree, app) == nullptr;
}

// `name` is a command, or a group and a command in it.
std::string unknown_command(const command_tree& tree, const std::string& name) {
    std::vector<std::string> names = shown_names(tree);
    if (name.find(' ') == std::string::npos) {
        for (const CLI::App* const app : tree.app->get_subcommands({})) {
            if (is_group(tree, *app)) names.push_back(app->get_name());
        }
    }
    const auto meant = tools::nearest_name(name, names);
    return "unknown command \"" + name + '"' +
           (meant ? "; is \"" + *meant + "\" meant?" : std::string());
}

std::string missing_command(const CLI::App& group) {
    std::vector<std::string> names;
    for (const CLI::App* const app : group.get_subcommands({}))
        names.push_back(app->get_name());
    return "no command of " + group.get_name() + " is given; they are " + join(names, ", ");
}

// What is wrong with words that do not name a command.
std::optional<std::string> wrong_name(const command_tree& tree, const CLI::App& chosen,
                                      const CLI::ParseError& found) {
    const std::string group = &chosen == tree.app.get() ? "" : chosen.get_name() + ' ';
    const std::vector<std::string> left = tree.app->remaining(true);
    if (!left.empty() && left.front().front() != '-') {
        return unknown_command(tree, group + left.front());
    }
    const bool missing = dynamic_cast<const CLI::RequiredError*>(&found) != nullptr;
    return missing ? std::optional(missing_command(chosen)) : std::nullopt;
}

// The parser itself lists left-over words in no certain order.
std::string parser_text(const CLI::App& app, const CLI::ParseError& found) {
    const bool left_over = dynamic_cast<const CLI::ExtrasError*>(&found) != nullptr;
    return left_over ? "not expected: " + join(app.remaining(true), " ") : found.what();
}

CLI::App& chosen_app(CLI::App& app) {
    CLI::App* chosen = &app;
    while (!chosen->get_subcommands().empty())
        chosen = chosen->get_subcommands().front();
    return *chosen;
}

// The help shows operands that are parsed together with the IDs as required, like all others.
void mark_required(command_tree& tree) {
    for (const command& shown : tree.commands) {
        for (const operand& wanted : shown.operands)
            shown.app.get_option(wanted.name)->required();
    }
}

// Prints the requested help or the error; returns the exit status.
int tell_end(command_tree& tree, const CLI::ParseError& found) {
    CLI::App& app = *tree.app;
    const CLI::App& chosen = chosen_app(app);
    std::optional<std::string> wrong;
    if (is_group(tree, chosen)) wrong = wrong_name(tree, chosen, found);
    if (!wrong && found.get_exit_code() != exit_ok) wrong = parser_text(app, found);
    if (wrong) {
        tools::tell(message_text(*wrong + "\nRun with --help for more information."));
        return exit_usage;
    }
    app.require_subcommand(1);  // for the usage line
    mark_required(tree);
    std::ostringstream out, messages;
    const int status = app.exit(found, out, messages);
    tools::tell(messages.str());
    const int written = tools::print(out.str(), "qnmctl", exit_failed);
    return status == exit_ok ? written : status;
}

std::string synopsis(const command& verb) {
    const bool verbose = verb.app.get_option_no_throw("--verbose") != nullptr;
    return verb.name + words_text(verb) + (verbose ? " [-v]" : "");
}

// Whether a line begins with these words.
bool starts_with(const std::vector<std::string>& line, const std::vector<std::string>& words) {
    return line.size() >= words.size() && std::equal(words.begin(), words.end(), line.begin());
}

}  // namespace

std::variant<const command*, int> parse_command_line(command_tree& tree, int argc,
                                                     const char* const* argv) {
    std::vector<std::string> words(argv + 1, argv + argc);
    if (!words.empty() && words.front() == "help") {
        words.erase(words.begin());
        words.emplace_back("--help");
    }
    CLI::App& app = *tree.app;
    app.name("qnmctl");
    app.description(summary);
    app.footer(help_footer());
    app.require_subcommand(0, 1);  // a missing one is reported below
    try {
        std::reverse(words.begin(), words.end());  // parse() takes them from the end
        app.parse(words);
        take_default_ports(tree.global);
        if (const auto wrong = wrong_globals(tree.global)) throw CLI::ValidationError(*wrong);
        if (app.get_subcommands().empty()) throw CLI::ValidationError("no command is given");
        const command* const found = find_command(tree, chosen_app(app));
        divide_words(*found);
        return found;
    } catch (const CLI::ParseError& e) {
        return tell_end(tree, e);
    }
}

std::variant<const command*, std::string> parse_line(command_tree& tree, const std::string& line) {
    std::vector<std::string> words = split(line, " \t\r");
    if (words.empty()) return nullptr;
    const auto named = std::find_if(
        tree.commands.begin(), tree.commands.end(),
        [&](const command& candidate) { return starts_with(words, split(candidate.name, " ")); });
    if (named == tree.commands.end()) {
        const CLI::App* const group = find_app(*tree.app, words.front());
        const bool grouped = words.size() > 1 && group != nullptr;
        return "unknown command \"" + words.front() + (grouped ? ' ' + words[1] : "") +
               "\"; \"help\" lists the commands";
    }
    words.erase(words.begin(), words.begin() + std::ssize(split(named->name, " ")));
    std::reverse(words.begin(), words.end());  // parse() takes them from the end
    try {
        named->app.parse(words);
        divide_words(*named);
    } catch (const CLI::ParseError& e) {
        return parser_text(named->app, e) + "; usage: " + synopsis(*named);
    }
    return &*named;
}

std::string word_text(const command& verb, const CLI::Option& word) {
    const bool needed = word.get_required() || verb.cards != nullptr;
    return needed ? word.get_name() : '[' + word.get_name() + ']';
}

std::string words_text(const command& verb) {
    std::string text;
    for (const CLI::Option* const option : verb.app.get_options()) {
        if (!option->get_positional()) continue;
        const value& taken = verb.tree.values.at(option);
        const bool two = taken.words.size() == 2;
        text += ' ' + (two ? join(taken.words, "|") : word_text(verb, *option)) +
                (taken.repeatable ? "..." : "");
    }
    return text;
}

std::string lines_help(const command_tree& tree) {
    constexpr std::size_t indent = 2;
    std::size_t width = 0;
    for (const command& shown : tree.commands)
        width = std::max(width, synopsis(shown).size());
    std::string text;
    for (const command& shown : tree.commands) {
        std::string start = std::string(indent, ' ') + synopsis(shown);
        start.resize(indent + width + 1, ' ');
        text += start + shown.app.get_description() + '\n';
    }
    return text;
}

}  // namespace qnmctl
