// decode: prints the frames in a capture file.
#include <algorithm>
#include <nlohmann/json.hpp>

#include "cli/options.h"
#include "frames/card_choice.h"
#include "frames/commands.h"
#include "frames/frame_text.h"
#include "installation/config_file.h"
#include "manager/listen.h"

namespace qnmctl {

namespace {

constexpr char decode_help[] =
    "A line for each frame: number, local time, interface (if a pcapng file has it, and it is not\n"
    "read from standard input), direction, ID of the card, and message. A frame that managers\n"
    "drop has the reason, a Completion the frame of its Register Read and the time since. JSON\n"
    "always has all fields. ether_type, tag_min and tag_max are those of the configuration.";

constexpr example decode_examples[] = {
    {"qnmctl decode cards.pcapng", "A line for each frame"},
    {"qnmctl decode -v cards.pcapng", "All fields of each frame"},
};

constexpr const char* message_words[] = {"devinfo",       "notify",    "completion",
                                         "reset",         "vlan-set",  "register-write",
                                         "register-read", "mms-write", "other"};

struct decode_options {
    std::string file = {};
    std::vector<std::uint64_t> cards = {};
    std::vector<std::string> messages = {};  // empty: every message
    bool dropped = false;
    bool verbose = false;
    std::uint64_t count = 0;
};

bool is_wanted(const decode_options& options, const frame_reading& frame) {
    if (options.dropped && !frame.dropped) return false;
    const std::string word = frame.kind != nullptr ? frame.kind->word : other_message;
    const auto& words = options.messages;
    return words.empty() || std::find(words.begin(), words.end(), word) != words.end();
}

void tell_frame(context& with, const decode_options& options, const decoded_frame& frame) {
    if (!with.results.is_text()) return with.results.record("frame", frame_json(frame));
    with.results.text(frame_line(frame, with.how));
    if (options.verbose) with.results.text(frame_fields_text(frame.read));
}

int run_decode(context& with, const decode_options& options) {
    const frame_rules rules = configured_rules(read_config(with.where.config()));
    capture_file file(options.file, with.signals);
    answers matched(rules);
    card_choice cards(options.cards);
    std::uint64_t shown = 0;
    while (!with.out.closed() && !is_signalled(with)) {
        const auto captured = file.next();
        if (!captured) break;
        decoded_frame frame = {*captured, read_frame(captured->bytes, rules), std::nullopt};
        frame.answered = matched.take(frame.read, captured->number, captured->nanoseconds);
        const bool chosen = cards.take(frame.read);
        if (!chosen || !is_wanted(options, frame.read)) continue;
        tell_frame(with, options, frame);
        if (++shown == options.count) break;
    }
    return exit_ok;
}

}  // namespace

void define_decode(command_tree& tree) {
    if (tree.use == used_for::lines) return;
    const auto decode = add_command_with<decode_options>(
        tree, {"decode", "Prints what the frames in a file contain", decode_help, decode_examples});
    decode.self.endless = true;
    add_operand(decode.self, "FILE", "pcap or pcapng file to read, or - for standard input",
                file_name(decode.options.file));
    add_card_option(decode.self, decode.options.cards);
    add_option(decode.self, {"--message", "MESSAGE", "Only messages of this name; repeatable"},
               some_of(decode.options.messages, message_words));
    add_flag(decode.self, "--dropped", "Only frames that managers drop", decode.options.dropped);
    add_flag(decode.self, "-v,--verbose", "Every field of every frame", decode.options.verbose);
    add_count(decode.self, decode.options.count, "End after this many frames");
    add_output(decode.self);
    set_run(decode, run_decode);
}

}  // namespace qnmctl
