// The options of every verb are defined once, for the command line and for lines alike.
#include "command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>
#include <map>
#include <set>

#include "installation.h"
#include "text.h"

namespace qnmctl {

namespace {

// Lines get their JSON from the watch that takes them, and wait for nothing.
constexpr unsigned not_in_lines = takes_json | takes_for | takes_count | takes_wait;

// The first words of verbs that have two.
struct verb_group {
    const char* name;
    const char* help;
};

constexpr verb_group groups[] = {
    {"reg", "Reads and writes registers of cards"},
    {"eeprom", "Reads and writes EEPROMs of cards"},
};

const std::map<std::string, monitor_action> actions = {{"stop", monitor_action::stop},
                                                       {"restart", monitor_action::restart}};

const std::map<std::string, card_kind> kinds = {{"qnsv", card_kind::server},
                                                {"qnio", card_kind::device}};

const std::map<std::string, qnm_log_level_t> levels = {
    {"fatal", QNM_LOGLVL_FATAL}, {"error", QNM_LOGLVL_ERROR}, {"warn", QNM_LOGLVL_WARN},
    {"info", QNM_LOGLVL_INFO},   {"debug", QNM_LOGLVL_DEBUG}, {"trace", QNM_LOGLVL_TRACE}};

template <class Value>
std::vector<std::string> words_of(const std::map<std::string, Value>& table) {
    std::vector<std::string> words;
    words.reserve(table.size());
    for (const auto& entry : table)
        words.push_back(entry.first);
    return words;
}

constexpr char id_help[] = "Card ID, as 0x001122334455 or 00:11:22:33:44:55";

std::uint64_t checked_id(const std::string& text) {
    const auto id = parse_id(text);
    if (id) return *id;
    throw CLI::ValidationError(
        "ID", '"' + text + "\" is no card ID; write 0x001122334455 or 00:11:22:33:44:55");
}

void take_id(CLI::App& app, request& asked) {
    app.add_option_function<std::string>(
           "ID", [&asked](const std::string& text) { asked.id = checked_id(text); }, id_help)
        ->required()
        ->type_name("");
}

std::uint32_t checked_number(const operand& wanted, const std::string& word) {
    if (const auto wrong = wrong_operand(wanted, word)) throw CLI::ValidationError(*wrong);
    return static_cast<std::uint32_t>(*parse_number(word));
}

void set_operand(const operand& wanted, const std::string& word, request& asked) {
    if (wanted.form == operand_form::number) {
        asked.numbers.push_back(checked_number(wanted, word));
        return;
    }
    if (const auto wrong = wrong_operand(wanted, word)) throw CLI::ValidationError(*wrong);
    asked.file = word;
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
        asked.cards.ids.push_back(checked_id(words[at]));
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

template <class Value>
void take_number(CLI::App& app, const std::string& name, const operand& wanted,
                 std::optional<Value>& into) {
    app.add_option_function<std::string>(
           name,
           [&wanted, &into](const std::string& word) {
               into = static_cast<Value>(checked_number(wanted, word));
           },
           wanted.help)
        ->type_name(wanted.name);
}

constexpr operand group_operand = {
    .name = "VLANID", .help = "The known cards of this group", .least = 1, .most = 4094};
constexpr operand retries_operand = {
    .name = "N", .help = "How often a frame is sent again (default: as configured)"};
constexpr operand interval_operand = {
    .name = "MS",
    .help = "Milliseconds to wait for each answer (default: as configured)",
    .least = 1};

// The options come first, so that they are known when the words are divided. The operands are among
// the words of the IDs; their own options are there for the help only.
void take_ids(CLI::App& app, const verb& defined, request& asked) {
    app.add_flag("--all", asked.cards.all, "All known cards");
    app.add_option_function<std::string>(
           "--kind", [&asked](const std::string& word) { asked.cards.kind = kinds.at(word); },
           "The known cards of this kind, qnsv or qnio")
        ->type_name("KIND")
        ->check(CLI::IsMember(words_of(kinds)).description(""));
    take_number(app, "--group", group_operand, asked.cards.group);
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

void take_level(CLI::App& app, request& asked) {
    std::vector<std::string> words = words_of(levels);
    words.emplace_back("none");
    app.add_option_function<std::string>(
           "LEVEL",
           [&asked](const std::string& word) {
               asked.level = word == "none" ? QNM_LOGLVL_NONE : levels.at(word);
           },
           "fatal, error, warn, info, debug, trace, or none for the configured one")
        ->required()
        ->type_name("")
        ->check(CLI::IsMember(words).description(""));
}

void take_action(CLI::App& app, request& asked) {
    app.add_option_function<std::string>(
           "ACTION", [&asked](const std::string& word) { asked.action = actions.at(word); },
           "stop or restart")
        ->required()
        ->type_name("")
        ->check(CLI::IsMember(words_of(actions)).description(""));
}

std::string for_help(double seconds) {
    std::string help = "Seconds to listen, ";
    if (seconds == 0) return help + "without limit if not given";
    return help + std::to_string(static_cast<int>(seconds)) + " if not given";
}

// Empty when the text is a usable time.
std::string wrong_seconds(const std::string& text) {
    constexpr double longest = 1e9;
    double seconds = 0;
    const bool number = CLI::detail::lexical_cast(text, seconds);
    if (number && seconds > 0 && seconds <= longest) return {};
    return '"' + text + "\" is not a number of seconds above 0";
}

struct access_flag {
    unsigned taken;
    const char* name;
    std::uint32_t flag;
    const char* help;
};

constexpr access_flag access_flags[] = {
    {takes_livecheck, "--livecheck", QNM_FLAG_LIVECHECK,
     "Look for a path on which the card answers; reaches unmonitored cards, too"},
    {takes_verify, "--verify", QNM_FLAG_VERIFY,
     "Make sure that it holds, and write again until it does"},
    {takes_force_lock, "--force-lock", QNM_FLAG_FORCELOCK,
     "Take the EEPROM lock away from another party that keeps it"},
};

void define_access(CLI::App& app, unsigned taken, request& asked) {
    if (taken & takes_retry) {
        take_number(app, "--retries", retries_operand, asked.how.retries);
        take_number(app, "--interval", interval_operand, asked.how.interval);
    }
    for (const access_flag& known : access_flags) {
        if ((taken & known.taken) == 0) continue;
        app.add_flag_callback(
            known.name, [&asked, &known] { asked.how.flags |= known.flag; }, known.help);
    }
    if (taken & takes_raw) {
        app.add_option("--raw", asked.raw, "Write the bytes to a file")->type_name("FILE");
    }
    if (taken & takes_yes) app.add_flag("-y,--yes", asked.yes, "Do not ask");
    if (taken & takes_wait) {
        app.add_option_function<double>(
               "--wait", [&asked](const double& seconds) { asked.wait = seconds; },
               "Seconds to wait for the cards to be heard (default: 10, without IDs 3)")
            ->type_name("SECONDS")
            ->check(CLI::Validator(wrong_seconds, ""));
    }
}

void define_verb(CLI::App& app, const verb& defined, unsigned taken, request& asked) {
    asked.asked = &defined;
    asked.seconds = defined.seconds;
    if (taken & takes_ids) take_ids(app, defined, asked);
    if (taken & takes_level) take_level(app, asked);
    if (taken & takes_action) take_action(app, asked);
    if (taken & takes_id) take_id(app, asked);
    if ((taken & takes_ids) == 0) take_operands(app, defined, asked);
    define_access(app, taken, asked);
    if (taken & takes_verbose) {
        app.add_flag("-v,--verbose", asked.verbose, "Every field of every card, results per call");
    }
    if (taken & takes_json) app.add_flag("--json", asked.as_json, "JSON instead of text");
    if (taken & takes_for) {
        app.add_option("--for", asked.seconds, for_help(defined.seconds))
            ->type_name("SECONDS")
            ->check(CLI::Validator(wrong_seconds, ""));
    }
    if (taken & takes_count) {
        app.add_option("--count", asked.count, "End after this many events")
            ->type_name("N")
            ->check(CLI::Range(std::uint64_t{1}, UINT64_MAX).description(""));
    }
}

void define_globals(CLI::App& app, settings& global) {
    app.add_option("--dir", global.dir,
                   "Installation directory, the one that holds conf (default: /opt/tarvo/qnm)")
        ->type_name("DIR");
    app.add_option_function<std::string>(
           "--ports",
           [&global](const std::string& names) {
               global.ports = split(names, ",");
               if (global.ports.empty()) throw CLI::ValidationError("--ports: no interface named");
           },
           "Interfaces of port 0 and 1; makes a temporary directory, removed at the end")
        ->type_name("IF0[,IF1]")
        ->excludes("--dir");
    app.add_option("--set", global.keys, "A further key of qnm.conf; repeatable")
        ->type_name("KEY=VALUE")
        ->allow_extra_args(false)
        ->needs("--ports");
    app.add_option("--log", global.log, "File that the library's log is added to")
        ->type_name("FILE")
        ->needs("--ports");
    app.add_option_function<std::string>(
           "--log-level",
           [&global](const std::string& word) { global.log_level = levels.at(word); },
           "How much is logged: fatal, error, warn, info, debug or trace")
        ->type_name("LEVEL")
        ->check(CLI::IsMember(words_of(levels)).description(""));
}

constexpr char examples[] =
    "Examples:\n"
    "  sudo qnmctl --ports eth1,eth2 watch\n"
    "  sudo qnmctl --ports eth1 list --for 5 --json\n"
    "  sudo qnmctl --dir /opt/tarvo/qnm show 0x001122334455\n"
    "  sudo qnmctl --ports eth1 reg read 0x001122334455 0x100\n"
    "\n"
    "Exit status: 0 success, 1 the manager could not start or a call failed, 2 wrong usage.";

std::string synopsis(const verb& of) {
    std::string text = of.name;
    if (of.takes & takes_action) text += " stop|restart";
    if (of.takes & takes_id) text += " ID";
    if (of.takes & takes_ids) text += " ID...";
    if (of.takes & takes_level) text += " LEVEL";
    text += operands_text(of);
    if (of.takes & takes_verbose) text += " [-v]";
    return text;
}

const verb_group* find_group(const std::string& name) {
    const auto found = std::find_if(std::begin(groups), std::end(groups),
                                    [&](const verb_group& of) { return name == of.name; });
    return found == std::end(groups) ? nullptr : found;
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
    own->group("Commands");
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

}  // namespace

const char* level_word(qnm_log_level_t level) {
    const auto found = std::find_if(levels.begin(), levels.end(),
                                    [&](const auto& known) { return known.second == level; });
    return found == levels.end() ? "none" : found->first.c_str();
}

std::variant<command_line, int> parse_command_line(std::span<const verb> verbs, int argc,
                                                   const char* const* argv) {
    CLI::App app("Watches and queries Quillnet adapter cards", "qnmctl");
    app.set_version_flag("--version", "qnmctl " QNMCTL_VERSION);
    app.footer(examples);
    app.require_subcommand(0, 1);  // a missing one is told below
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.get_formatter()->column_width(32);
    settings global;
    define_globals(app, global);
    std::map<CLI::App*, request> requests;
    for (const verb& defined : verbs) {
        if (defined.run == nullptr) continue;
        CLI::App& own = verb_app(app, defined);
        define_verb(own, defined, defined.takes, requests[&own]);
    }
    try {
        app.parse(argc, argv);
        if (const auto wrong = wrong_settings(global)) throw CLI::ValidationError(*wrong);
        if (app.get_subcommands().empty()) throw CLI::ValidationError("no command is given");
        const request& asked = requests.at(chosen_app(app));
        check_request(asked);
        return command_line{global, asked};
    } catch (const CLI::ParseError& e) {
        app.require_subcommand(1);  // for the usage line, should help be what was asked for
        for (const auto& [own, asked] : requests)
            mark_required(*own, *asked.asked);
        return app.exit(e) == exit_ok ? exit_ok : exit_usage;
    }
}

std::vector<std::uint64_t> fitting_ids(const std::vector<card>& known, const selection& wanted) {
    std::set<std::uint64_t> ids;  // one that is known as both kinds is there twice
    for (const card& one : known) {
        const bool server = std::holds_alternative<qnm_qnsv_t>(one);
        if (wanted.kind && (*wanted.kind == card_kind::server) != server) continue;
        if (wanted.group && *wanted.group != common(one).ecd_vlan_id) continue;
        ids.insert(common(one).ecd_id);
    }
    return {ids.begin(), ids.end()};
}

std::variant<request, std::string> parse_line(std::span<const verb> verbs,
                                              const std::string& line) {
    std::vector<std::string> words = split(line, " \t\r");
    request asked;
    if (words.empty()) return asked;
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
    define_verb(app, *named, named->takes & ~not_in_lines, asked);
    const auto name_words = static_cast<std::ptrdiff_t>(split(named->name, " ").size());
    words.erase(words.begin(), words.begin() + name_words);
    std::reverse(words.begin(), words.end());  // parse() takes them from the end
    try {
        app.parse(words);
        check_request(asked);
    } catch (const CLI::ParseError& e) {
        return std::string(e.what()) + "; usage: " + synopsis(*named);
    }
    return asked;
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
