// capture: frames on the ports into a pcapng file.
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <algorithm>

#include "cli/options.h"
#include "common/standard_files.h"
#include "frames/capture.h"
#include "frames/commands.h"
#include "frames/frame_text.h"
#include "installation/config_file.h"
#include "manager/listen.h"

namespace qnmctl {

namespace {

constexpr char capture_help[] =
    "Captures every frame that the ports receive or this host sends there. If managers drop a\n"
    "frame, its comment has the reason. No manager need run, and a running one is not disturbed.\n"
    "Ctrl-C ends the capture and leaves a complete file. An older file is replaced.";

constexpr example capture_examples[] = {
    {"qnmctl capture --for 10 cards.pcapng", "Ten seconds of frames into a file"},
    {"qnmctl capture - | wireshark -k -i -", "Frames live in Wireshark"},
};

constexpr char standard_file[] = "-";

struct capture_command_options {
    std::string file = {};
    int snaplen = default_snaplen;
    double seconds = 0;
    std::uint64_t count = 0;
};

void check_standard_output(const context& with) {
    if (!with.results.is_text()) {
        throw usage_error("standard output takes either the capture or JSON\nName a file.");
    }
    if (isatty(STDOUT_FILENO) == 1) {
        throw usage_error("a capture is nothing for a terminal\nName a file, or write to a pipe.");
    }
}

void tell_captured(context& with, const captured& result, const std::string& file) {
    const std::string text = captured_text(result);
    if (file == standard_file) {
        tools::tell(text);
        return;
    }
    with.results.text(text);
    with.results.record("capture", captured_json(result, file));
}

int run_capture(context& with, const capture_command_options& options) {
    if (options.file == standard_file) check_standard_output(with);
    const std::string config = read_config(with.where.config());
    const captured result =
        capture_to_file({.ports = configured_ports(config),
                         .rules = configured_rules(config),
                         .snaplen = options.snaplen,
                         .seconds = options.seconds,
                         .count = options.count,
                         .signals = with.signals,
                         .warn = [](const std::string& text) { tools::tell(message_text(text)); }},
                        options.file);
    tell_captured(with, result, options.file);
    if (!result.lost.empty()) {
        tell_failure(with, result.lost);
        if (!result.signalled) return tools::exit_output;
    }
    const auto failed = [](const captured_port& port) { return !port.problem.empty(); };
    return std::all_of(result.ports.begin(), result.ports.end(), failed) ? exit_failed : exit_ok;
}

}  // namespace

void define_capture(command_tree& tree) {
    if (tree.use == used_for::lines) return;
    const auto capture = add_command_with<capture_command_options>(
        tree, {"capture", "Captures frames into a file", capture_help, capture_examples});
    capture.self.endless = true;
    add_operand(capture.self, "FILE", "pcapng file to write, or - for standard output",
                file_name(capture.options.file));
    add_option(
        capture.self,
        {"--snaplen", "BYTES", "Bytes to capture of each frame (default: 1024, as managers do)"},
        number(capture.options.snaplen, {.least = 64, .most = 262144}));
    add_seconds(capture.self, capture.options.seconds);
    add_count(capture.self, capture.options.count, "End after this many frames");
    add_output(capture.self);
    set_run(capture, run_capture);
}

}  // namespace qnmctl
