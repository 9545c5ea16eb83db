// Cards heard, calls made.
#include "access/access.h"

#include <net/if.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>

#include "installation/config_file.h"
#include "manager/listen.h"
#include "output/foreign_words.h"
#include "output/text.h"
#include "system/port_user.h"

namespace qnmctl {

namespace {

// The library's defaults, for keys that qnm.conf does not have.
constexpr std::uint32_t default_retries = 10;
constexpr std::uint32_t default_interval = 100;

// Which cards there are shows after an announcement of each; they come about every second.
constexpr double seconds_to_hear_all = 3;

std::uint32_t configured(const context& with, const char* key, std::uint32_t otherwise) {
    return configured_number(read_config(with.where.config()), key, otherwise);
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

// Nothing when it is none of another process.
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

std::vector<std::uint64_t> named_ids(const request& asked) {
    if (asked.cards.by_property()) return {};
    return asked.cards.ids.empty() ? std::vector{asked.id} : asked.cards.ids;
}

}  // namespace

retry_param::retry_param(const context& with, const access_options& how) {
    if (!how.retries && !how.interval) return;
    given_.emplace();
    given_->er_retry_count =
        how.retries ? *how.retries : configured(with, "frame_retry_count", default_retries);
    given_->er_retry_interval =
        how.interval ? *how.interval : configured(with, "frame_retry_interval", default_interval);
}

void start_and_hear(context& with, const request& asked) {
    start(with);
    const std::vector<std::uint64_t> ids = named_ids(asked);
    if (ids.empty()) {
        listen(with, {.seconds = asked.wait.value_or(seconds_to_hear_all)});
    } else {
        listen(with, {.seconds = asked.wait.value_or(asked.seconds),
                      .enough = [&ids] { return std::all_of(ids.begin(), ids.end(), is_known); }});
    }
    if (is_signalled(with)) throw error("ended by a signal; no card was accessed");
    if (with.out.closed()) {
        throw error("the reader of standard output has gone; no card was accessed");
    }
}

std::vector<std::uint64_t> wanted_ids(const request& asked) {
    std::vector<std::uint64_t> ids = named_ids(asked);
    if (ids.size() == 1 && !is_known(ids.front())) {
        throw error("no card " + id_text(ids.front()) +
                        " has been heard\n\"list\" shows the cards that are; --wait gives it more "
                        "time.",
                    QNM_API_ENOENT);
    }
    if (ids.empty()) ids = fitting_ids(read_cards(), asked.cards);
    if (ids.empty()) {
        throw error("no card that fits has been heard\n\"list\" shows those that are.",
                    QNM_API_ENOENT);
    }
    return ids;
}

bool run_access_work(context& with, work wanted) {
    wanted.give_up = [] { qnm_fini_manager(); };
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

dump_result read_dump(context& with, const dump_source& from, const request& asked,
                      std::uint32_t start, std::uint32_t end) {
    const retry_param retry(with, asked.how);
    dump_result result{{asked.id, start, {}}, std::nullopt};
    word_list words((end - start) / word_bytes);
    std::size_t length = 0;
    qnm_api_code_t code = QNM_API_SUCCESS;
    const auto read = [&](std::size_t, work_state& state) {
        for (std::uint32_t at = start; at < end && code == QNM_API_SUCCESS && !state.ending;) {
            const std::uint32_t part = std::min(from.step, end - at);
            std::size_t got = part;
            code = from.read(asked.id, at, at + part, &words[length / word_bytes], &got,
                             retry.get(), asked.how.flags);
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
    return failure_text(id, call, scope, code,
                        code == QNM_API_EBUSY ? port_in_use_text(with, id) : "");
}

std::string incomplete_text(const context& with, const dump_source& from, const dump_result& of,
                            std::uint32_t end) {
    const auto next = of.read.start + static_cast<std::uint32_t>(of.read.words.size() * word_bytes);
    const std::string place =
        "\nRead up to " + hex_text(next, 8) + ", of " + hex_text(end, 8) + '.';
    if (!of.code) return id_text(of.read.id) + ": ended by a signal" + place;
    return access_failure(with, of.read.id, from.call, from.scope, *of.code) + place;
}

}  // namespace qnmctl
