// qnm_qn_dump.h - the device-table section of the status dump.
#pragma once

#include <cstdint>

#include "qnm_qn_info.h"

extern "C" {

// Writes the section to the statistics log: totals, groups and a row per card, with verbose not 0
// every field as well. Takes the device-table lock itself, each time while it copies some cards.
void _qnm_qn_stats_print(uint32_t verbose) QNM_EXCLUDES(qnm_qn.eei_mutex);

}  // extern "C"
