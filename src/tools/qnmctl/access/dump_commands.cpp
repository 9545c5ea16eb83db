// reg dump and eeprom dump: consecutive words of one card.
#include <memory>
#include <nlohmann/json.hpp>

#include "access/access.h"
#include "access/commands.h"
#include "cli/options.h"
#include "manager/listen.h"
#include "output/text.h"

namespace qnmctl {

namespace {

constexpr char dump_help[] =
    "Four words a line: address, words, and their bytes as text. --raw writes the bytes to a file\n"
    "by ascending address, the least significant one of each word first; the file appears whole\n"
    "or not at all. Ctrl-C ends the dump between two words.";

constexpr example reg_dump_examples[] = {
    {"qnmctl reg dump 0x020000001000 0x1000 0x1040", "Sixteen registers"},
};

constexpr example eeprom_dump_examples[] = {
    {"qnmctl eeprom dump 0x020000001000", "The whole EEPROM, as hexadecimal digits and text"},
    {"qnmctl eeprom dump 0x020000001000 --raw card.bin", "An image for eeprom restore"},
};

struct dump_options {
    access_options access = {};
    std::uint32_t start = 0;
    std::uint32_t end = eeprom_bytes;
    std::string raw = {};
};

void check_range(const dump_options& options) {
    if (options.start < options.end) return;
    throw usage_error("nothing to dump: START is not below END");
}

void tell_dump(context& with, const dump_result& result) {
    with.results.text(dump_text(result.read));
    with.results.record("dump", dump_json(result.read, result.code));
}

// Prints what has been read if the file cannot be written.
void store_dump(context& with, const dump_options& options, const dump_result& result,
                new_file& raw) {
    const std::string bytes = to_bytes(result.read.words);
    try {
        raw.commit(bytes);
    } catch (const error&) {
        tell_dump(with, result);
        throw;
    }
    with.results.text(std::to_string(bytes.size()) + " bytes written to " + options.raw + '\n');
    with.results.record("dump", dump_json(result.read, result.code));
}

int dump_and_tell(context& with, const dump_options& options, const dump_source& from) {
    check_range(options);
    wanted_ids(options.access);
    std::unique_ptr<new_file> raw;
    if (!options.raw.empty()) raw = std::make_unique<new_file>(options.raw);
    const dump_result result = read_dump(with, from, options.access, options.start, options.end);
    if (result.code != QNM_API_SUCCESS) {
        tell_dump(with, result);
        tell_failure(with,
                     incomplete_text(with, from, result, options.end) +
                         (raw == nullptr ? "" : '\n' + options.raw + " is as it was before."),
                     result.code);
        return status_of(result.code);
    }
    if (raw != nullptr) {
        store_dump(with, options, result, *raw);
    } else {
        tell_dump(with, result);
    }
    return exit_ok;
}

// Wrong usage and a file that cannot be written are found before the manager is started.
template <const dump_source& From>
int run_dump(context& with, const dump_options& options) {
    check_range(options);
    if (!options.raw.empty()) const new_file tried(options.raw);
    start_and_hear(with, options.access);
    return dump_and_tell(with, options, From);
}

template <const dump_source& From>
void answer_dump(context& with, const dump_options& options) {
    dump_and_tell(with, options, From);
}

void add_raw(command& to, dump_options& options) {
    add_option(to, {"--raw", "FILE", "Write the bytes to a file"}, file_name(options.raw));
}

}  // namespace

void define_reg_dump(command_tree& tree) {
    const auto dump = add_command_with<dump_options>(
        tree,
        {"reg dump", "Reads the registers from START up to END", dump_help, reg_dump_examples});
    add_one_card(dump.self, dump.options.access);
    add_operand(dump.self, "START", "Address of the first register",
                number(dump.options.start, {.most = last_register, .step = word_bytes}));
    add_operand(
        dump.self, "END", "Address behind the last register",
        number(dump.options.end,
               {.least = word_bytes, .most = last_register + word_bytes, .step = word_bytes}));
    add_retry(dump.self, dump.options.access);
    add_livecheck(dump.self, dump.options.access);
    add_raw(dump.self, dump.options);
    add_wait(dump.self, dump.options.access);
    add_output(dump.self);
    set_run(dump, run_dump<register_source>);
    set_answer(dump, answer_dump<register_source>);
}

void define_eeprom_dump(command_tree& tree) {
    const auto dump = add_command_with<dump_options>(
        tree, {"eeprom dump", "Reads the EEPROM, or the part from START up to END", dump_help,
               eeprom_dump_examples});
    add_one_card(dump.self, dump.options.access);
    add_operand(dump.self, "START", "Address of the first word (default: 0)",
                number(dump.options.start, {.most = eeprom_bytes - word_bytes, .step = word_bytes}),
                presence::optional);
    add_operand(
        dump.self, "END", "Address behind the last word (default: 2048)",
        number(dump.options.end, {.least = word_bytes, .most = eeprom_bytes, .step = word_bytes}),
        presence::optional);
    add_retry(dump.self, dump.options.access);
    add_livecheck(dump.self, dump.options.access);
    add_force_lock(dump.self, dump.options.access);
    add_raw(dump.self, dump.options);
    add_wait(dump.self, dump.options.access);
    add_output(dump.self);
    set_run(dump, run_dump<eeprom_source>);
    set_answer(dump, answer_dump<eeprom_source>);
}

}  // namespace qnmctl
