// eeprom restore: makes a card's EEPROM hold what an image file holds.
//
// Only words that differ are written, so a restore that was interrupted or failed is continued by
// running it again.
#include <nlohmann/json.hpp>

#include "access/access.h"
#include "access/commands.h"
#include "cli/options.h"
#include "manager/listen.h"
#include "output/text.h"

namespace qnmctl {

namespace {

constexpr char restore_help[] =
    "Reads the EEPROM, shows the words that differ from the image, asks, and then writes and\n"
    "verifies them one by one. An image that is shorter than the EEPROM is that of its beginning.\n"
    "Ctrl-C ends it between two words; the same command writes the rest.";

constexpr example restore_examples[] = {
    {"qnmctl eeprom restore 0x020000001000 card.bin",
     "Writes the words that differ, after a question"},
};

struct restore_options {
    access_options access = {};
    std::string file = {};
    bool yes = false;
};

struct restore_result {
    std::size_t written = 0;
    std::optional<qnm_api_code_t> code = QNM_API_SUCCESS;  // nothing: ended by a signal
};

restore_result write_words(context& with, const restore_options& options,
                           const std::vector<difference>& changes) {
    const retry_param retry(with, options.access);
    restore_result result;
    const auto write = [&](std::size_t, work_state& state) {
        for (const difference& change : changes) {
            if (state.ending) return;
            result.code = qnm_write_eeprom(options.access.id(), change.addr, change.after,
                                           retry.get(), options.access.flags | QNM_FLAG_VERIFY);
            if (result.code != QNM_API_SUCCESS) return;
            state.steps = ++result.written;
        }
    };
    run_access_work(
        with, {.label = "eeprom restore", .steps = changes.size(), .run = write, .give_up = {}});
    const bool ended = result.code == QNM_API_SUCCESS && result.written < changes.size();
    if (ended) result.code.reset();
    return result;
}

void tell_result(context& with, const restore_options& options,
                 const std::vector<difference>& changes, const restore_result& result) {
    const std::string count = std::to_string(result.written);
    with.results.text(changes.empty() ? "the EEPROM holds the image already\n"
                                      : "words written and verified: " + count + '\n');
    with.results.record("restore", {{"id", id_text(options.access.id())},
                                    {"file", options.file},
                                    {"differences", difference_json(changes)},
                                    {"written", result.written},
                                    {"result", code_json(result.code)}});
    if (result.code == QNM_API_SUCCESS) return;
    const std::string reason = result.code
                                   ? access_failure(with, options.access.id(), "qnm_write_eeprom",
                                                    access_scope::eeprom, *result.code)
                                   : id_text(options.access.id()) + ": ended by a signal";
    tell_failure(with,
                 reason + "\nOf " + std::to_string(changes.size()) + " words " + count +
                     " were written. The same command writes the rest.",
                 result.code);
}

int run_restore(context& with, const restore_options& options) {
    if (!options.yes) check_can_ask(with);
    const word_list image = read_image(options.file, eeprom_bytes);
    const auto end = static_cast<std::uint32_t>(image.size() * word_bytes);
    start_and_hear(with, options.access);
    wanted_ids(options.access);
    const dump_result before = read_dump(with, eeprom_source, options.access, 0, end);
    if (before.code != QNM_API_SUCCESS) {
        tell_failure(with,
                     incomplete_text(with, eeprom_source, before, end) + "\nNothing was written.",
                     before.code);
        return status_of(before.code);
    }
    const std::vector<difference> changes = differences(before.read.words, image);
    with.results.text(difference_text(changes));
    const std::string question = "Write " + std::to_string(changes.size()) +
                                 " words to the EEPROM of card " + id_text(options.access.id()) +
                                 '?';
    if (!changes.empty() && !options.yes && !is_confirmed(with, question)) {
        throw error("nothing was written");
    }
    const restore_result result = write_words(with, options, changes);
    tell_result(with, options, changes, result);
    return status_of(result.code);
}

}  // namespace

void define_eeprom_restore(command_tree& tree) {
    if (tree.use == used_for::lines) return;
    const auto restore = add_command_with<restore_options>(
        tree, {"eeprom restore", "Writes an image to the EEPROM", restore_help, restore_examples});
    access_options& access = restore.options.access;
    add_one_card(restore.self, access);
    add_operand(restore.self, "FILE", "Image, as --raw of a dump writes it",
                file_name(restore.options.file));
    add_retry(restore.self, access);
    add_livecheck(restore.self, access);
    add_force_lock(restore.self, access);
    add_yes(restore.self, restore.options.yes);
    add_wait(restore.self, access);
    add_output(restore.self);
    set_run(restore, run_restore);
}

}  // namespace qnmctl
