// The table of options, and what each of them does with its value.
#include "cli/options.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <iterator>

#include "cli/operands.h"
#include "output/text.h"
#include "records/changes.h"
#include "top/model.h"

namespace qnmctl {

namespace {

using problem = std::optional<std::string>;

// ---- Fixed words --------------------------------------------------------------------------------

// Those of an enumeration stand in the order of its values.
constexpr const char* action_words[] = {"stop", "restart"};
constexpr const char* kind_words[] = {"qnsv", "qnio"};
constexpr const char* level_words[] = {"fatal", "error", "warn", "info", "debug", "trace"};
constexpr const char* running_level_words[] = {"fatal", "error", "warn", "info",
                                               "debug", "trace", "none"};
constexpr const char* form_words[] = {"text", "json", "jsonl"};
constexpr const char* graph_form_words[] = {"text", "json", "jsonl", "dot"};
constexpr const char* message_words[] = {"devinfo",       "notify",    "completion",
                                         "reset",         "vlan-set",  "register-write",
                                         "register-read", "mms-write", "other"};
constexpr const char* shell_words[] = {"bash", "zsh"};
constexpr const char* state_words[] = {"disconnected", "connected"};
const auto event_words = [] {
    std::array<const char*, QNM_EVT_MAX + 1> words{};
    for (int type = 0; type < QNM_EVT_MAX; ++type) {
        words.at(type) = qnm_event_name(static_cast<qnm_evt_type_t>(type));
    }
    words.back() = monitor_event;
    return words;
}();

// Which of them it is; the words of a row have been checked.
template <class Value>
Value value_of(std::span<const char* const> words, const std::string& word) {
    const auto at = std::find(words.begin(), words.end(), word) - words.begin();
    return static_cast<Value>(at);
}

// ---- Values -------------------------------------------------------------------------------------

constexpr operand group_operand = {.name = "--group", .help = "", .least = 1, .most = 4094};
constexpr operand retries_operand = {.name = "--retries", .help = ""};
constexpr operand snaplen_operand = {.name = "--snaplen", .help = "", .least = 64, .most = 262144};
constexpr operand interval_operand = {.name = "--interval", .help = "", .least = 1};

template <class Value>
problem take_number(const operand& limits, const std::string& word, std::optional<Value>& into) {
    if (auto wrong = wrong_operand(limits, word)) return wrong;
    into = static_cast<Value>(*parse_number(word));
    return std::nullopt;
}

problem take_seconds(const char* name, const std::string& word, double& into) {
    constexpr double longest = 1e9;
    double seconds = 0;
    const char* const end = word.data() + word.size();
    const auto [stop, code] = std::from_chars(word.data(), end, seconds);
    const bool number = code == std::errc{} && stop == end && std::isfinite(seconds);
    if (!number || seconds <= 0 || seconds > longest) {
        return std::string(name) + ": \"" + word + "\" is not a number of seconds above 0";
    }
    into = seconds;
    return std::nullopt;
}

problem set_action(const std::string& word, command_line& into) {
    into.asked.action = value_of<monitor_action>(action_words, word);
    return std::nullopt;
}

problem set_level(const std::string& word, command_line& into) {
    into.asked.level =
        word == "none" ? QNM_LOGLVL_NONE : value_of<qnm_log_level_t>(level_words, word);
    return std::nullopt;
}

problem set_word(const std::string& word, command_line& into) {
    into.asked.word = word;
    return std::nullopt;
}

problem set_id(const std::string& word, command_line& into) {
    return take_id(word, into.asked.id);
}

problem set_all(const std::string&, command_line& into) {
    into.asked.cards.all = true;
    return std::nullopt;
}

problem add_card(const std::string& word, command_line& into) {
    std::uint64_t id = 0;
    if (auto wrong = take_id(word, id)) return wrong;
    into.asked.cards.ids.push_back(id);
    return std::nullopt;
}

problem set_kind(const std::string& word, command_line& into) {
    into.asked.cards.kind = value_of<card_kind>(kind_words, word);
    return std::nullopt;
}

problem set_group(const std::string& word, command_line& into) {
    return take_number(group_operand, word, into.asked.cards.group);
}

problem add_event(const std::string& word, command_line& into) {
    into.asked.events.push_back(word);
    return std::nullopt;
}

problem set_retries(const std::string& word, command_line& into) {
    return take_number(retries_operand, word, into.asked.how.retries);
}

problem set_interval(const std::string& word, command_line& into) {
    return take_number(interval_operand, word, into.asked.how.interval);
}

template <std::uint32_t Flag>
problem set_flag(const std::string&, command_line& into) {
    into.asked.how.flags |= Flag;
    return std::nullopt;
}

problem set_raw(const std::string& word, command_line& into) {
    into.asked.raw = word;
    return std::nullopt;
}

problem set_yes(const std::string&, command_line& into) {
    into.asked.yes = true;
    return std::nullopt;
}

problem set_mask_ids(const std::string&, command_line& into) {
    into.asked.mask_ids = true;
    return std::nullopt;
}

problem set_force(const std::string&, command_line& into) {
    into.asked.force = true;
    return std::nullopt;
}

problem set_wait(const std::string& word, command_line& into) {
    into.asked.wait.emplace();
    return take_seconds("--wait", word, *into.asked.wait);
}

problem set_verbose(const std::string&, command_line& into) {
    into.asked.verbose = true;
    return std::nullopt;
}

problem set_seconds(const std::string& word, command_line& into) {
    return take_seconds("--for", word, into.asked.seconds);
}

problem set_count(const std::string& word, command_line& into) {
    const auto value = parse_number(word);
    if (!value || *value == 0) return "--count: \"" + word + "\" is no number above 0";
    into.asked.count = *value;
    return std::nullopt;
}

problem set_order(const std::string& word, command_line& into) {
    into.asked.top.order = value_of<top_order>(top_order_words, word);
    return std::nullopt;
}

problem set_reversed(const std::string&, command_line& into) {
    into.asked.top.reversed = true;
    return std::nullopt;
}

problem set_filter(const std::string& word, command_line& into) {
    into.asked.top.text = word;
    return std::nullopt;
}

problem set_state(const std::string& word, command_line& into) {
    into.asked.top.connected = value_of<bool>(state_words, word);
    return std::nullopt;
}

problem set_delay(const std::string& word, command_line& into) {
    return take_seconds("--delay", word, into.asked.top.delay);
}

problem set_snaplen(const std::string& word, command_line& into) {
    return take_number(snaplen_operand, word, into.asked.snaplen);
}

problem add_message(const std::string& word, command_line& into) {
    into.asked.messages.push_back(word);
    return std::nullopt;
}

problem set_dropped(const std::string&, command_line& into) {
    into.asked.dropped = true;
    return std::nullopt;
}

problem set_form(const std::string& word, command_line& into) {
    into.asked.form = value_of<output_form>(graph_form_words, word);
    return std::nullopt;
}

problem set_json(const std::string&, command_line& into) {
    into.asked.form =
        into.asked.asked->streams ? output_form::json_lines : output_form::json_document;
    return std::nullopt;
}

problem set_dir(const std::string& word, command_line& into) {
    into.global.dir = word;
    return std::nullopt;
}

problem set_ports(const std::string& word, command_line& into) {
    into.global.ports = split(word, ",");
    if (into.global.ports.empty()) return "--ports: no interface named";
    return std::nullopt;
}

problem add_key(const std::string& word, command_line& into) {
    into.global.keys.push_back(word);
    return std::nullopt;
}

problem set_log(const std::string& word, command_line& into) {
    into.global.log = word;
    return std::nullopt;
}

problem set_keep_logs(const std::string&, command_line& into) {
    into.global.keep_logs = true;
    return std::nullopt;
}

problem set_log_level(const std::string& word, command_line& into) {
    into.global.log_level = value_of<qnm_log_level_t>(level_words, word);
    return std::nullopt;
}

// ---- The table ----------------------------------------------------------------------------------

constexpr option rows[] = {
    {.taken = takes_level,
     .names = "LEVEL",
     .help = "fatal, error, warn, info, debug, trace, or none for the configured one",
     .offered = offers::words,
     .words = running_level_words,
     .set = set_level},
    {.taken = takes_action,
     .names = "ACTION",
     .help = "stop or restart",
     .offered = offers::words,
     .words = action_words,
     .set = set_action},
    {.taken = takes_shell,
     .names = "SHELL",
     .help = "bash or zsh",
     .offered = offers::words,
     .words = shell_words,
     .set = set_word},
    {.taken = takes_id, .names = "ID", .help = id_help, .offered = offers::cards, .set = set_id},
    {.taken = takes_ids, .names = "--all", .help = "All known cards", .set = set_all},
    {.taken = takes_filter | takes_top | takes_frame_filter,
     .names = "--card",
     .value = "ID",
     .help = "Only this card; repeatable",
     .offered = offers::cards,
     .repeatable = true,
     .set = add_card},
    {.taken = takes_ids | takes_filter | takes_top,
     .names = "--kind",
     .value = "KIND",
     .help = "Only cards of this kind, qnsv or qnio",
     .offered = offers::words,
     .words = kind_words,
     .set = set_kind},
    {.taken = takes_ids | takes_filter | takes_top,
     .names = "--group",
     .value = "VLANID",
     .help = "Only cards of this group",
     .set = set_group},
    {.taken = takes_filter,
     .names = "--event",
     .value = "EVENT",
     .help = "Only events of this name; repeatable",
     .offered = offers::words,
     .words = event_words,
     .repeatable = true,
     .set = add_event},
    {.taken = takes_top,
     .names = "--state",
     .value = "STATE",
     .help = "Only cards of which a path is connected, or none: connected or disconnected",
     .offered = offers::words,
     .words = state_words,
     .set = set_state},
    {.taken = takes_top,
     .names = "--filter",
     .value = "TEXT",
     .help = "Only cards whose ID, kind, type or vlanN hold all words of this text",
     .set = set_filter},
    {.taken = takes_top,
     .names = "--sort",
     .value = "ORDER",
     .help = "id (default), kind, type, vlan, paths, heard, events or rate",
     .offered = offers::words,
     .words = top_order_words,
     .set = set_order},
    {.taken = takes_top, .names = "--reverse", .help = "Turn the order round", .set = set_reversed},
    {.taken = takes_top,
     .names = "-d,--delay",
     .value = "SECONDS",
     .help = "Seconds between two looks at the cards (default: 1)",
     .set = set_delay},
    {.taken = takes_frame_filter,
     .names = "--message",
     .value = "MESSAGE",
     .help = "Only messages of this name; repeatable",
     .offered = offers::words,
     .words = message_words,
     .repeatable = true,
     .set = add_message},
    {.taken = takes_frame_filter,
     .names = "--dropped",
     .help = "Only frames that managers drop",
     .set = set_dropped},
    {.taken = takes_retry,
     .names = "--retries",
     .value = "N",
     .help = "How often a frame is sent again (default: as configured)",
     .set = set_retries},
    {.taken = takes_retry,
     .names = "--interval",
     .value = "MS",
     .help = "Milliseconds to wait for each answer (default: as configured)",
     .set = set_interval},
    {.taken = takes_livecheck,
     .names = "--livecheck",
     .help = "Look for a path on which the card answers; reaches unmonitored cards, too",
     .set = set_flag<QNM_FLAG_LIVECHECK>},
    {.taken = takes_verify,
     .names = "--verify",
     .help = "Make sure that it holds, and write again until it does",
     .set = set_flag<QNM_FLAG_VERIFY>},
    {.taken = takes_force_lock,
     .names = "--force-lock",
     .help = "Take the EEPROM lock away from another party that keeps it",
     .set = set_flag<QNM_FLAG_FORCELOCK>},
    {.taken = takes_raw,
     .names = "--raw",
     .value = "FILE",
     .help = "Write the bytes to a file",
     .offered = offers::files,
     .set = set_raw},
    {.taken = takes_yes, .names = "-y,--yes", .help = "Do not ask", .set = set_yes},
    {.taken = takes_report,
     .names = "--mask-ids",
     .help = "Put pseudonyms in place of card IDs and MAC addresses",
     .set = set_mask_ids},
    {.taken = takes_report,
     .names = "--force",
     .help = "Replace a file that is there already",
     .set = set_force},
    {.taken = takes_wait,
     .names = "--wait",
     .value = "SECONDS",
     .help = "Seconds to wait until each card is heard",
     .set = set_wait},
    {.taken = takes_verbose,
     .names = "-v,--verbose",
     .help = "Every field of every card, results per call",
     .set = set_verbose},
    {.taken = takes_frame_fields,
     .names = "-v,--verbose",
     .help = "Every field of every frame",
     .set = set_verbose},
    {.taken = takes_snaplen,
     .names = "--snaplen",
     .value = "BYTES",
     .help = "Capture so much of each frame (default: 1024, as managers do)",
     .set = set_snaplen},
    {.taken = takes_for,
     .names = "--for",
     .value = "SECONDS",
     .help = "Seconds to listen",
     .set = set_seconds},
    {.taken = takes_count,
     .names = "--count",
     .value = "N",
     .help = "End after this many events",
     .set = set_count},
    {.taken = takes_frames,
     .names = "--count",
     .value = "N",
     .help = "End after this many frames",
     .set = set_count},
    {.taken = takes_output,
     .names = "-o,--output",
     .value = "FORM",
     .help = "text (default), json: one document, or jsonl: one object a line",
     .offered = offers::words,
     .words = form_words,
     .set = set_form},
    {.taken = takes_dot,
     .names = "-o,--output",
     .value = "FORM",
     .help = "text (default), json: one document, jsonl: one object a line, or dot: for Graphviz",
     .offered = offers::words,
     .words = graph_form_words,
     .set = set_form},
    {.taken = takes_output | takes_dot,
     .names = "--json",
     .help = "Short for -o json",
     .set = set_json},
    {.taken = takes_global,
     .names = "--dir",
     .value = "DIR",
     .help = "Installation directory, the one that holds conf (default: /opt/tarvo/qnm)",
     .offered = offers::directories,
     .set = set_dir},
    {.taken = takes_global,
     .names = "--ports",
     .value = "IF0[,IF1]",
     .help = "Interfaces of port 0 and 1, in place of an installation's configuration",
     .offered = offers::interfaces,
     .set = set_ports},
    {.taken = takes_global,
     .names = "--set",
     .value = "KEY=VALUE",
     .help = "With --ports: a further key of qnm.conf; repeatable",
     .repeatable = true,
     .set = add_key},
    {.taken = takes_global,
     .names = "--log",
     .value = "FILE",
     .help = "File that the library's log is added to",
     .offered = offers::files,
     .set = set_log},
    {.taken = takes_global,
     .names = "--keep-logs",
     .help = "Keep the folder with the library's logs, and say where it is",
     .set = set_keep_logs},
    {.taken = takes_global,
     .names = "--log-level",
     .value = "LEVEL",
     .help = "How much is logged: fatal, error, warn, info, debug or trace",
     .offered = offers::words,
     .words = level_words,
     .set = set_log_level},
};

// Lines get their form from the watch that takes them, and wait for nothing.
constexpr unsigned not_in_lines = takes_for | takes_count | takes_wait | takes_filter;

std::vector<const option*> options_with(unsigned taken) {
    std::vector<const option*> found;
    for (const option& row : rows) {
        if ((row.taken & taken) != 0) found.push_back(&row);
    }
    return found;
}

}  // namespace

std::span<const option> all_options() {
    return rows;
}

std::vector<const option*> global_options() {
    return options_with(takes_global);
}

std::vector<const option*> options_of(const verb& defined) {
    const bool own_output = (defined.takes & (takes_dot | takes_top)) != 0;
    const unsigned output = own_output ? 0U : unsigned{takes_output};
    return options_with(defined.takes | output);
}

std::vector<const option*> options_in_lines(const verb& defined) {
    return options_with(defined.takes & ~(not_in_lines | takes_dot));
}

std::string option_help(const option& of, const verb& defined) {
    std::string help = of.help;
    if (of.set == set_seconds) {
        if ((defined.takes & takes_top) != 0) help = "Seconds to run";
        help += defined.seconds == 0
                    ? ", without limit if not given"
                    : ", " + std::to_string(static_cast<int>(defined.seconds)) + " if not given";
    }
    if (of.set == set_wait) {
        help += " (default: " + std::to_string(static_cast<int>(defined.seconds)) +
                ((defined.takes & takes_ids) != 0 ? ", without IDs 3)" : ")");
    }
    if (of.set == set_json && defined.streams) help = "Short for -o jsonl";
    return help;
}

std::optional<std::string> set_value(const option& of, const std::string& value,
                                     command_line& into) {
    const auto fits = [&](const char* word) { return value == word; };
    if (!of.words.empty() && std::none_of(of.words.begin(), of.words.end(), fits)) {
        const std::vector<std::string> known(of.words.begin(), of.words.end());
        return names_of(of).back() + ": \"" + value + "\" is none of " + join(known, ", ");
    }
    return of.set(value, into);
}

std::vector<std::string> names_of(const option& of) {
    return split(of.names, ",");
}

std::optional<std::string> wrong_globals(const settings& given) {
    if (!given.ports.empty()) {
        if (given.dir.empty()) return std::nullopt;
        return "--ports and --dir exclude each other";
    }
    if (!given.keys.empty()) return "--set requires --ports";
    return std::nullopt;
}

std::optional<std::string> take_id(const std::string& word, std::uint64_t& into) {
    const auto id = parse_id(word);
    if (!id) {
        return "ID: \"" + word + "\" is no card ID; write 0x001122334455 or 00:11:22:33:44:55";
    }
    into = *id;
    return std::nullopt;
}

const char* level_word(qnm_log_level_t level) {
    const bool known = level >= 0 && level < static_cast<int>(std::size(level_words));
    return known ? level_words[level] : "none";
}

}  // namespace qnmctl
