// Accesses to cards: one call for each of many, and dumps of one.
#include "access/verbs.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>

#include "access/access.h"
#include "manager/listen.h"
#include "output/text.h"

namespace qnmctl {

namespace {

// ---- One call for each card ---------------------------------------------------------------------

constexpr std::size_t mms_words = 32;

// What a call is given, beside the card.
struct call_arguments {
    const std::vector<std::uint32_t>& numbers;
    const qnm_retry_t* retry;
    std::uint32_t flags;
    std::uint32_t page[mms_words];
};

using access_call = qnm_api_code_t (*)(std::uint64_t, const call_arguments&, std::uint32_t&);

qnm_api_code_t read_register(std::uint64_t id, const call_arguments& of, std::uint32_t& value) {
    return qnm_read_register(id, of.numbers[0], &value, of.retry, of.flags);
}
qnm_api_code_t write_register(std::uint64_t id, const call_arguments& of, std::uint32_t&) {
    return qnm_write_register(id, of.numbers[0], of.numbers[1], of.retry, of.flags);
}
qnm_api_code_t modify_register(std::uint64_t id, const call_arguments& of, std::uint32_t&) {
    return qnm_modify_register(id, of.numbers[0], of.numbers[1], of.numbers[2], of.retry, of.flags);
}
qnm_api_code_t read_eeprom(std::uint64_t id, const call_arguments& of, std::uint32_t& value) {
    return qnm_read_eeprom(id, of.numbers[0], &value, of.retry, of.flags);
}
qnm_api_code_t write_eeprom(std::uint64_t id, const call_arguments& of, std::uint32_t&) {
    return qnm_write_eeprom(id, of.numbers[0], of.numbers[1], of.retry, of.flags);
}
qnm_api_code_t unlock_eeprom(std::uint64_t id, const call_arguments&, std::uint32_t&) {
    return qnm_unlock_eeprom(id);
}
qnm_api_code_t set_vlanid(std::uint64_t id, const call_arguments& of, std::uint32_t&) {
    return qnm_set_vlanid(id, static_cast<std::uint16_t>(of.numbers[0]), of.retry, of.flags);
}
qnm_api_code_t send_reset(std::uint64_t id, const call_arguments& of, std::uint32_t&) {
    return qnm_send_resetframe(id, static_cast<unsigned char>(of.numbers[0]), of.retry, of.flags);
}
// The library takes the page by a pointer to what could be changed; it is copied for that.
qnm_api_code_t write_mmspage(std::uint64_t id, const call_arguments& of, std::uint32_t&) {
    std::uint32_t page[mms_words];
    std::copy(std::begin(of.page), std::end(of.page), page);
    return qnm_write_mmspage(id, of.numbers[0], page, of.flags);
}

constexpr access_item register_read[] = {{"addr", "register ", 0, 8},
                                         {"value", ": ", from_card, 8}};
constexpr access_item register_write[] = {{"addr", "register ", 0, 8}, {"value", ": ", 1, 8}};
constexpr access_item register_modify[] = {
    {"addr", "register ", 0, 8}, {"value", ": ", 1, 8}, {"mask", " under mask ", 2, 8}};
constexpr access_item eeprom_read[] = {{"addr", "EEPROM ", 0, 4}, {"value", ": ", from_card, 8}};
constexpr access_item eeprom_write[] = {{"addr", "EEPROM ", 0, 4}, {"value", ": ", 1, 8}};
constexpr access_item vlan_set[] = {{"vlan_id", "VLAN ID ", 0, 0}};
constexpr access_item reset_send[] = {{"status", "reset with status ", 0, 2}};
constexpr access_item mms_write[] = {{"page", "MMS page ", 0, 0}};

struct access_row {
    access_words words;
    access_call call;
};

// Indexed by access_kind.
constexpr access_row access_calls[] = {
    {{"qnm_read_register", access_scope::registers, register_read, "", nullptr}, read_register},
    {{"qnm_write_register", access_scope::registers, register_write, " sent", " verified"},
     write_register},
    {{"qnm_modify_register", access_scope::registers, register_modify, " sent", " verified"},
     modify_register},
    {{"qnm_read_eeprom", access_scope::eeprom, eeprom_read, "", nullptr}, read_eeprom},
    {{"qnm_write_eeprom", access_scope::eeprom, eeprom_write, " written", " verified"},
     write_eeprom},
    {{"qnm_unlock_eeprom", access_scope::eeprom_lock, {}, "EEPROM lock is free", nullptr},
     unlock_eeprom},
    {{"qnm_set_vlanid", access_scope::vlan, vlan_set, " sent", " announced by the card"},
     set_vlanid},
    {{"qnm_send_resetframe", access_scope::reset, reset_send, " sent", nullptr}, send_reset},
    {{"qnm_write_mmspage", access_scope::mms, mms_write, " sent", nullptr}, write_mmspage},
};

// The words lie in memory as they travel, so the bytes keep the order that they have in the file.
void read_page(const std::string& name, call_arguments& into) {
    const std::string bytes = read_file(name, sizeof into.page);
    if (bytes.size() != sizeof into.page) {
        throw error(name + " is no MMS page: it has " + std::to_string(bytes.size()) +
                    " bytes\nA page has " + std::to_string(sizeof into.page) + '.');
    }
    std::memcpy(into.page, bytes.data(), bytes.size());
}

std::vector<outcome> access_cards(context& with, const request& asked, const access_row& row,
                                  const std::vector<std::uint64_t>& ids) {
    const retry_param retry(with, asked.how);
    call_arguments arguments{asked.numbers, retry.get(), asked.how.flags, {}};
    if (!asked.file.empty()) read_page(asked.file, arguments);
    std::vector<outcome> outcomes(ids.size());
    for (std::size_t at = 0; at < ids.size(); ++at)
        outcomes[at].id = ids[at];
    const auto access = [&](std::size_t card, work_state& state) {
        outcome& own = outcomes[card];
        own.code = row.call(own.id, arguments, own.value);
        ++state.steps;
    };
    run_access_work(with, {.label = asked.asked->name,
                           .jobs = ids.size(),
                           .steps = ids.size(),
                           .run = access,
                           .give_up = {}});
    return outcomes;
}

void tell_outcomes(context& with, const std::vector<outcome>& all, const access_told& told) {
    for (const outcome& one : all) {
        if (one.code == QNM_API_SUCCESS) with.told.text(outcome_text(one, told) + '\n');
        with.told.record("result", outcome_json(one, told));
    }
}

// The exit status: that of the first card whose call failed.
int tell_failures(context& with, const std::vector<outcome>& all, const access_words& words) {
    std::size_t unreached = 0;
    int status = exit_ok;
    for (const outcome& one : all) {
        if (!one.code) ++unreached;
        if (!one.code || one.code == QNM_API_SUCCESS) continue;
        if (status == exit_ok) status = code_status(*one.code);
        tell_failure(with, access_failure(with, one.id, words.call, words.scope, *one.code),
                     one.code);
    }
    if (unreached == 0) return status;
    tell_failure(with, "ended by a signal; cards not accessed: " + std::to_string(unreached));
    return status == exit_ok ? exit_failed : status;
}

int access_and_tell(context& with, const request& asked, access_kind kind) {
    const access_row& row = access_calls[static_cast<std::size_t>(kind)];
    const auto outcomes = access_cards(with, asked, row, wanted_ids(asked));
    tell_outcomes(with, outcomes, {&row.words, asked.numbers, asked.how.flags});
    return tell_failures(with, outcomes, row.words);
}

// ---- Dumps --------------------------------------------------------------------------------------

struct dump_range {
    std::uint32_t start;
    std::uint32_t end;
};

// Where both ends are optional, the whole is that of an EEPROM.
dump_range range_of(const request& asked) {
    const auto& given = asked.numbers;
    const dump_range range{given.empty() ? 0 : given[0],
                           given.size() < 2 ? eeprom_bytes : given[1]};
    if (range.start < range.end) return range;
    throw usage_error("nothing to dump: START is not below END");
}

void tell_dump(context& with, const dump_result& of) {
    with.told.text(dump_text(of.read));
    with.told.record("dump", dump_json(of.read, of.code));
}

// What has been read is told in full when the file cannot have it.
void store_dump(context& with, const request& asked, const dump_result& of, new_file& raw) {
    const std::string bytes = to_bytes(of.read.words);
    try {
        raw.commit(bytes);
    } catch (const error&) {
        tell_dump(with, of);
        throw;
    }
    with.told.text(std::to_string(bytes.size()) + " bytes written to " + asked.raw + '\n');
    with.told.record("dump", dump_json(of.read, of.code));
}

int dump_and_tell(context& with, const request& asked, const dump_source& from) {
    const dump_range range = range_of(asked);
    wanted_ids(asked);
    std::unique_ptr<new_file> raw;
    if (!asked.raw.empty()) raw = std::make_unique<new_file>(asked.raw);
    const dump_result result = read_dump(with, from, asked, range.start, range.end);
    if (result.code != QNM_API_SUCCESS) {
        tell_dump(with, result);
        tell_failure(with,
                     incomplete_text(with, from, result, range.end) +
                         (raw == nullptr ? "" : '\n' + asked.raw + " is as it was before."),
                     result.code);
        return status_of(result.code);
    }
    if (raw != nullptr) {
        store_dump(with, asked, result, *raw);
    } else {
        tell_dump(with, result);
    }
    return exit_ok;
}

// Wrong usage and a file that cannot be written show before the manager is started.
int run_dump(context& with, const request& asked, const dump_source& from) {
    range_of(asked);
    if (!asked.raw.empty()) const new_file tried(asked.raw);
    start_and_hear(with, asked);
    return dump_and_tell(with, asked, from);
}

}  // namespace

// A file that cannot be read shows before the manager is started.
int run_access_kind(context& with, const request& asked, access_kind kind) {
    call_arguments tried{asked.numbers, nullptr, 0, {}};
    if (!asked.file.empty()) read_page(asked.file, tried);
    start_and_hear(with, asked);
    return access_and_tell(with, asked, kind);
}

void answer_access_kind(context& with, const request& asked, access_kind kind) {
    access_and_tell(with, asked, kind);
}

int run_reg_dump(context& with, const request& asked) {
    return run_dump(with, asked, register_source);
}

void answer_reg_dump(context& with, const request& asked) {
    dump_and_tell(with, asked, register_source);
}

int run_eeprom_dump(context& with, const request& asked) {
    return run_dump(with, asked, eeprom_source);
}

void answer_eeprom_dump(context& with, const request& asked) {
    dump_and_tell(with, asked, eeprom_source);
}

// ---- loglevel -----------------------------------------------------------------------------------

void answer_loglevel(context& with, const request& asked) {
    const qnm_api_code_t code = qnm_set_loglevel(asked.level);
    if (code != QNM_API_SUCCESS) throw failed_call("qnm_set_loglevel", code);
    with.told.text(std::string("log level ") + level_word(asked.level) + '\n');
    with.told.record("loglevel", {{"level", level_word(asked.level)}, {"result", code_name(code)}});
}

int run_loglevel(context& with, const request& asked) {
    start(with);
    answer_loglevel(with, asked);
    listen_and_tell(with, asked);
    return exit_ok;
}

}  // namespace qnmctl
