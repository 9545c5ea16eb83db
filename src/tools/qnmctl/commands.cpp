// The list of commands. Each is defined in the file that implements it.
#include "commands.h"

#include "access/commands.h"
#include "cards/commands.h"
#include "cli/options.h"
#include "doctor/command.h"
#include "frames/commands.h"
#include "help_commands.h"
#include "report/command.h"
#include "top/top.h"

namespace qnmctl {

void define_all_commands(command_tree& tree) {
    add_globals(tree);
    define_watch(tree);
    define_list(tree);
    define_show(tree);
    define_topology(tree);
    define_top(tree);
    define_stats(tree);
    define_monitor(tree);
    add_group(tree, "reg", "Reads and writes registers of cards");
    define_reg_calls(tree);
    define_reg_dump(tree);
    add_group(tree, "eeprom", "Reads and writes EEPROMs of cards");
    define_eeprom_calls(tree);
    define_eeprom_dump(tree);
    define_eeprom_restore(tree);
    define_card_calls(tree);
    define_loglevel(tree);
    define_doctor(tree);
    define_capture(tree);
    define_decode(tree);
    define_report(tree);
    define_help_commands(tree);
}

}  // namespace qnmctl
