// What the verbs do.
//
// From the command line a verb starts the manager, listens, and answers; from a line it only
// answers, by the same function.
#include "verbs.h"

#include <string>

#include "access.h"
#include "config_file.h"
#include "device_verbs.h"
#include "listen.h"
#include "report.h"
#include "text.h"

namespace qnmctl {

namespace {

// ---- watch --------------------------------------------------------------------------------------

int run_watch(context& with, const request& asked) {
    start(with, asked);
    listen_and_tell(with, asked);
    return exit_ok;
}

// ---- list ---------------------------------------------------------------------------------------

void answer_list(context& with, const request&) {
    const std::vector<card> cards = read_cards();
    if (with.as_json) {
        print_json(with, {{"cards", table_json(cards)}});
    } else {
        with.out.write(table_text(cards, with.coloured));
    }
}

int run_list(context& with, const request& asked) {
    start(with, asked);
    listen(with, {.seconds = asked.seconds});
    if (with.as_json) {
        with.out.write(table_json(read_cards()).dump(2) + '\n');
    } else {
        answer_list(with, asked);
    }
    return exit_ok;
}

// ---- show ---------------------------------------------------------------------------------------

void answer_show(context& with, const request& asked) {
    const std::optional<card> known = read_card(asked.id);
    if (!known) {
        throw error("no card " + id_text(asked.id) +
                    " has been heard\n\"list\" shows the cards that are.");
    }
    if (with.as_json) {
        print_json(with, card_json(*known));
    } else {
        with.out.write(card_text(*known, with.coloured));
    }
}

int run_show(context& with, const request& asked) {
    start(with, asked);
    listen(with, {.seconds = asked.seconds,
                  .enough = [&asked] { return read_card(asked.id).has_value(); }});
    answer_show(with, asked);
    return exit_ok;
}

// ---- stats --------------------------------------------------------------------------------------

void print_dump(context& with, const std::string& dump) {
    if (with.as_json) {
        print_json(with, {{"stats", dump}});
    } else {
        with.out.write(dump);
    }
}

// Of an operator's installation the dump is in a log of his; it may hold anything else, too.
void tell_dump_place(context& with) {
    const std::string properties = with.where.properties().string();
    const std::string file = file_of_logger(read_text(properties), "statslogfile");
    const std::string place =
        file.empty() ? "where " + properties + " sends the logger statslogfile" : "to " + file;
    print_dump(with, "The status dump was written " + place + '\n');
}

void answer_stats(context& with, const request& asked) {
    const std::size_t before = with.where.temporary ? read_text(with.where.stats).size() : 0;
    const qnm_api_code_t code = qnm_stdump(asked.verbose ? 1 : 0);
    if (code != QNM_API_SUCCESS) throw failed_call("qnm_stdump", code);
    if (!with.where.temporary) return tell_dump_place(with);
    print_dump(with, read_text(with.where.stats).substr(before));
}

int run_stats(context& with, const request& asked) {
    start(with, asked);
    listen(with, {.seconds = asked.seconds});
    answer_stats(with, asked);
    return exit_ok;
}

// ---- monitor ------------------------------------------------------------------------------------

struct monitor_words {
    const char* name;
    const char* call_name;
    qnm_api_code_t (*call)(std::uint64_t);
    const char* meaning;
};

// Indexed by monitor_action.
constexpr monitor_words monitor_calls[] = {
    {"stop", "qnm_stop_monitor", qnm_stop_monitor,
     "its announcements are dropped until monitoring is restarted"},
    {"restart", "qnm_restart_monitor", qnm_restart_monitor,
     "its next announcement brings its record up to date"},
};

void answer_monitor(context& with, const request& asked) {
    const monitor_words& words = monitor_calls[static_cast<std::size_t>(asked.action)];
    const qnm_api_code_t code = words.call(asked.id);
    if (code != QNM_API_SUCCESS) throw failed_call(words.call_name, code);
    if (with.as_json) {
        print_json(
            with,
            {{"monitor", words.name}, {"id", id_text(asked.id)}, {"result", code_name(code)}});
    } else {
        with.out.write(std::string("monitor ") + words.name + ' ' + id_text(asked.id) + ": " +
                       code_name(code) + ", " + words.meaning + '\n');
    }
}

int run_monitor(context& with, const request& asked) {
    start(with, asked);
    answer_monitor(with, asked);
    listen_and_tell(with, asked);
    return exit_ok;
}

// ---- Lines only ---------------------------------------------------------------------------------

void answer_help(context& with, const request&) {
    const std::string help = lines_help(verbs);
    if (with.as_json) {
        print_json(with, {{"help", help}});
    } else {
        with.out.write(help);
    }
}

void answer_quit(context& with, const request&) {
    with.quit = true;
}

// ---- The table ----------------------------------------------------------------------------------

constexpr unsigned takes_limits = takes_for | takes_count;
constexpr unsigned takes_cards = takes_ids | takes_wait | takes_json;  // one or many
constexpr unsigned takes_card = takes_id | takes_wait | takes_json;    // one alone
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

constexpr char cards_help[] =
    "Several IDs, or --all, --kind and --group, access many cards at once; the results are told\n"
    "in the order asked, and the exit status is 1 when one of them failed. Numbers are decimal,\n"
    "0x1F or 0b11.";

constexpr char dump_help[] =
    "Four words a line: address, words, and their bytes as text. --raw writes the bytes to a file\n"
    "by ascending address, the least significant one of each word first; the file appears whole "
    "or\n"
    "not at all. Ctrl-C ends the dump between two words.";

constexpr char restore_help[] =
    "Reads the EEPROM, shows the words that differ from the image, asks, and then writes and\n"
    "verifies them one by one. An image that is shorter than the EEPROM is that of its beginning.\n"
    "Ctrl-C ends it between two words; the same command writes the rest.";

constexpr char unlock_help[] =
    "Takes the lock away from every other party. An access of theirs that is under way goes wrong.";

constexpr char reset_help[] =
    "The frame goes to the broadcast address on the card's VLAN, over the card's path: every card\n"
    "there can hear it. It is not answered.";

constexpr char loglevel_help[] =
    "The level is that of the running manager, and the manager runs in this very process. So the\n"
    "command goes on like watch. In a running watch, the line \"loglevel LEVEL\" does the same.";

constexpr char watch_help[] =
    "One line for every event: local time, event, kind and ID of the card, what changed. Ends at\n"
    "Ctrl-C, SIGTERM, or when its reader has gone. While it runs, lines on standard input are\n"
    "commands: list, show ID, stats [-v], monitor stop|restart ID, help, quit. Their end does not\n"
    "end it. All other commands except eeprom restore work in lines, too, on cards already heard.";

constexpr char list_help[] =
    "C under a path (P local port, M path on the card) is connected, D disconnected.";

constexpr char stats_help[] =
    "With --ports the dump is printed. With --dir it goes where the operator's\n"
    "qnm_log4c.properties sends the logger statslogfile, and that place is printed.";

constexpr char monitor_help[] =
    "Monitoring is controlled in a running manager, and the manager runs in this very process. So\n"
    "the command goes on like watch, and when it ends, the stop ends with it. In a running watch,\n"
    "the lines \"monitor stop ID\" and \"monitor restart ID\" do the same.";

constexpr verb table[] = {
    {"watch", "Tells events as they come", watch_help, takes_json | takes_limits, 0, run_watch,
     nullptr},
    {"list", "Lists the known cards", list_help, takes_json | takes_for, 3, run_list, answer_list},
    {"show", "Prints every field of a card, as soon as it is known", "",
     takes_id | takes_json | takes_for, 10, run_show, answer_show},
    {"stats", "Prints the manager's status dump", stats_help,
     takes_verbose | takes_json | takes_for, 3, run_stats, answer_stats},
    {"monitor", "Stops or restarts the monitoring of a card", monitor_help,
     takes_action | takes_id | takes_json | takes_limits, 0, run_monitor, answer_monitor},
    {"reg read", "Reads a register", cards_help, takes_cards | takes_reach, seconds_to_hear,
     run_access<access_kind::reg_read>, answer_access<access_kind::reg_read>, reg_addr_only},
    {"reg write", "Writes a register", cards_help, takes_cards | takes_reach | takes_verify,
     seconds_to_hear, run_access<access_kind::reg_write>, answer_access<access_kind::reg_write>,
     reg_addr_value},
    {"reg modify", "Changes some bits of a register", cards_help,
     takes_cards | takes_reach | takes_verify, seconds_to_hear, run_access<access_kind::reg_modify>,
     answer_access<access_kind::reg_modify>, reg_addr_value_mask},
    {"reg dump", "Reads the registers from START up to END", dump_help,
     takes_card | takes_reach | takes_raw, seconds_to_hear, run_reg_dump, answer_reg_dump,
     reg_range},
    {"eeprom read", "Reads a word of the EEPROM", cards_help,
     takes_cards | takes_reach | takes_force_lock, seconds_to_hear,
     run_access<access_kind::eeprom_read>, answer_access<access_kind::eeprom_read>,
     eeprom_addr_only},
    {"eeprom write", "Writes a word of the EEPROM", cards_help,
     takes_cards | takes_reach | takes_verify | takes_force_lock, seconds_to_hear,
     run_access<access_kind::eeprom_write>, answer_access<access_kind::eeprom_write>,
     eeprom_addr_value},
    {"eeprom dump", "Reads the EEPROM, or the part from START up to END", dump_help,
     takes_card | takes_reach | takes_force_lock | takes_raw, seconds_to_hear, run_eeprom_dump,
     answer_eeprom_dump, eeprom_range},
    {"eeprom restore", "Writes an image to the EEPROM", restore_help,
     takes_card | takes_reach | takes_force_lock | takes_yes, seconds_to_hear, run_restore, nullptr,
     image_file},
    {"eeprom unlock", "Frees an EEPROM lock that another party holds", unlock_help, takes_cards,
     seconds_to_hear, run_access<access_kind::eeprom_unlock>,
     answer_access<access_kind::eeprom_unlock>},
    {"vlan", "Sets the VLAN ID of a card", cards_help, takes_cards | takes_reach | takes_verify,
     seconds_to_hear, run_access<access_kind::vlan>, answer_access<access_kind::vlan>, vlan_id},
    {"reset", "Sends a reset frame", reset_help, takes_cards, seconds_to_hear,
     run_access<access_kind::reset>, answer_access<access_kind::reset>, reset_status},
    {"mms", "Writes an MMS page of a multi-root QNIO card", cards_help,
     takes_cards | takes_livecheck, seconds_to_hear, run_access<access_kind::mms>,
     answer_access<access_kind::mms>, page_and_file},
    {"loglevel", "Sets the level of the library's log", loglevel_help,
     takes_level | takes_json | takes_limits, 0, run_loglevel, answer_loglevel},
    {"help", "Lists these commands", "", takes_nothing, 0, nullptr, answer_help},
    {"quit", "Ends", "", takes_nothing, 0, nullptr, answer_quit},
};

}  // namespace

const std::span<const verb> verbs = table;

}  // namespace qnmctl
