// The start, and after a failed one the search for its reason in the log of this run.
#include "manager/start.h"

#include "common/standard_files.h"
#include "installation/config_file.h"
#include "manager/explain.h"
#include "output/text.h"

namespace qnmctl {

namespace {

void warn_of_ports(const installation& where) {
    for (const std::string& interface : configured_ports(read_text(where.config()))) {
        if (const auto problem = port_problem(interface)) {
            tools::tell(message_text(*problem));
        }
    }
}

}  // namespace

std::unique_ptr<session> start_manager(const installation& where, installation& copy,
                                       qnm_log_level_t level) {
    if (const auto obstacle = find_obstacle(where)) throw error(*obstacle);
    if (!where.temporary) install_copy(where, copy);
    const installation& running = where.temporary ? where : copy;
    auto started = start_session(running.dir, level);
    if (const auto* code = std::get_if<qnm_api_code_t>(&started)) {
        throw error(failed_start_text(*code, where, error_lines_of(running)), *code);
    }
    warn_of_ports(running);
    return std::get<std::unique_ptr<session>>(std::move(started));
}

}  // namespace qnmctl
