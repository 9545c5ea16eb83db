// qnm_log4cxxif.h - the library's side of logging; the log calls themselves are public (qnm.h).
#pragma once

#include <memory>

#include "qnm.h"
#include "qnm_export.h"
#include "qnm_thread.h"

namespace log4cxx {
class Logger;
}

extern "C" {

// The running level: calls above it format nothing. A plain word that any thread reads while
// qnm_set_loglevel() writes it; use qnm::load and qnm::store.
extern QNM_EXPORTED qnm_log_level_t g_log_level;

// Writes msg to the logger at the log4cxx level that matches level, if the logger has that level
// enabled. A level outside 0 to 5 writes nothing.
void _qnm_output_log(std::shared_ptr<log4cxx::Logger> logger, char* msg, qnm_log_level_t level);

}  // extern "C"

namespace qnm {

// Whether lines of this level are written. Ask before arguments that take work to make.
inline bool logs(qnm_log_level_t level) {
    return load(g_log_level) >= level;
}

}  // namespace qnm
