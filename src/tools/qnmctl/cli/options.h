// Options that several commands share, and the global ones.
#pragma once

#include <optional>

#include "cli/command.h"

namespace qnmctl {

inline constexpr char id_help[] = "Card ID, as 0x001122334455 or 00:11:22:33:44:55";

// --dir, --ports and so on, before or after the command.
void add_globals(command_tree& tree);

// Takes the ports from QNMCTL_PORTS, where neither --ports nor --dir is given.
void take_default_ports(settings& global);

// What is wrong with the combination of the global options.
refusal wrong_globals(const settings& global);

// An operand that is one card.
void add_card(command& to, std::uint64_t& id);

// IDs, or --all, --kind and --group instead. To be added before all operands.
void add_cards(command& to, selection& cards);

// --card, --kind and --group, which filter cards.
void add_card_filter(command& to, selection& cards);
void add_card_option(command& to, std::vector<std::uint64_t>& ids);
void add_kind_and_group(command& to, selection& cards);

// --for. The target holds the default, 0 for no limit.
void add_seconds(command& to, double& target, const char* help = "Seconds to listen");

// --count, of events or frames.
void add_count(command& to, std::uint64_t& target, const char* help);

// -o and --json. Whether the command streams must be set before.
void add_output(command& to);
void add_output_with_graph(command& to);

// The words of --log-level, in the order of qnm_log_level_t.
std::span<const char* const> log_level_words();

// "none" for anything that is not a level.
const char* level_word(qnm_log_level_t level);

}  // namespace qnmctl
