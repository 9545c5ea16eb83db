// Starts the manager for an installation, or says why it does not start.
#pragma once

#include <memory>

#include "installation/installation.h"
#include "manager/session.h"

namespace qnmctl {

// Starts it on a copy of the operator's installation (`copy`), or directly on a temporary one.
// Throws error with the reason and the remedy. Says on standard error if one of the ports could not
// be opened; the manager runs on the other.
std::unique_ptr<session> start_manager(const installation& where, installation& copy,
                                       qnm_log_level_t level);

}  // namespace qnmctl
