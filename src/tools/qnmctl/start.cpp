// The start, and after a failed one the search for its reason in the library's log.
#include "start.h"

#include "config_file.h"
#include "explain.h"
#include "standard_files.h"
#include "text.h"

namespace qnmctl {

namespace {

// The operator's log may be anywhere, or nowhere; so the start is tried once more on a copy of his
// configuration, with a log that can be read.
std::vector<std::string> lines_of_second_try(const installation& where) {
    installation copy;
    install_copy(where, copy);
    const auto second = start_session(copy.dir, QNM_LOGLVL_ERROR);
    if (std::holds_alternative<std::unique_ptr<session>>(second)) {
        return {"a second try succeeded; the reason has passed"};
    }
    return error_lines(read_text(copy.log));
}

void warn_of_ports(const installation& where) {
    for (const std::string& interface : configured_ports(read_text(where.config()))) {
        if (const auto problem = port_problem(interface)) {
            tools::tell(message_text(*problem));
        }
    }
}

}  // namespace

std::unique_ptr<session> start_manager(const installation& where, qnm_log_level_t level) {
    if (const auto obstacle = find_obstacle(where)) throw error(*obstacle);
    const std::size_t old_log = where.temporary ? read_text(where.log).size() : 0;
    auto started = start_session(where.dir, level);
    if (const auto* code = std::get_if<qnm_api_code_t>(&started)) {
        const std::vector<std::string> lines =
            where.temporary ? error_lines(read_text(where.log).substr(old_log))
                            : lines_of_second_try(where);
        throw error(failed_start_text(*code, where, lines), *code);
    }
    warn_of_ports(where);
    return std::get<std::unique_ptr<session>>(std::move(started));
}

}  // namespace qnmctl
