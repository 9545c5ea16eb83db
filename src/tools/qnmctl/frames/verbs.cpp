// Captures frames into a file, and tells what is in one.
#include "frames/verbs.h"

#include <unistd.h>

#include <algorithm>

#include "common/standard_files.h"
#include "frames/card_choice.h"
#include "frames/frame_text.h"
#include "installation/config_file.h"
#include "manager/listen.h"
#include "output/text.h"

namespace qnmctl {

namespace {

constexpr char standard_file[] = "-";

// ---- capture ------------------------------------------------------------------------------------

void check_standard_output(const context& with) {
    if (!with.told.is_text()) {
        throw usage_error("standard output takes either the capture or JSON\nName a file.");
    }
    if (isatty(STDOUT_FILENO) == 1) {
        throw usage_error("a capture is nothing for a terminal\nName a file, or write to a pipe.");
    }
}

void tell_captured(context& with, const captured& told, const std::string& file) {
    const std::string text = captured_text(told);
    if (file == standard_file) {
        tools::tell(text);
        return;
    }
    with.told.text(text);
    with.told.record("capture", captured_json(told, file));
}

// ---- decode -------------------------------------------------------------------------------------

bool is_wanted(const request& asked, const frame_reading& read) {
    if (asked.dropped && !read.dropped) return false;
    const std::string word = read.kind != nullptr ? read.kind->word : other_message;
    const auto& words = asked.messages;
    return words.empty() || std::find(words.begin(), words.end(), word) != words.end();
}

void tell_frame(context& with, const request& asked, const decoded_frame& of) {
    if (!with.told.is_text()) return with.told.record("frame", frame_json(of));
    with.told.text(frame_line(of, with.how));
    if (asked.verbose) with.told.text(frame_fields_text(of.read));
}

}  // namespace

int run_capture(context& with, const request& asked) {
    if (asked.file == standard_file) check_standard_output(with);
    const std::string config = read_config(with.where.config());
    const captured told =
        capture_to_file({.ports = configured_ports(config),
                         .rules = configured_rules(config),
                         .snaplen = asked.snaplen.value_or(default_snaplen),
                         .seconds = asked.seconds,
                         .count = asked.count,
                         .signals = with.signals,
                         .warn = [](const std::string& text) { tools::tell(message_text(text)); }},
                        asked.file);
    tell_captured(with, told, asked.file);
    if (!told.lost.empty()) {
        tell_failure(with, told.lost);
        if (!told.signalled) return tools::exit_output;
    }
    const auto failed = [](const captured_port& of) { return !of.problem.empty(); };
    return std::all_of(told.ports.begin(), told.ports.end(), failed) ? exit_failed : exit_ok;
}

int run_decode(context& with, const request& asked) {
    const frame_rules rules = configured_rules(read_config(with.where.config()));
    capture_file from(asked.file, with.signals);
    answers matched(rules);
    card_choice cards(asked.cards.ids);
    std::uint64_t shown = 0;
    while (!with.out.closed() && !is_signalled(with)) {
        const auto frame = from.next();
        if (!frame) break;
        decoded_frame of = {*frame, read_frame(frame->bytes, rules), std::nullopt};
        of.answered = matched.take(of.read, frame->number, frame->nanoseconds);
        const bool chosen = cards.take(of.read);
        if (!chosen || !is_wanted(asked, of.read)) continue;
        tell_frame(with, asked, of);
        if (++shown == asked.count) break;
    }
    return exit_ok;
}

}  // namespace qnmctl
