// qnm_api.h - the device commands and the log level.
#pragma once

#include "qnm.h"

extern "C" {

// Sets the running log level during start-up, from the configuration for QNM_LOGLVL_NONE.
void _qnm_set_loglevel(qnm_log_level_t log_level);

}  // extern "C"
