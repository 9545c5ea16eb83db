// One call of the library for each of the cards that are named.
#include "access/commands.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>

#include "access/access.h"
#include "cli/options.h"
#include "manager/listen.h"
#include "output/text.h"

namespace qnmctl {

namespace {

constexpr std::size_t mms_words = 32;

// The arguments of a call, beside the card.
struct call_arguments {
    const operand_numbers& numbers;
    const qnm_retry_t* retry;
    std::uint32_t flags;
    std::uint32_t page[mms_words];
};

using access_call = qnm_api_code_t (*)(std::uint64_t, const call_arguments&, std::uint32_t&);

qnm_api_code_t read_register(std::uint64_t id, const call_arguments& arguments,
                             std::uint32_t& value) {
    return qnm_read_register(id, arguments.numbers[0], &value, arguments.retry, arguments.flags);
}
qnm_api_code_t write_register(std::uint64_t id, const call_arguments& arguments, std::uint32_t&) {
    return qnm_write_register(id, arguments.numbers[0], arguments.numbers[1], arguments.retry,
                              arguments.flags);
}
qnm_api_code_t modify_register(std::uint64_t id, const call_arguments& arguments, std::uint32_t&) {
    return qnm_modify_register(id, arguments.numbers[0], arguments.numbers[1], arguments.numbers[2],
                               arguments.retry, arguments.flags);
}
qnm_api_code_t read_eeprom(std::uint64_t id, const call_arguments& arguments,
                           std::uint32_t& value) {
    return qnm_read_eeprom(id, arguments.numbers[0], &value, arguments.retry, arguments.flags);
}
qnm_api_code_t write_eeprom(std::uint64_t id, const call_arguments& arguments, std::uint32_t&) {
    return qnm_write_eeprom(id, arguments.numbers[0], arguments.numbers[1], arguments.retry,
                            arguments.flags);
}
qnm_api_code_t unlock_eeprom(std::uint64_t id, const call_arguments&, std::uint32_t&) {
    return qnm_unlock_eeprom(id);
}
qnm_api_code_t set_vlanid(std::uint64_t id, const call_arguments& arguments, std::uint32_t&) {
    return qnm_set_vlanid(id, static_cast<std::uint16_t>(arguments.numbers[0]), arguments.retry,
                          arguments.flags);
}
qnm_api_code_t send_reset(std::uint64_t id, const call_arguments& arguments, std::uint32_t&) {
    return qnm_send_resetframe(id, static_cast<unsigned char>(arguments.numbers[0]),
                               arguments.retry, arguments.flags);
}
// The library takes a pointer to non-const words, so the page is copied.
qnm_api_code_t write_mmspage(std::uint64_t id, const call_arguments& arguments, std::uint32_t&) {
    std::uint32_t page[mms_words];
    std::copy(std::begin(arguments.page), std::end(arguments.page), page);
    return qnm_write_mmspage(id, arguments.numbers[0], page, arguments.flags);
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

// ---- The table ----------------------------------------------------------------------------------

constexpr std::uint64_t last_eeprom_word = eeprom_bytes - word_bytes;

struct number_operand {
    const char* name;
    const char* help;
    limits allowed = {};
};

constexpr number_operand reg_addr = {"ADDR",
                                     "Address of the register, a multiple of 4",
                                     {.most = last_register, .step = word_bytes}};
constexpr number_operand eeprom_addr = {"ADDR",
                                        "Address in the EEPROM, a multiple of 4 up to 2044",
                                        {.most = last_eeprom_word, .step = word_bytes}};
constexpr number_operand new_value = {"VALUE", "The word, 32 bits"};
constexpr number_operand mask = {"MASK", "The bits of it that count; others are kept"};

constexpr number_operand reg_addr_only[] = {reg_addr};
constexpr number_operand reg_addr_value[] = {reg_addr, new_value};
constexpr number_operand reg_addr_value_mask[] = {reg_addr, new_value, mask};
constexpr number_operand eeprom_addr_only[] = {eeprom_addr};
constexpr number_operand eeprom_addr_value[] = {eeprom_addr, new_value};
constexpr number_operand vlan_id[] = {
    {"VLANID", "New VLAN ID (group), 16 to 4094", {.least = 16, .most = 4094}}};
constexpr number_operand reset_status[] = {
    {"STATUS", "Status byte of the reset frame", {.most = 0xFF}}};
constexpr number_operand mms_page[] = {{"PAGE", "Number of the page, 0 to 1023", {.most = 1023}}};

// A macro, so that it can be concatenated with other literals.
#define MANY_CARDS_HELP                                                                            \
    "Several IDs, or --all, --kind and --group, access many cards at once; results are printed\n"  \
    "in the order of the IDs, and the exit status is that of the first one that failed. Numbers\n" \
    "are decimal, 0x1F or 0b11."

#define MANY_CHANGES_HELP                                                                          \
    MANY_CARDS_HELP                                                                                \
    "\nBefore more than one card is changed, or those that an option chooses, the command asks;\n" \
    "without a terminal it needs --yes."

constexpr char unlock_help[] =
    "Takes the lock away from every other party. An access of theirs that is under way goes "
    "wrong.\n" MANY_CARDS_HELP;

constexpr char reset_help[] =
    "The frame goes to the broadcast address on the card's VLAN, over the card's path: every card\n"
    "there can hear it. It is not answered.\n" MANY_CHANGES_HELP;

constexpr char mms_help[] =
    "Every card that is named gets the page; the cards do not acknowledge it. A multi-root card\n"
    "is a QNIO card of version 1.\n" MANY_CARDS_HELP;

// Options that some of the commands have.
enum option_bit : unsigned {
    with_retry = 1U << 0,  // --retries and --interval
    with_livecheck = 1U << 1,
    with_verify = 1U << 2,
    with_force_lock = 1U << 3,
    with_page_file = 1U << 4,  // the operand behind the numbers
    with_question = 1U << 5,   // whether many cards shall be changed
};
constexpr unsigned with_reach = with_retry | with_livecheck;

struct access_row {
    command_texts texts;
    std::span<const number_operand> operands;
    unsigned options;
    access_words words;
    access_call call;
};

constexpr example reg_read_examples[] = {
    {"qnmctl reg read 0x020000001000 0x1000", "A register of a card"},
    {"qnmctl reg read --kind qnsv 0x1000", "The same register of all QNSV cards"},
};
constexpr example reg_write_examples[] = {
    {"qnmctl reg write --verify 0x020000001000 0x1000 0x1", "Writes a register and reads it back"},
};
constexpr example reg_modify_examples[] = {
    {"qnmctl reg modify 0x020000001000 0x1000 0x10 0xf0",
     "Sets bits 4 to 7 to 1, and leaves the others"},
};
constexpr example eeprom_read_examples[] = {
    {"qnmctl eeprom read 0x020000001000 0x10", "A word of a card's EEPROM"},
};
constexpr example eeprom_write_examples[] = {
    {"qnmctl eeprom write --verify 0x020000001000 0x10 0x1", "Writes a word and reads it back"},
};
constexpr example eeprom_unlock_examples[] = {
    {"qnmctl eeprom unlock 0x020000001000", "Frees the lock, whoever holds it"},
};
constexpr example vlan_examples[] = {
    {"qnmctl vlan --verify 0x020000001000 20",
     "Sets the VLAN ID and waits until the card announces it"},
};
constexpr example reset_examples[] = {
    {"qnmctl reset 0x020000001000 1", "Sends a reset with status 1"},
};
constexpr example mms_examples[] = {
    {"qnmctl mms 0x020000005000 0 page.bin", "Writes page 0 from a file of 128 bytes"},
};

constexpr access_row reg_rows[] = {
    {{"reg read", "Reads a register", MANY_CARDS_HELP, reg_read_examples},
     reg_addr_only,
     with_reach,
     {"qnm_read_register", access_scope::registers, register_read, "", nullptr},
     read_register},
    {{"reg write", "Writes a register", MANY_CARDS_HELP, reg_write_examples},
     reg_addr_value,
     with_reach | with_verify,
     {"qnm_write_register", access_scope::registers, register_write, " sent", " verified"},
     write_register},
    {{"reg modify", "Changes some bits of a register", MANY_CARDS_HELP, reg_modify_examples},
     reg_addr_value_mask,
     with_reach | with_verify,
     {"qnm_modify_register", access_scope::registers, register_modify, " sent", " verified"},
     modify_register},
};

constexpr access_row eeprom_rows[] = {
    {{"eeprom read", "Reads a word of the EEPROM", MANY_CARDS_HELP, eeprom_read_examples},
     eeprom_addr_only,
     with_reach | with_force_lock,
     {"qnm_read_eeprom", access_scope::eeprom, eeprom_read, "", nullptr},
     read_eeprom},
    {{"eeprom write", "Writes a word of the EEPROM", MANY_CHANGES_HELP, eeprom_write_examples},
     eeprom_addr_value,
     with_reach | with_verify | with_force_lock | with_question,
     {"qnm_write_eeprom", access_scope::eeprom, eeprom_write, " written", " verified"},
     write_eeprom},
    {{"eeprom unlock", "Frees an EEPROM lock that another party holds", unlock_help,
      eeprom_unlock_examples},
     {},
     0,
     {"qnm_unlock_eeprom", access_scope::eeprom_lock, {}, "EEPROM lock is free", nullptr},
     unlock_eeprom},
};

constexpr access_row card_rows[] = {
    {{"vlan", "Sets the VLAN ID of a card", MANY_CHANGES_HELP, vlan_examples},
     vlan_id,
     with_reach | with_verify | with_question,
     {"qnm_set_vlanid", access_scope::vlan, vlan_set, " sent", " announced by the card"},
     set_vlanid},
    {{"reset", "Sends a reset frame", reset_help, reset_examples},
     reset_status,
     with_question,
     {"qnm_send_resetframe", access_scope::reset, reset_send, " sent", nullptr},
     send_reset},
    {{"mms", "Writes an MMS page of a multi-root QNIO card", mms_help, mms_examples},
     mms_page,
     with_livecheck | with_page_file,
     {"qnm_write_mmspage", access_scope::mms, mms_write, " sent", nullptr},
     write_mmspage},
};

struct call_options {
    const access_row* row = nullptr;
    access_options access = {};
    operand_numbers numbers = {};
    std::string page_file = {};
    bool yes = false;
};

bool has_question(const call_options& options) {
    const selection& cards = options.access.cards;
    const bool many = cards.ids.size() > 1 || cards.by_property();
    return many && !options.yes && (options.row->options & with_question) != 0;
}

// ---- The calls ----------------------------------------------------------------------------------

// The words lie in memory as they travel, so the bytes keep the order that they have in the file.
void read_page(const std::string& name, call_arguments& into) {
    const std::string bytes = read_file(name, sizeof into.page);
    if (bytes.size() != sizeof into.page) {
        throw error(name + " is no MMS page: it has " + std::to_string(bytes.size()) +
                    " bytes\nA page has " + std::to_string(sizeof into.page) + '.');
    }
    std::memcpy(into.page, bytes.data(), bytes.size());
}

std::vector<outcome> access_cards(context& with, const call_options& options,
                                  const std::vector<std::uint64_t>& ids) {
    const access_row& row = *options.row;
    const retry_param retry(with, options.access);
    call_arguments arguments{options.numbers, retry.get(), options.access.flags, {}};
    if (!options.page_file.empty()) read_page(options.page_file, arguments);
    std::vector<outcome> outcomes(ids.size());
    for (std::size_t at = 0; at < ids.size(); ++at)
        outcomes[at].id = ids[at];
    const auto access = [&](std::size_t card, work_state& state) {
        outcome& own = outcomes[card];
        own.code = row.call(own.id, arguments, own.value);
        ++state.steps;
    };
    run_access_work(with, {.label = row.texts.name,
                           .jobs = ids.size(),
                           .steps = ids.size(),
                           .run = access,
                           .give_up = {}});
    return outcomes;
}

void tell_outcomes(context& with, const std::vector<outcome>& all, const access_call_words& words) {
    for (const outcome& result : all) {
        if (result.code == QNM_API_SUCCESS) with.results.text(outcome_text(result, words) + '\n');
        with.results.record("result", outcome_json(result, words));
    }
}

// The exit status: that of the first card whose call failed.
int tell_failures(context& with, const std::vector<outcome>& all, const access_words& words) {
    std::size_t unreached = 0;
    int status = exit_ok;
    for (const outcome& result : all) {
        if (!result.code) ++unreached;
        if (!result.code || result.code == QNM_API_SUCCESS) continue;
        if (status == exit_ok) status = code_status(*result.code);
        tell_failure(with, access_failure(with, result.id, words.call, words.scope, *result.code),
                     result.code);
    }
    if (unreached == 0) return status;
    tell_failure(with, "ended by a signal; cards not accessed: " + std::to_string(unreached));
    return status == exit_ok ? exit_failed : status;
}

int access_and_tell(context& with, const call_options& options,
                    const std::vector<std::uint64_t>& ids) {
    const access_words& words = options.row->words;
    const auto outcomes = access_cards(with, options, ids);
    tell_outcomes(with, outcomes, {&words, options.numbers, options.access.flags});
    return tell_failures(with, outcomes, words);
}

// A command from standard input cannot be confirmed there.
void answer_call(context& with, const call_options& options) {
    if (has_question(options)) {
        throw usage_error("this would change more than one card\nAdd --yes to do it.");
    }
    access_and_tell(with, options, wanted_ids(options.access));
}

// Errors in the arguments are found before the manager is started.
int run_call(context& with, const call_options& options) {
    call_arguments tried{options.numbers, nullptr, 0, {}};
    if (!options.page_file.empty()) read_page(options.page_file, tried);
    if (has_question(options)) check_can_ask(with);
    start_and_hear(with, options.access);
    const std::vector<std::uint64_t> ids = wanted_ids(options.access);
    const std::string question = std::string(options.row->texts.name) + ": change " +
                                 std::to_string(ids.size()) +
                                 (ids.size() == 1 ? " card?" : " cards?");
    if (has_question(options) && !is_confirmed(with, question)) {
        throw error("no card was accessed");
    }
    return access_and_tell(with, options, ids);
}

void define_call(command_tree& tree, const access_row& row) {
    const auto call = add_command_with<call_options>(tree, row.texts);
    call.options.row = &row;
    access_options& access = call.options.access;
    add_cards(call.self, access.cards);
    for (std::size_t at = 0; at < row.operands.size(); ++at) {
        const number_operand& wanted = row.operands[at];
        add_operand(call.self, wanted.name, wanted.help,
                    number(call.options.numbers.at(at), wanted.allowed));
    }
    if ((row.options & with_page_file) != 0) {
        add_operand(call.self, "FILE",
                    "The 128 bytes of the page, in the order in which they travel",
                    file_name(call.options.page_file));
    }
    if ((row.options & with_retry) != 0) add_retry(call.self, access);
    if ((row.options & with_livecheck) != 0) add_livecheck(call.self, access);
    if ((row.options & with_verify) != 0) add_verify(call.self, access);
    if ((row.options & with_force_lock) != 0) add_force_lock(call.self, access);
    if ((row.options & with_question) != 0) add_yes(call.self, call.options.yes);
    add_wait(call.self, access);
    add_output(call.self);
    set_run(call, run_call);
    set_answer(call, answer_call);
}

void define_calls(command_tree& tree, std::span<const access_row> rows) {
    for (const access_row& row : rows)
        define_call(tree, row);
}

}  // namespace

void define_reg_calls(command_tree& tree) {
    define_calls(tree, reg_rows);
}

void define_eeprom_calls(command_tree& tree) {
    define_calls(tree, eeprom_rows);
}

void define_card_calls(command_tree& tree) {
    define_calls(tree, card_rows);
}

}  // namespace qnmctl
