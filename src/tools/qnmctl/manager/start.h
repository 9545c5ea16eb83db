// Starts the manager for an installation, or says why it does not start.
#pragma once

#include <memory>

#include "installation/installation.h"
#include "manager/session.h"

namespace qnmctl {

// On what is made for it; an operator's installation is copied into `copy` first. Throws error with
// the reason and the remedy. Says on standard error when one of the ports could not be opened; the
// manager runs on the other.
std::unique_ptr<session> start_manager(const installation& where, installation& copy,
                                       qnm_log_level_t level);

}  // namespace qnmctl
