// Writes the manual page. Options and commands come from the tables that parse them; the keys of a
// scenario are described here, a line each.
#include "man_page.h"

#include "cardsim.h"
#include "common/man_language.h"
#include "common/standard_files.h"

namespace cardsim {

namespace {

using man_language::escaped;
using man_language::heading;
using man_language::tagged;

constexpr key_text card_keys[] = {
    {"name", "What the card is called in commands; required, and unique."},
    {"kind", "\"qnsv\", a server card, or \"qnio\", an I/O card; required."},
    {"speed", "\"1g10g\" or \"40g\"; required."},
    {"id", "Card ID; required, and even on a 40G card."},
    {"heard", "List of the paths it is heard on, as \"P0M1\": port 0, path 1. Default: all."},
    {"count", "Makes so many cards of this one, whose names end with a number. Up to 1000000."},
    {"step", "What the ID of each of them is above that of the one before. Default: 2."},
    {"burst", "true: all of them announce themselves at once, and not spread over the interval."},
    {"up_port", "Table of the server card's upstream port; see Bridges."},
    {"down_port", "Tables of the server card's downstream ports, each with its \"index\"."},
    {"registers", "Table of presets, address = value. All others read register_default."},
    {"eeprom", "Table of presets, address = text, which stands for its bytes, or 32-bit word."},
    {"eeprom_file", "File of 2048 bytes, loaded at the start if it is there, saved at the end."},

    {"destination", "MAC address that announcements are sent to."},
    {"ether_type", "Ethernet type of this card, in place of the scenario's."},
    {"priority", "Of the VLAN tag, 0 to 7; managers take only 4."},
    {"vlan_id", "VLAN ID, which is the card's group. Default: 1."},
    {"vlan_change_mode", "true: the Ethernet type stands in front of the VLAN tag."},
    {"flow_id_da", "Flow ID of the destination, as announced."},
    {"flow_id", "Flow ID of the card."},
    {"ver", "Format version, as announced. Default: 0 at 1G/10G, 1 at 40G."},
    {"uid_switch", "UID switch, as announced."},
    {"power", "Power bit, as announced. Default: true."},
    {"link_status", "Link-status byte, as announced."},
    {"sw_status0", "First switch-status byte, as announced."},
    {"version", "Card version, 0 to 15; 1 makes an I/O card multi-root."},
    {"port0_link", "Link of the card's own port 0. Default: true."},
    {"port1_link", "Link of the card's own port 1. Default: true."},
    {"pcie_presence", "PCIe presence of an I/O card."},
    {"int_vector", "Interrupt vector: pending errors, as announced."},
    {"io_substate0", "First substate byte of an I/O card."},
    {"io_substate1", "Second substate byte of an I/O card."},
    {"connected", "true: the I/O card is connected to its server card; a bit of io_substate1."},
    {"ser_mac", "MAC address of the server card that an I/O card is bound to."},
    {"device_id", "PCI device ID of an I/O card."},
    {"vendor_id", "PCI vendor ID of an I/O card."},
    {"class_code", "PCI class code of an I/O card, 24 bits."},
    {"link0_fault", "Link-fault bit 0 of an I/O card."},
    {"link1_fault", "Link-fault bit 1 of an I/O card."},
    {"resource_id", "Resource ID of a multi-root I/O card."},
    {"interval_ms", "Time between two announcements. Default: 1000; 0: only when told to."},
    {"phase_ms", "Wait before the first announcement."},
    {"jitter_ms", "Each interval is longer by a random time of up to this."},

    {"register_default", "Value of registers neither preset nor written. Default: 0."},
    {"vlan_frozen", "true: never takes a new VLAN ID."},
    {"id_lock", "true: the EEPROM has the ID lock in place of the bit lock."},
    {"lock_stubborn", "true: other holders of the lock take it back when a manager frees it."},
    {"lock_retake_reads", "After so many looks of a manager at the freed lock. Default: 1."},
    {"eeprom_fill", "Bytes of the EEPROM that nothing else sets. Default: 0xFF."},
    {"eeprom_packed", "1G/10G: takes packed EEPROM addresses. false: plain ones, as at 40G."},
    {"eeprom_refusing", "true: every EEPROM access is refused."},
    {"eeprom_busy_polls", "Polls that find an EEPROM command still at work. Default: 1."},

    {"fault_seed", "With the same seed the same faults come for the same frames. Default: 0."},
    {"lose_requests", "Requests that are not heard, per thousand."},
    {"lose_answers", "Answers that are not sent, per thousand."},
    {"duplicate_answers", "Answers that are sent twice, per thousand."},
    {"reorder_answers", "Answers held back until the next one has left, per thousand."},
    {"wrong_port", "Answers by the other port, per thousand."},
    {"wrong_mac", "Answers from the other path's address, per thousand."},
    {"wrong_tag", "Answers that fit no request, per thousand."},
    {"delay_min_ms", "Every answer waits for a random time between this and delay_max_ms."},
    {"delay_max_ms", "See delay_min_ms."},
    {"lose_announcements", "Announcements that are not sent, per thousand."},
    {"duplicate_announcements", "Announcements that are sent twice, per thousand."},
    {"silent_registers", "List of registers whose reads are never answered."},
};

constexpr key_text bridge_keys[] = {
    {"pri_bus_num", "Primary bus number."},
    {"sec_bus_num", "Secondary bus number."},
    {"sub_bus_num", "Subordinate bus number."},
    {"command", "Command byte."},
    {"memory_base", "Memory base."},
    {"memory_limit", "Memory limit."},
    {"pre_memory_base", "Prefetchable memory base, lower part."},
    {"pre_memory_limit", "Prefetchable memory limit, lower part."},
    {"pre_base_upper", "Prefetchable memory base, upper 32 bits."},
    {"pre_limit_upper", "Prefetchable memory limit, upper 32 bits."},
};

constexpr key_text down_port_keys[] = {
    {"port_status0", "First status byte, as announced."},
    {"port_status1", "Second status byte, as announced."},
    {"connected", "true: an I/O card is connected behind the port; a bit of port_status1."},
    {"io_mac", "MAC address of that I/O card."},
};

constexpr char description[] =
    "simulates Quillnet adapter cards on Ethernet interfaces, real or virtual: they announce "
    "themselves and answer managers, by registers, EEPROM, VLAN ID, Reset and MMS pages. It needs "
    "the capability CAP_NET_RAW. Answers to commands and the counters at the end go to standard "
    "output, what arrives from managers to standard error.";

constexpr char commands_text[] =
    "Lines of standard input look into cards and change them. CARD is the name or the ID of a "
    "card. "
    "Each line is answered by one, \"ok ...\" or \"error: ...\". The end of standard input ends "
    "the "
    "commands, not the simulation.";

constexpr char scenario_text[] =
    "A TOML file. \"ports\" lists the interfaces of the manager's port 0 and port 1, "
    "\"ether_type\" "
    "is the Ethernet type (0x88B6 where none is given), and each [[card]] is a card. Numbers may "
    "be "
    "written as 0x..., addresses as 0x020000000010 or \"02:00:00:00:00:10\". The keys of a "
    "[[card]] "
    "follow; those from destination on can be changed by the command set, too. The file is a "
    "regular one of up to 16 MiB, or a symbolic link to one, and so are the images of EEPROMs.";

constexpr char bridge_text[] = "The keys of up_port, and of each down_port.";

constexpr char down_port_text[] =
    "A down_port has, beside these, the keys of a bridge and its \"index\", 0 to 7 at 1G/10G and 0 "
    "to 15 at 40G.";

constexpr char example_scenario[] =
    ".nf\nports = [\"qsim0\"]\n\n[[card]]\nname = \"sv\"\nkind = \"qnsv\"\nspeed = \"1g10g\"\n"
    "id = 0x020000001000\nvlan_id = 10\n\n[card.registers]\n0x1000 = 0x20261121\n.fi\n";

std::string tagged_keys(std::span<const key_text> keys) {
    std::string text;
    for (const key_text& key : keys)
        text += tagged(std::string(key.name), std::string(key.help));
    return text;
}

std::string subsection(const char* title, const char* text, std::span<const key_text> keys) {
    return std::string(".SS \"") + title + "\"\n" + escaped(text) + '\n' + tagged_keys(keys);
}

std::string options_section(std::span<const option_text> options) {
    std::string text = heading("OPTIONS");
    for (const option_text& option : options)
        text += tagged(option.term, option.help + '.');
    return text;
}

std::string commands_section() {
    std::string text = heading("COMMANDS") + escaped(commands_text) + '\n';
    for (const command_text& command : command_texts())
        text += tagged(std::string(command.name) + std::string(command.usage),
                       std::string(command.help) + '.');
    return text;
}

}  // namespace

std::span<const key_text> card_key_texts() {
    return card_keys;
}

std::span<const key_text> bridge_key_texts() {
    return bridge_keys;
}

std::span<const key_text> down_port_key_texts() {
    return down_port_keys;
}

std::string man_page(std::span<const option_text> options, const std::string& version) {
    std::string text = ".\\\" Made from the tables of the program; not to be edited.\n";
    text += std::string(".TH QNM\\-CARDSIM 1 " QNM_TEXTS_DATE) + " \"libqnm " + version +
            "\" \"User Commands\"\n.nh\n.ad l\n";
    text += heading("NAME") + "qnm\\-cardsim \\- simulated Quillnet adapter cards\n";
    text += heading("SYNOPSIS") + ".B qnm\\-cardsim\n.RI [ options ]\n.I SCENARIO\n";
    text += heading("DESCRIPTION") + ".B qnm\\-cardsim\n" + escaped(description) + '\n';
    text += options_section(options) + commands_section();
    text += heading("SCENARIO") + escaped(scenario_text) + '\n' + tagged_keys(card_keys);
    text += subsection("Bridges", bridge_text, bridge_keys);
    text += subsection("Downstream ports", down_port_text, down_port_keys);
    text += heading("EXIT STATUS") + tagged("0",
                                            "The simulation was ended by \"quit\" or by SIGINT, "
                                            "SIGTERM or SIGHUP, or the scenario was "
                                            "only read.");
    text += tagged("1", "Something failed; standard error tells what.");
    text += tagged("2", "The command line was wrong.");
    text += tagged(std::to_string(tools::exit_output),
                   "Standard output was closed, its reader has gone or there was no room for more; "
                   "nothing else failed.");
    text += heading("FILES") + tagged("/usr/share/qnm/scenarios", "Scenarios to begin with.");
    text += heading("EXAMPLES") + example_scenario;
    return text + heading("SEE ALSO") + ".BR qnmctl (1),\n.BR qnm (7)\n";
}

}  // namespace cardsim
