// Waits until the cards are heard, and makes the calls.
#include "access/access.h"

#include <net/if.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <string_view>

#include "cli/options.h"
#include "common/end_signals.h"
#include "common/standard_files.h"
#include "installation/config_file.h"
#include "manager/listen.h"
#include "output/foreign_words.h"
#include "output/text.h"
#include "system/port_user.h"

namespace qnmctl {

namespace {

// By then each card has announced itself; announcements come about every second.
constexpr double seconds_to_hear_all = 3;

constexpr double seconds_to_hear = 10;

std::uint32_t configured(const context& with, const char* key) {
    return configured_number(read_config(with.where.config()), key);
}

bool is_known(std::uint64_t id) {
    return read_card(id).has_value();
}

// The local port that the library sends to a card by.
std::optional<std::size_t> port_of(std::uint64_t id) {
    const auto known = read_card(id);
    if (!known) return std::nullopt;
    for (const std::size_t port : {0, 1}) {
        const auto& paths = common(*known).ecd_state[port];
        if (paths[0] == 1 || paths[1] == 1) return port;
    }
    return std::nullopt;
}

// Nothing if no other process has it.
std::string port_in_use_text(const context& with, std::uint64_t id) {
    const std::vector<std::string> ports = configured_ports(read_text(with.where.config()));
    const std::size_t port = port_of(id).value_or(0);
    if (port >= ports.size()) return {};
    const auto user = find_port_user(static_cast<int>(if_nametoindex(ports[port].c_str())));
    if (!user || !user->manager || user->pid == getpid()) return {};
    std::string text = process_text(*user);
    text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
    return text + " accesses cards by " + printable(ports[port]) +
           ", and one process at a time may. Stop its manager, or access cards from there; "
           "commands that only listen work beside it.";
}

}  // namespace

void add_one_card(command& to, access_options& options) {
    value id = card_ids(options.cards.ids);
    id.repeatable = false;
    add_operand(to, "ID", id_help, id);
}

void add_retry(command& to, access_options& options) {
    add_option(to, {"--retries", "N", "How often a frame is sent again (default: as configured)"},
               number(options.retries));
    add_option(
        to, {"--interval", "MS", "Milliseconds to wait for each answer (default: as configured)"},
        number(options.interval, {.least = 1}));
}

void add_livecheck(command& to, access_options& options) {
    add_flag(to, "--livecheck",
             "Look for a path on which the card answers; reaches unmonitored cards, too",
             options.flags, QNM_FLAG_LIVECHECK);
}

void add_verify(command& to, access_options& options) {
    add_flag(to, "--verify", "Make sure that it holds, and write again until it does",
             options.flags, QNM_FLAG_VERIFY);
}

void add_force_lock(command& to, access_options& options) {
    add_flag(to, "--force-lock", "Take the EEPROM lock away from another party that keeps it",
             options.flags, QNM_FLAG_FORCELOCK);
}

void add_wait(command& to, access_options& options) {
    if (to.tree.use == used_for::lines) return;
    const char* const help =
        to.cards == nullptr
            ? "Seconds to wait until each card is heard (default: 10)"
            : "Seconds to wait until each card is heard (default: 10, or 3 without IDs)";
    add_option(to, {"--wait", "SECONDS", help}, seconds(options.wait));
}

void add_yes(command& to, bool& yes) {
    add_flag(to, "-y,--yes", "Do not ask", yes);
}

bool is_yes(std::string_view answer) {
    constexpr const char* all[] = {"y\n", "Y\n", "yes\n", "Yes\n", "YES\n"};
    return std::find(std::begin(all), std::end(all), answer) != std::end(all);
}

// Asks on standard error. Signals arrive as input, so both they and the answer are waited for. What
// was typed before the question is no answer to it.
bool is_confirmed(const context& with, const std::string& question) {
    tcflush(STDIN_FILENO, TCIFLUSH);
    tools::tell(question + " [y/N] ");
    char answer[64];
    const bool answered =
        tools::wait_until_ready(STDIN_FILENO, POLLIN, with.signals) && !is_signalled(with);
    const ssize_t length = answered ? read(STDIN_FILENO, answer, sizeof answer) : 0;
    if (length <= 0) tools::tell("\n");
    tcflush(STDIN_FILENO, TCIFLUSH);  // the rest of a long line is not for the shell
    return length > 0 && is_yes({answer, static_cast<std::size_t>(length)});
}

void check_can_ask(const context& with) {
    if (!with.results.is_text()) {
        throw usage_error(
            "the command asks before it changes many cards, and cannot with JSON\nAdd --yes.");
    }
    if (isatty(STDIN_FILENO) != 1) {
        throw usage_error("there is no terminal to ask on\nAdd --yes to do it without a question.");
    }
}

retry_param::retry_param(const context& with, const access_options& options) {
    if (!options.retries && !options.interval) return;
    given_.emplace();
    given_->er_retry_count =
        options.retries ? *options.retries : configured(with, "frame_retry_count");
    given_->er_retry_interval =
        options.interval ? *options.interval : configured(with, "frame_retry_interval");
}

void start_and_hear(context& with, const access_options& options) {
    start(with);
    const std::vector<std::uint64_t>& ids = options.cards.ids;
    if (ids.empty()) {
        listen(with, {.seconds = options.wait.value_or(seconds_to_hear_all)});
    } else {
        listen(with, {.seconds = options.wait.value_or(seconds_to_hear),
                      .enough = [&ids] { return std::all_of(ids.begin(), ids.end(), is_known); }});
    }
    if (is_signalled(with)) throw error("ended by a signal; no card was accessed");
    if (with.out.closed()) {
        throw error("the reader of standard output has gone; no card was accessed");
    }
}

// Why an ID is likely to be an address that the user took for one of several; empty if it is not.
std::string address_hint(std::uint64_t id) {
    if (id > last_register) return {};
    return hex_text(id, 1) +
           " does not look like a card, but like an address.\nOne address is accessed at a time; "
           "the words before it are cards.";
}

std::vector<std::uint64_t> wanted_ids(const access_options& options) {
    std::vector<std::uint64_t> ids = options.cards.ids;
    if (ids.size() == 1 && !is_known(ids.front())) {
        const std::string hint = address_hint(ids.front());
        throw error(
            "no card " + id_text(ids.front()) + " has been heard\n" +
                (hint.empty() ? "\"list\" shows the cards that are; --wait gives it more time."
                              : hint),
            QNM_API_ENOENT);
    }
    if (ids.empty()) ids = fitting_ids(read_cards(), options.cards);
    if (ids.empty()) {
        throw error("no card that fits has been heard\n\"list\" shows those that are.",
                    QNM_API_ENOENT);
    }
    return ids;
}

bool run_access_work(context& with, work wanted) {
    wanted.give_up = [] { qnm_fini_manager(); };
    if (with.tell_waiting) wanted.meanwhile = {with.manager->wake_fd(), with.tell_waiting};
    const bool undisturbed = run_work(wanted, with.signals);
    if (!undisturbed) with.quit = true;
    return undisturbed;
}

// Registers answer in a fraction of a millisecond. A word of an EEPROM takes some, under a lock
// that must not stay behind.
const dump_source register_source = {"qnm_dump_register", access_scope::registers,
                                     qnm_dump_register, 64, "reg dump"};
const dump_source eeprom_source = {"qnm_dump_eeprom", access_scope::eeprom, qnm_dump_eeprom,
                                   word_bytes, "eeprom dump"};

dump_result read_dump(context& with, const dump_source& from, const access_options& options,
                      std::uint32_t start, std::uint32_t end) {
    const retry_param retry(with, options);
    dump_result result{{options.id(), start, {}}, std::nullopt};
    word_list words((end - start) / word_bytes);
    std::size_t length = 0;
    qnm_api_code_t code = QNM_API_SUCCESS;
    const auto read = [&](std::size_t, work_state& state) {
        for (std::uint32_t at = start; at < end && code == QNM_API_SUCCESS && !state.ending;) {
            const std::uint32_t part = std::min(from.step, end - at);
            std::size_t got = part;
            code = from.read(options.id(), at, at + part, &words[length / word_bytes], &got,
                             retry.get(), options.flags);
            length += got;
            at += part;
            state.steps = length;
        }
    };
    run_access_work(with, {.label = from.label, .steps = end - start, .run = read, .give_up = {}});
    words.resize(length / word_bytes);
    result.read.words = std::move(words);
    if (code != QNM_API_SUCCESS || length == end - start) result.code = code;
    return result;
}

std::string access_failure(const context& with, std::uint64_t id, const char* call,
                           access_scope scope, qnm_api_code_t code) {
    std::string known;
    if (code == QNM_API_EBUSY) known = port_in_use_text(with, id);
    if (code == QNM_API_ENOENT) known = address_hint(id);
    return failure_text(id, call, scope, code, known);
}

std::string incomplete_text(const context& with, const dump_source& from, const dump_result& result,
                            std::uint32_t end) {
    const auto next =
        result.read.start + static_cast<std::uint32_t>(result.read.words.size() * word_bytes);
    const std::string place =
        "\nRead up to " + hex_text(next, 8) + ", of " + hex_text(end, 8) + '.';
    if (!result.code) return id_text(result.read.id) + ": ended by a signal" + place;
    return access_failure(with, result.read.id, from.call, from.scope, *result.code) + place;
}

}  // namespace qnmctl
