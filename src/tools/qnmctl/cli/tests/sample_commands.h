// Commands of the tests' own, one for each kind of option and operand.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/command.h"
#include "cli/options.h"

namespace qnmctl {

// What all of them store their values in.
struct sample_options {
    selection cards = {};
    std::uint64_t id = 0;
    std::optional<std::uint32_t> addr = {};
    std::optional<std::uint32_t> word = {};
    std::optional<std::uint32_t> start = {};
    std::optional<std::uint32_t> end = {};
    std::optional<std::uint32_t> retries = {};
    std::optional<double> wait = {};
    std::string file = {};
    std::string shell = {};
    std::vector<std::string> events = {};
    std::vector<std::string> rest = {};
    std::uint32_t flags = 0;
    bool verbose = false;
    double seconds = 0;        // of watch and screen
    double show_seconds = 10;  // of show
    std::uint64_t count = 0;
};

inline constexpr std::uint32_t verify_bit = 4;
inline constexpr const char* sample_shells[] = {"bash", "zsh"};
inline constexpr const char* sample_events[] = {"NEW", "GONE", "CHANGED"};

// `given` lives as long as the tree.
inline void define_sample_commands(command_tree& tree, sample_options& given) {
    const bool lines = tree.use == used_for::lines;
    add_globals(tree);
    if (!lines) {
        command& watch = add_command(tree, {"watch", "Watches"});
        watch.streams = true;
        add_card_filter(watch, given.cards);
        add_option(watch, {"--event", "EVENT", "Only these"}, some_of(given.events, sample_events));
        add_seconds(watch, given.seconds);
        add_count(watch, given.count, "End after this many events");
        add_output(watch);
        add_output_with_graph(add_command(tree, {"graph", "Draws"}));
        command& rest = add_command(tree, {"rest", "Takes all"});
        hide(rest);
        add_rest(rest, "WORD", given.rest);
        add_seconds(add_command(tree, {"screen", "Shows"}), given.seconds, "Seconds to run");
    }
    command& show = add_command(tree, {"show", "Shows", "More of it."});
    add_card(show, given.id);
    add_seconds(show, given.show_seconds);
    add_output(show);
    command& stats = add_command(tree, {"stats", "Dumps"});
    add_flag(stats, "-v,--verbose", "All of it", given.verbose);
    add_output(stats);
    command& start = add_command(tree, {"start", "Starts"});
    add_operand(start, "SHELL", "bash or zsh", one_of(given.shell, sample_shells));
    add_card(start, given.id);
    add_group(tree, "reg", "Registers");
    command& read = add_command(tree, {"reg read", "Reads"});
    add_cards(read, given.cards);
    add_operand(read, "ADDR", "Where", number(given.addr, {.most = 0xFFC, .step = 4}));
    add_option(read, {"--retries", "N", "How often"}, number(given.retries));
    if (!lines) add_option(read, {"--wait", "SECONDS", "How long"}, seconds(given.wait));
    command& write = add_command(tree, {"reg write", "Writes"});
    add_cards(write, given.cards);
    add_operand(write, "ADDR", "Where", number(given.addr, {.most = 0xFFC, .step = 4}));
    add_operand(write, "VALUE", "What", number(given.word));
    add_flag(write, "--verify", "Look again", given.flags, verify_bit);
    add_group(tree, "eeprom", "EEPROMs");
    command& dump = add_command(tree, {"eeprom dump", "Dumps"});
    add_card(dump, given.id);
    add_operand(dump, "START", "From", number(given.start), presence::optional);
    add_operand(dump, "END", "To", number(given.end), presence::optional);
    add_option(dump, {"--raw", "FILE", "Into"}, file_name(given.file));
    command& unlock = add_command(tree, {"eeprom unlock", "Unlocks"});
    add_cards(unlock, given.cards);
    if (lines) {
        add_command(tree, {"quit", "Ends"});
        return;
    }
    command& restore = add_command(tree, {"eeprom restore", "Restores"});
    add_card(restore, given.id);
    add_operand(restore, "FILE", "Image", file_name(given.file));
}

}  // namespace qnmctl
