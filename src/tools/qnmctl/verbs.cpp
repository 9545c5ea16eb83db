// The table of verbs, and the operands behind them.
//
// A new verb is a row here, with a function that tells what it finds to the writer, and a row in
// options.cpp for each option that no other verb has. Help, completion and manual page follow from
// the rows; a record of a new name belongs into the schema, too.
#include "verbs.h"

#include "access/access.h"
#include "access/verbs.h"
#include "cards/verbs.h"
#include "doctor/verb.h"
#include "frames/verbs.h"
#include "help_verbs.h"
#include "report/verb.h"
#include "top/top.h"

namespace qnmctl {

namespace {

constexpr unsigned takes_limits = takes_for | takes_count;
constexpr unsigned takes_cards = takes_ids | takes_wait;  // one or many
constexpr unsigned takes_card = takes_id | takes_wait;    // one alone
constexpr unsigned takes_reach = takes_retry | takes_livecheck;

constexpr double seconds_to_hear = 10;

constexpr std::uint64_t last_register = 0x3FFFFC;  // cards see the low 22 bits of an address
constexpr std::uint64_t last_eeprom_word = eeprom_bytes - word_bytes;

constexpr operand reg_addr = {.name = "ADDR",
                              .help = "Address of the register, a multiple of 4",
                              .most = last_register,
                              .step = word_bytes};
constexpr operand eeprom_addr = {.name = "ADDR",
                                 .help = "Address in the EEPROM, a multiple of 4 up to 2044",
                                 .most = last_eeprom_word,
                                 .step = word_bytes};
constexpr operand value = {.name = "VALUE", .help = "The word, 32 bits"};
constexpr operand mask = {.name = "MASK", .help = "The bits of it that count; others are kept"};

constexpr operand reg_addr_only[] = {reg_addr};
constexpr operand reg_addr_value[] = {reg_addr, value};
constexpr operand reg_addr_value_mask[] = {reg_addr, value, mask};
constexpr operand reg_range[] = {
    {.name = "START",
     .help = "Address of the first register",
     .most = last_register,
     .step = word_bytes},
    {.name = "END",
     .help = "Address behind the last register",
     .least = word_bytes,
     .most = last_register + word_bytes,
     .step = word_bytes},
};
constexpr operand eeprom_addr_only[] = {eeprom_addr};
constexpr operand eeprom_addr_value[] = {eeprom_addr, value};
constexpr operand eeprom_range[] = {
    {.name = "START",
     .help = "Address of the first word (default: 0)",
     .most = last_eeprom_word,
     .step = word_bytes,
     .optional = true},
    {.name = "END",
     .help = "Address behind the last word (default: 2048)",
     .least = word_bytes,
     .most = eeprom_bytes,
     .step = word_bytes,
     .optional = true},
};
constexpr operand image_file[] = {
    {.name = "FILE", .help = "Image, as --raw of a dump writes it", .form = operand_form::file}};
constexpr operand vlan_id[] = {
    {.name = "VLANID", .help = "New VLAN ID (group), 16 to 4094", .least = 16, .most = 4094}};
constexpr operand reset_status[] = {
    {.name = "STATUS", .help = "Status byte of the reset frame", .most = 0xFF}};
constexpr operand page_and_file[] = {
    {.name = "PAGE", .help = "Number of the page, 0 to 1023", .most = 1023},
    {.name = "FILE",
     .help = "The 128 bytes of the page, in the order in which they travel",
     .form = operand_form::file},
};

constexpr operand report_file[] = {
    {.name = "FILE",
     .help = "The archive (default: qnm-report-YYYYMMDD-HHMMSS.tar.gz in this directory)",
     .form = operand_form::file,
     .optional = true}};

// A literal, so that it can stand behind others.
#define MANY_CARDS_HELP                                                                            \
    "Several IDs, or --all, --kind and --group, access many cards at once; the results are told\n" \
    "in the order asked, and the exit status is that of the first one that failed. Numbers are\n"  \
    "decimal, 0x1F or 0b11."

constexpr char cards_help[] = MANY_CARDS_HELP;

constexpr char dump_help[] =
    "Four words a line: address, words, and their bytes as text. --raw writes the bytes to a file\n"
    "by ascending address, the least significant one of each word first; the file appears whole\n"
    "or not at all. Ctrl-C ends the dump between two words.";

constexpr char restore_help[] =
    "Reads the EEPROM, shows the words that differ from the image, asks, and then writes and\n"
    "verifies them one by one. An image that is shorter than the EEPROM is that of its beginning.\n"
    "Ctrl-C ends it between two words; the same command writes the rest.";

constexpr char unlock_help[] =
    "Takes the lock away from every other party. An access of theirs that is under way goes "
    "wrong.\n" MANY_CARDS_HELP;

constexpr char reset_help[] =
    "The frame goes to the broadcast address on the card's VLAN, over the card's path: every card\n"
    "there can hear it. It is not answered.\n" MANY_CARDS_HELP;

constexpr char loglevel_help[] =
    "The level is that of the running manager, and the manager runs in this very process. So the\n"
    "command goes on like watch. In a running watch, the line \"loglevel LEVEL\" does the same. "
    "The\n"
    "lines are where --log or --keep-logs puts them.";

constexpr char completion_help[] =
    "\"source <(qnmctl completion bash)\" switches it on for a running shell; packages install it\n"
    "for all. Card IDs are completed, too: the cards that can be heard within a second are "
    "offered,\n"
    "by --ports or --dir where they stand on the line. The shell's user needs CAP_NET_RAW for "
    "that:\n"
    "sudo setcap cap_net_raw+ep $(command -v qnmctl).";

constexpr char watch_help[] =
    "One line for every event: local time, event, kind and ID of the card, and what changed, from\n"
    "what to what, with the reason behind it: announced, expired after so long a silence, link\n"
    "down on a port, stopped or restarted by the operator. With several filters an event has to\n"
    "pass all of them; a card passes --kind and --group by what it is now or by what was told of\n"
    "it before, so the event in which it leaves a group is told, too. Ends at Ctrl-C, SIGTERM, or\n"
    "when its reader has gone. While it runs, lines on standard input are commands, on cards\n"
    "already heard: \"help\" lists them, \"quit\" ends it, the end of standard input does not.";

constexpr char list_help[] =
    "VER is the card's version, MODE its VLAN mode, R-ID the resource ID of a QNIO card. A "
    "terminal\n"
    "that is too narrow gets the columns that matter most. Under a path, by local port P and path "
    "M\n"
    "on the card: C connected, D lost, - never heard.";

constexpr char topology_help[] =
    "A QNSV card reports the MAC address behind each of its downstream ports, a QNIO card that of\n"
    "the QNSV card it is bound to. Where only one of them reports a link, or the other one is not\n"
    "heard, an exclamation mark says so. -o dot is for Graphviz:\n"
    "    qnmctl --ports eth1 topology -o dot | dot -Tsvg > topology.svg";

constexpr char doctor_help[] =
    "Looks at privileges, interfaces with their link and VLAN offload, capture, which process\n"
    "accesses cards by an interface or is deaf there, clock, both files of the configuration line\n"
    "by line, log folders and free space, and for root whether tshark has the dissector, without\n"
    "starting a manager and without changing anything. Each finding is ok, a note, a warning or\n"
    "an error, and has its remedy below it.\n"
    "Run it as the user that the host program runs as; which other processes listen, though, only\n"
    "root can see. Only regular files are read, up to 1 MiB, and not what a symbolic link stands\n"
    "for. The exit status is 3 when there is an error: a manager would not start, do without what\n"
    "it is told to use, or hear nothing.";

constexpr char show_help[] =
    "Beside the title of a field stands its name in JSON. A QNSV card has its bridge settings and\n"
    "its downstream ports behind the fields that cards of both kinds have.";

constexpr char top_help[] =
    "A full screen of ports, cards with their paths, and rates, looked at every second; ? lists\n"
    "the keys, q ends. Frames are those that the kernel counts on the interfaces of the ports,\n"
    "other programs' among them; events are the library's. Rates are those of the last five\n"
    "seconds. A path is C connected, D lost, or - never heard. heard sorts by the time since\n"
    "then, and like events and rate the largest first. Needs a terminal; for scripts there are\n"
    "list and watch.";

constexpr char mms_help[] =
    "Every card that is named gets the page; the cards do not acknowledge it. A multi-root card\n"
    "is a QNIO card of version 1.\n" MANY_CARDS_HELP;

constexpr char stats_help[] =
    "The one that a manager writes into its statistics log, here of the manager in this very\n"
    "process. A host program's own is in the file that qnm_log4c.properties names for the logger\n"
    "statslogfile.";

constexpr char monitor_help[] =
    "Monitoring is controlled in a running manager, and the manager runs in this very process. So\n"
    "the command goes on like watch, and when it ends, the stop ends with it. In a running watch,\n"
    "the lines \"monitor stop ID\" and \"monitor restart ID\" do the same.";

constexpr operand new_capture[] = {{.name = "FILE",
                                    .help = "pcapng file to write, or - for standard output",
                                    .form = operand_form::file}};
constexpr operand old_capture[] = {{.name = "FILE",
                                    .help = "pcap or pcapng file to read, or - for standard input",
                                    .form = operand_form::file}};

constexpr char capture_help[] =
    "Every frame on the ports, and every frame that this host sends there, with the reason for\n"
    "which managers drop it as its comment. A manager need not run, and one that runs is not\n"
    "disturbed. Ctrl-C ends the capture; the file is whole then. An older file is replaced.";

constexpr char decode_help[] =
    "A line for each frame: number, local time, interface where a pcapng file, not standard\n"
    "input, tells it, direction, ID of the card, and message. A frame that managers drop has the\n"
    "reason, a Completion the frame of its Register Read and the time since. JSON has all fields\n"
    "always. ether_type, tag_min and tag_max are those of the configuration.";

constexpr char report_help[] =
    "Versions, configuration, findings of doctor, ports, cards, statistics, the events heard\n"
    "meanwhile, the last part of the logs and a capture of both ports, in one archive that its\n"
    "owner alone can read. What cannot be had is named at the end and in problems.txt; the rest\n"
    "is there. Of each log, and of the one that was rotated last, it takes the last 256 KiB, of a\n"
    "file of the configuration 1 MiB; what was cut off is told there, too. Only regular files are\n"
    "taken, not what a symbolic link stands for; in the folders above, links of root and of this\n"
    "user are followed. Where others than root and this user can change qnm_log4c.properties,\n"
    "only logs of its owner are taken, and where they can change the folder, no log that has\n"
    "other names, too.\n"
    "--mask-ids replaces each card ID and each MAC address by the same pseudonym everywhere: in\n"
    "texts, names of files, logs and captured frames. Not masked are parts of an address, groups,\n"
    "names of interfaces, and what registers and EEPROMs hold. A part that cannot be masked\n"
    "safely is left out.";

constexpr verb table[] = {
    {.name = "watch",
     .help = "Tells events as they come, and why",
     .more_help = watch_help,
     .takes = takes_limits | takes_filter,
     .run = run_watch,
     .streams = true,
     .endless = true},
    {.name = "list",
     .help = "Lists the known cards",
     .more_help = list_help,
     .takes = takes_for,
     .seconds = 3,
     .run = run_list,
     .answer = answer_list},
    {.name = "show",
     .help = "Prints every field of a card, as soon as it is known",
     .more_help = show_help,
     .takes = takes_id | takes_for,
     .seconds = seconds_to_hear,
     .run = run_show,
     .answer = answer_show},
    {.name = "topology",
     .help = "Shows which QNIO card stands behind which port of which QNSV card",
     .more_help = topology_help,
     .takes = takes_for | takes_dot,
     .seconds = 3,
     .run = run_topology,
     .answer = answer_topology},
    {.name = "top",
     .help = "Shows ports, cards and rates on a full screen, live",
     .more_help = top_help,
     .takes = takes_top | takes_for,
     .run = run_top,
     .endless = true},
    {.name = "stats",
     .help = "Prints the manager's status dump",
     .more_help = stats_help,
     .takes = takes_verbose | takes_for,
     .seconds = 3,
     .run = run_stats,
     .answer = answer_stats},
    {.name = "monitor",
     .help = "Stops or restarts the monitoring of a card",
     .more_help = monitor_help,
     .takes = takes_action | takes_id | takes_limits,
     .run = run_monitor,
     .answer = answer_monitor,
     .streams = true,
     .endless = true},
    {.name = "reg read",
     .help = "Reads a register",
     .more_help = cards_help,
     .takes = takes_cards | takes_reach,
     .seconds = seconds_to_hear,
     .run = run_access<access_kind::reg_read>,
     .answer = answer_access<access_kind::reg_read>,
     .operands = reg_addr_only},
    {.name = "reg write",
     .help = "Writes a register",
     .more_help = cards_help,
     .takes = takes_cards | takes_reach | takes_verify,
     .seconds = seconds_to_hear,
     .run = run_access<access_kind::reg_write>,
     .answer = answer_access<access_kind::reg_write>,
     .operands = reg_addr_value},
    {.name = "reg modify",
     .help = "Changes some bits of a register",
     .more_help = cards_help,
     .takes = takes_cards | takes_reach | takes_verify,
     .seconds = seconds_to_hear,
     .run = run_access<access_kind::reg_modify>,
     .answer = answer_access<access_kind::reg_modify>,
     .operands = reg_addr_value_mask},
    {.name = "reg dump",
     .help = "Reads the registers from START up to END",
     .more_help = dump_help,
     .takes = takes_card | takes_reach | takes_raw,
     .seconds = seconds_to_hear,
     .run = run_reg_dump,
     .answer = answer_reg_dump,
     .operands = reg_range},
    {.name = "eeprom read",
     .help = "Reads a word of the EEPROM",
     .more_help = cards_help,
     .takes = takes_cards | takes_reach | takes_force_lock,
     .seconds = seconds_to_hear,
     .run = run_access<access_kind::eeprom_read>,
     .answer = answer_access<access_kind::eeprom_read>,
     .operands = eeprom_addr_only},
    {.name = "eeprom write",
     .help = "Writes a word of the EEPROM",
     .more_help = cards_help,
     .takes = takes_cards | takes_reach | takes_verify | takes_force_lock,
     .seconds = seconds_to_hear,
     .run = run_access<access_kind::eeprom_write>,
     .answer = answer_access<access_kind::eeprom_write>,
     .operands = eeprom_addr_value},
    {.name = "eeprom dump",
     .help = "Reads the EEPROM, or the part from START up to END",
     .more_help = dump_help,
     .takes = takes_card | takes_reach | takes_force_lock | takes_raw,
     .seconds = seconds_to_hear,
     .run = run_eeprom_dump,
     .answer = answer_eeprom_dump,
     .operands = eeprom_range},
    {.name = "eeprom restore",
     .help = "Writes an image to the EEPROM",
     .more_help = restore_help,
     .takes = takes_card | takes_reach | takes_force_lock | takes_yes,
     .seconds = seconds_to_hear,
     .run = run_restore,
     .operands = image_file},
    {.name = "eeprom unlock",
     .help = "Frees an EEPROM lock that another party holds",
     .more_help = unlock_help,
     .takes = takes_cards,
     .seconds = seconds_to_hear,
     .run = run_access<access_kind::eeprom_unlock>,
     .answer = answer_access<access_kind::eeprom_unlock>},
    {.name = "vlan",
     .help = "Sets the VLAN ID of a card",
     .more_help = cards_help,
     .takes = takes_cards | takes_reach | takes_verify,
     .seconds = seconds_to_hear,
     .run = run_access<access_kind::vlan>,
     .answer = answer_access<access_kind::vlan>,
     .operands = vlan_id},
    {.name = "reset",
     .help = "Sends a reset frame",
     .more_help = reset_help,
     .takes = takes_cards,
     .seconds = seconds_to_hear,
     .run = run_access<access_kind::reset>,
     .answer = answer_access<access_kind::reset>,
     .operands = reset_status},
    {.name = "mms",
     .help = "Writes an MMS page of a multi-root QNIO card",
     .more_help = mms_help,
     .takes = takes_cards | takes_livecheck,
     .seconds = seconds_to_hear,
     .run = run_access<access_kind::mms>,
     .answer = answer_access<access_kind::mms>,
     .operands = page_and_file},
    {.name = "loglevel",
     .help = "Sets the level of the library's log",
     .more_help = loglevel_help,
     .takes = takes_level | takes_limits,
     .run = run_loglevel,
     .answer = answer_loglevel,
     .streams = true,
     .endless = true},
    {.name = "doctor",
     .help = "Finds what keeps a manager from working here, and says what helps",
     .more_help = doctor_help,
     .run = run_doctor},
    {.name = "capture",
     .help = "Captures frames into a file",
     .more_help = capture_help,
     .takes = takes_for | takes_frames | takes_snaplen,
     .run = run_capture,
     .operands = new_capture,
     .endless = true},
    {.name = "decode",
     .help = "Tells what the frames in a file say",
     .more_help = decode_help,
     .takes = takes_frame_filter | takes_frame_fields | takes_frames,
     .run = run_decode,
     .operands = old_capture,
     .endless = true},
    {.name = "report",
     .help = "Packs what a support case needs into one archive",
     .more_help = report_help,
     .takes = takes_for | takes_report,
     .seconds = 3,
     .run = run_report,
     .operands = report_file},
    {.name = "completion",
     .help = "Prints the completion script of a shell",
     .more_help = completion_help,
     .takes = takes_shell,
     .run = run_completion},
    {.name = "complete",
     .help = "Lists what can come next on a line",
     .takes = takes_rest,
     .run = run_complete,
     .hidden = true},
    {.name = "man-page", .help = "Prints the manual page", .run = run_man_page, .hidden = true},
    {.name = "help", .help = "Lists these commands", .answer = answer_help},
    {.name = "quit", .help = "Ends", .answer = answer_quit},
};

}  // namespace

const std::span<const verb> verbs = table;

}  // namespace qnmctl
