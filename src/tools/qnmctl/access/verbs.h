// The verbs that reach into cards.
#pragma once

#include "cli/command_line.h"
#include "manager/context.h"

namespace qnmctl {

// What the verbs do with each of the cards asked for. The rows are those of access_calls in the
// source; a run is from the command line, an answer is for a line.
enum class access_kind {
    reg_read,
    reg_write,
    reg_modify,
    eeprom_read,
    eeprom_write,
    eeprom_unlock,
    vlan,
    reset,
    mms
};

int run_access_kind(context& with, const request& asked, access_kind kind);
void answer_access_kind(context& with, const request& asked, access_kind kind);

// For the table of verbs, which takes a function for each.
template <access_kind Kind>
int run_access(context& with, const request& asked) {
    return run_access_kind(with, asked, Kind);
}
template <access_kind Kind>
void answer_access(context& with, const request& asked) {
    answer_access_kind(with, asked, Kind);
}

int run_reg_dump(context& with, const request& asked);
void answer_reg_dump(context& with, const request& asked);
int run_eeprom_dump(context& with, const request& asked);
void answer_eeprom_dump(context& with, const request& asked);

int run_restore(context& with, const request& asked);

int run_loglevel(context& with, const request& asked);
void answer_loglevel(context& with, const request& asked);

}  // namespace qnmctl
