// The commands that access cards.
#pragma once

#include "cli/command.h"

namespace qnmctl {

// One call of the library for each of the cards that are named.
void define_reg_calls(command_tree& tree);     // reg read, write, modify
void define_eeprom_calls(command_tree& tree);  // eeprom read, write, unlock
void define_card_calls(command_tree& tree);    // vlan, reset, mms

void define_reg_dump(command_tree& tree);
void define_eeprom_dump(command_tree& tree);
void define_eeprom_restore(command_tree& tree);

}  // namespace qnmctl
