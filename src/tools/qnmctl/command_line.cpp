// The options of every verb are defined once, for the command line and for lines alike.
#include "command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>
#include <map>

#include "installation.h"
#include "text.h"

namespace qnmctl {

namespace {

constexpr unsigned takes_in_lines = takes_action | takes_id | takes_verbose;

const std::map<std::string, monitor_action> actions = {{"stop", monitor_action::stop},
                                                       {"restart", monitor_action::restart}};

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

void take_id(CLI::App& app, request& asked) {
    app.add_option_function<std::string>(
           "ID",
           [&asked](const std::string& text) {
               const auto id = parse_id(text);
               if (!id) {
                   throw CLI::ValidationError(
                       "ID",
                       '"' + text + "\" is no card ID; write 0x001122334455 or 00:11:22:33:44:55");
               }
               asked.id = *id;
           },
           "Card ID, as 0x001122334455 or 00:11:22:33:44:55")
        ->required()
        ->type_name("");
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

void define_verb(CLI::App& app, const verb& defined, unsigned taken, request& asked) {
    asked.asked = &defined;
    asked.seconds = defined.seconds;
    if (taken & takes_action) take_action(app, asked);
    if (taken & takes_id) take_id(app, asked);
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
    "\n"
    "Exit status: 0 success, 1 the manager could not start or a call failed, 2 wrong usage.";

std::string synopsis(const verb& of) {
    std::string text = of.name;
    if (of.takes & takes_action) text += " stop|restart";
    if (of.takes & takes_id) text += " ID";
    if (of.takes & takes_verbose) text += " [-v]";
    return text;
}

}  // namespace

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
    std::map<const CLI::App*, request> requests;
    for (const verb& defined : verbs) {
        if (defined.run == nullptr) continue;
        CLI::App* const own = app.add_subcommand(defined.name, defined.help);
        own->footer(defined.more_help);
        own->group("Commands");
        own->fallthrough();
        define_verb(*own, defined, defined.takes, requests[own]);
    }
    try {
        app.parse(argc, argv);
        if (const auto wrong = wrong_settings(global)) throw CLI::ValidationError(*wrong);
        if (app.get_subcommands().empty()) throw CLI::ValidationError("no command is given");
    } catch (const CLI::ParseError& e) {
        app.require_subcommand(1);  // for the usage line, should help be what was asked for
        return app.exit(e) == exit_ok ? exit_ok : exit_usage;
    }
    return command_line{global, requests.at(app.get_subcommands().front())};
}

std::variant<request, std::string> parse_line(std::span<const verb> verbs,
                                              const std::string& line) {
    std::vector<std::string> words = split(line, " \t\r");
    request asked;
    if (words.empty()) return asked;
    const auto named = std::find_if(verbs.begin(), verbs.end(), [&](const verb& defined) {
        return defined.answer != nullptr && words.front() == defined.name;
    });
    if (named == verbs.end()) {
        return "unknown command \"" + words.front() + "\"; \"help\" lists the commands";
    }
    CLI::App app("", named->name);
    app.set_help_flag();
    define_verb(app, *named, named->takes & takes_in_lines, asked);
    words.erase(words.begin());
    std::reverse(words.begin(), words.end());  // parse() takes them from the end
    try {
        app.parse(words);
    } catch (const CLI::ParseError& e) {
        return std::string(e.what()) + "; usage: " + synopsis(*named);
    }
    return asked;
}

std::string lines_help(std::span<const verb> verbs) {
    constexpr std::size_t width = 26;
    std::string text;
    for (const verb& defined : verbs) {
        if (defined.answer == nullptr) continue;
        std::string start = "  " + synopsis(defined);
        start.resize(std::max(start.size() + 1, width), ' ');
        text += start + defined.help + '\n';
    }
    return text;
}

}  // namespace qnmctl
