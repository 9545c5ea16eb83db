// Gives the rows of the tables to the parser, for the command line and for lines alike.
#include "cli/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

#include "cli/options.h"
#include "cli/usage.h"
#include "common/nearest.h"
#include "common/standard_files.h"
#include "installation/installation.h"
#include "output/text.h"

namespace qnmctl {

namespace {

constexpr verb_group groups[] = {
    {"reg", "Reads and writes registers of cards"},
    {"eeprom", "Reads and writes EEPROMs of cards"},
};

const verb_group* find_group(const std::string& name) {
    const auto found = std::find_if(std::begin(groups), std::end(groups),
                                    [&](const verb_group& of) { return name == of.name; });
    return found == std::end(groups) ? nullptr : found;
}

// What the library of options finds wrong is told as the parser tells the rest.
void check(const std::optional<std::string>& wrong) {
    if (wrong) throw CLI::ValidationError(*wrong);
}

void set_operand(const operand& wanted, const std::string& word, request& asked) {
    check(wrong_operand(wanted, word));
    if (wanted.form == operand_form::number) {
        asked.numbers.push_back(static_cast<std::uint32_t>(*parse_number(word)));
    } else {
        asked.file = word;
    }
}

void take_operands(CLI::App& app, const verb& defined, request& asked) {
    for (const operand& wanted : defined.operands) {
        app.add_option_function<std::string>(
               wanted.name,
               [&wanted, &asked](const std::string& word) { set_operand(wanted, word, asked); },
               wanted.help)
            ->required(!wanted.optional)
            ->type_name("");
    }
}

std::string operands_text(const verb& of) {
    std::string text;
    for (const operand& wanted : of.operands)
        text += ' ' + operand_text(wanted);
    return text;
}

[[noreturn]] void fail_few_words(const verb& defined) {
    throw CLI::ValidationError("too few words; needed are ID..." + operands_text(defined) +
                               ", without ID where --all, --kind or --group choose the cards");
}

// All words in one: how many of them are IDs shows in the end only.
void set_words(const verb& defined, const std::vector<std::string>& words, request& asked) {
    const std::size_t least = defined.operands.size() + (asked.cards.by_property() ? 0 : 1);
    if (words.size() < least) fail_few_words(defined);
    const std::size_t ids = words.size() - defined.operands.size();
    for (std::size_t at = 0; at < ids; ++at)
        check(take_id(words[at], asked.cards.ids.emplace_back()));
    for (std::size_t at = 0; at < defined.operands.size(); ++at)
        set_operand(defined.operands[at], words[ids + at], asked);
}

void check_selection(const selection& cards) {
    if (cards.ids.empty() && !cards.by_property()) {
        throw CLI::ValidationError(
            "no card is named; write its ID, or choose by --all, --kind or "
            "--group");
    }
    if (!cards.ids.empty() && cards.by_property()) {
        throw CLI::ValidationError("IDs and --all, --kind or --group exclude each other");
    }
}

// The options come first, so that they are known when the words are divided. The operands are among
// the words of the IDs; their own options are there for the help only.
void take_ids(CLI::App& app, const verb& defined, request& asked) {
    app.add_option_function<std::vector<std::string>>(
           "ID",
           [&defined, &asked](const std::vector<std::string>& words) {
               set_words(defined, words, asked);
           },
           id_help)
        ->type_name("");
    for (const operand& wanted : defined.operands)
        app.add_option_function<std::string>(
               wanted.name, [](const std::string&) {}, wanted.help)
            ->type_name("");
}

void define_option(CLI::App& app, const option& row, const std::string& help, command_line& into) {
    if (row.value == nullptr && !row.is_word()) {
        app.add_flag_callback(
            row.names, [&row, &into] { check(row.set({}, into)); }, help);
        return;
    }
    const auto take = [&row, &into](const std::string& value) {
        check(set_value(row, value, into));
    };
    CLI::Option* const made = row.repeatable
                                  ? app.add_option_function<std::vector<std::string>>(
                                           row.names,
                                           [take](const std::vector<std::string>& values) {
                                               std::for_each(values.begin(), values.end(), take);
                                           },
                                           help)
                                        ->allow_extra_args(false)
                                  : app.add_option_function<std::string>(row.names, take, help);
    made->type_name(row.is_word() ? "" : row.value)->required(row.is_word());
}

void define_verb(CLI::App& app, const verb& defined, const std::vector<const option*>& options,
                 command_line& into) {
    into.asked.asked = &defined;
    into.asked.seconds = defined.seconds;
    for (const option* const row : options)
        define_option(app, *row, option_help(*row, defined), into);
    if ((defined.takes & takes_ids) != 0) {
        take_ids(app, defined, into.asked);
    } else {
        take_operands(app, defined, into.asked);
    }
}

// ---- What is wrong ------------------------------------------------------------------------------

std::vector<std::string> shown_names(std::span<const verb> verbs) {
    std::vector<std::string> names;
    for (const verb& one : verbs) {
        if (one.run != nullptr && !one.hidden) names.emplace_back(one.name);
    }
    return names;
}

// `name` is one word, or those of a group and of the verb within it that is meant.
std::string unknown_command(std::span<const verb> verbs, const std::string& name) {
    std::vector<std::string> names = shown_names(verbs);
    if (name.find(' ') == std::string::npos) {
        for (const verb_group& one : groups)
            names.emplace_back(one.name);
    }
    const auto meant = tools::nearest_name(name, names);
    return "unknown command \"" + name + '"' +
           (meant ? "; is \"" + *meant + "\" meant?" : std::string());
}

std::string missing_verb(std::span<const verb> verbs, const std::string& group) {
    std::vector<std::string> names;
    for (const std::string& name : shown_names(verbs)) {
        if (name.starts_with(group + ' ')) names.push_back(name.substr(group.size() + 1));
    }
    return "no command of " + group + " is given; they are " + join(names, ", ");
}

// The parser itself tells words that are left over in no certain order.
std::string parser_text(const CLI::App& app, const CLI::ParseError& found) {
    const bool left_over = dynamic_cast<const CLI::ExtrasError*>(&found) != nullptr;
    return left_over ? "not expected: " + join(app.remaining(true), " ") : found.what();
}

std::string synopsis(const verb& of) {
    return of.name + words_text(of) + ((of.takes & takes_verbose) != 0 ? " [-v]" : "");
}

// The App of a group, made when its first verb comes.
CLI::App& group_app(CLI::App& app, const std::string& name) {
    const auto known =
        app.get_subcommands([&](const CLI::App* of) { return of->get_name() == name; });
    if (!known.empty()) return *known.front();
    CLI::App* const made = app.add_subcommand(name, find_group(name)->help);
    made->group("Commands");
    made->require_subcommand(1);
    made->fallthrough();
    return *made;
}

CLI::App& verb_app(CLI::App& app, const verb& defined) {
    const std::vector<std::string> words = split(defined.name, " ");
    CLI::App& parent = words.size() > 1 ? group_app(app, words.front()) : app;
    CLI::App* const own = parent.add_subcommand(words.back(), defined.help);
    own->footer(defined.more_help);
    own->group(defined.hidden ? "" : "Commands");
    own->fallthrough();
    return *own;
}

CLI::App* chosen_app(CLI::App& app) {
    CLI::App* chosen = &app;
    while (!chosen->get_subcommands().empty())
        chosen = chosen->get_subcommands().front();
    return chosen;
}

// Whether the words stand at the start of a line.
bool starts_with(const std::vector<std::string>& line, const std::vector<std::string>& words) {
    return line.size() >= words.size() && std::equal(words.begin(), words.end(), line.begin());
}

// Words that are all missing have not been looked at before.
void check_request(const request& asked) {
    if ((asked.asked->takes & takes_ids) == 0) return;
    check_selection(asked.cards);
    const bool none = asked.numbers.empty() && asked.file.empty();
    if (none && !asked.asked->operands.empty()) fail_few_words(*asked.asked);
}

// In the help, what is among the words of the IDs is required like any other operand.
void mark_required(CLI::App& app, const verb& defined) {
    for (const operand& wanted : defined.operands)
        app.get_option(wanted.name)->required(!wanted.optional);
}

using request_map = std::map<CLI::App*, command_line>;

// What is wrong with a line that has led to no verb, but to a group or to nothing.
std::optional<std::string> wrong_name(const CLI::App& app, const CLI::App& chosen,
                                      std::span<const verb> verbs, const CLI::ParseError& found) {
    const std::string group = &chosen == &app ? "" : chosen.get_name();
    const std::vector<std::string> left = app.remaining(true);
    if (!left.empty() && left.front().front() != '-') {
        return unknown_command(verbs, (group.empty() ? "" : group + ' ') + left.front());
    }
    const bool missing = dynamic_cast<const CLI::RequiredError*>(&found) != nullptr;
    return missing ? std::optional(missing_verb(verbs, group)) : std::nullopt;
}

// Prints the help that was asked for, or what is wrong; the exit status.
int tell_end(CLI::App& app, const request_map& requests, std::span<const verb> verbs,
             const CLI::ParseError& found) {
    CLI::App& chosen = *chosen_app(app);
    std::optional<std::string> wrong;
    if (!requests.contains(&chosen)) wrong = wrong_name(app, chosen, verbs, found);
    if (!wrong && found.get_exit_code() != exit_ok) wrong = parser_text(app, found);
    if (wrong) {
        const std::string more = "\nRun with --help for more information.";
        tools::tell(message_text(*wrong + more));
        return exit_usage;
    }
    app.require_subcommand(1);  // for the usage line
    for (const auto& [own, given] : requests)
        mark_required(*own, *given.asked.asked);
    std::ostringstream out, messages;
    const int status = app.exit(found, out, messages);
    tools::tell(messages.str());
    const int written = tools::print(out.str(), "qnmctl", exit_failed);
    return status == exit_ok ? written : status;
}

// A verb that takes the rest of the line as it is. The parser would look for options in it.
std::optional<request> parse_rest(std::span<const verb> verbs, int argc, const char* const* argv) {
    if (argc < 2) return std::nullopt;
    const auto named = std::find_if(verbs.begin(), verbs.end(), [&](const verb& defined) {
        return (defined.takes & takes_rest) != 0 && std::string_view(argv[1]) == defined.name;
    });
    if (named == verbs.end()) return std::nullopt;
    request asked;
    asked.asked = &*named;
    asked.rest.assign(argv + 2, argv + argc);
    if (!asked.rest.empty() && asked.rest.front() == "--") asked.rest.erase(asked.rest.begin());
    return asked;
}

}  // namespace

std::span<const verb_group> verb_groups() {
    return groups;
}

std::string words_text(const verb& of) {
    std::string text;
    for (const option* const row : options_of(of)) {
        if (!row->is_word()) continue;
        const std::vector<std::string> words(row->words.begin(), row->words.end());
        text += ' ' + (words.size() == 2 ? join(words, "|") : std::string(row->names));
    }
    if ((of.takes & takes_ids) != 0) text += " ID...";
    return text + operands_text(of);
}

std::variant<command_line, int> parse_command_line(std::span<const verb> verbs, int argc,
                                                   const char* const* argv) {
    if (const auto asked = parse_rest(verbs, argc, argv)) return command_line{{}, *asked};
    std::vector<std::string> words(argv + 1, argv + argc);
    if (!words.empty() && words.front() == "help") {
        words.erase(words.begin());
        words.emplace_back("--help");
    }
    CLI::App app(summary, "qnmctl");
    app.set_version_flag("--version", "qnmctl " QNMCTL_VERSION);
    app.footer(help_footer());
    app.require_subcommand(0, 1);  // a missing one is told below
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.get_formatter()->column_width(32);
    command_line global;
    for (const option* const row : global_options())
        define_option(app, *row, row->help, global);
    request_map requests;
    for (const verb& defined : verbs) {
        if (defined.run == nullptr || (defined.takes & takes_rest) != 0) continue;
        CLI::App& own = verb_app(app, defined);
        define_verb(own, defined, options_of(defined), requests[&own]);
    }
    try {
        std::reverse(words.begin(), words.end());  // parse() takes them from the end
        app.parse(words);
        check(wrong_globals(global.global));
        check(wrong_settings(global.global));
        if (app.get_subcommands().empty()) throw CLI::ValidationError("no command is given");
        const request& asked = requests.at(chosen_app(app)).asked;
        check_request(asked);
        return command_line{global.global, asked};
    } catch (const CLI::ParseError& e) {
        return tell_end(app, requests, verbs, e);
    }
}

std::variant<request, std::string> parse_line(std::span<const verb> verbs,
                                              const std::string& line) {
    std::vector<std::string> words = split(line, " \t\r");
    command_line given;
    if (words.empty()) return given.asked;
    const auto named = std::find_if(verbs.begin(), verbs.end(), [&](const verb& defined) {
        return defined.answer != nullptr && starts_with(words, split(defined.name, " "));
    });
    if (named == verbs.end()) {
        const bool grouped = words.size() > 1 && find_group(words.front()) != nullptr;
        return "unknown command \"" + words.front() + (grouped ? ' ' + words[1] : "") +
               "\"; \"help\" lists the commands";
    }
    CLI::App app("", named->name);
    app.set_help_flag();
    define_verb(app, *named, options_in_lines(*named), given);
    const auto name_words = static_cast<std::ptrdiff_t>(split(named->name, " ").size());
    words.erase(words.begin(), words.begin() + name_words);
    std::reverse(words.begin(), words.end());  // parse() takes them from the end
    try {
        app.parse(words);
        check_request(given.asked);
    } catch (const CLI::ParseError& e) {
        return parser_text(app, e) + "; usage: " + synopsis(*named);
    }
    return given.asked;
}

std::string lines_help(std::span<const verb> verbs) {
    constexpr std::size_t indent = 2;
    std::size_t width = 0;
    for (const verb& defined : verbs) {
        if (defined.answer != nullptr) width = std::max(width, synopsis(defined).size());
    }
    std::string text;
    for (const verb& defined : verbs) {
        if (defined.answer == nullptr) continue;
        std::string start = std::string(indent, ' ') + synopsis(defined);
        start.resize(indent + width + 1, ' ');
        text += start + defined.help + '\n';
    }
    return text;
}

}  // namespace qnmctl
