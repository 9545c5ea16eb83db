// qnmctl, the operator's command: watches, queries and configures Quillnet adapter cards through
// the library's public interface, as any host program does.
//
// Signals are blocked in every thread and read as input, so a command always ends by returning and
// cleans up after itself.
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "cli/command_line.h"
#include "commands.h"
#include "common/end_signals.h"
#include "common/standard_files.h"
#include "common/visible.h"
#include "manager/context.h"
#include "output/text.h"

namespace {

// Called before any thread is started, so that all inherit the signal mask.
int open_signals() {
    const int fd = tools::open_end_signals();
    if (fd < 0) throw qnmctl::error(std::string("cannot wait for signals: ") + strerror(errno));
    return fd;
}

int run(const qnmctl::command& wanted, qnmctl::writer& results, qnmctl::output& out, int signals) {
    const qnmctl::settings& global = wanted.tree.global;
    qnmctl::installation where;
    qnmctl::install(global, where);
    qnmctl::context with{.define = qnmctl::define_all_commands,
                         .where = where,
                         .log_level = global.log_level,
                         .out = out,
                         .results = results,
                         .signals = signals,
                         .how = qnmctl::look_of(STDOUT_FILENO)};
    return wanted.run(with);
}

// The exit status says that output was lost. But a command that runs until a signal ends it may
// well be ended while it writes.
int status_after(const qnmctl::output& out, const qnmctl::command& wanted, int status) {
    const std::string problem = out.problem();
    if (problem.empty()) return status;
    tools::tell(qnmctl::message_text(problem));
    if (status != qnmctl::exit_ok) return status;
    if (!out.signalled()) return tools::exit_output;
    return wanted.endless ? qnmctl::exit_ok : qnmctl::exit_failed;
}

// Returns the exit status. A failure is a record as well, so the document ends after it.
int run_and_tell(const qnmctl::command& wanted, int signals) {
    qnmctl::output out(STDOUT_FILENO, signals);
    qnmctl::writer results(out, wanted.form, wanted.name);
    int status = qnmctl::exit_failed;
    try {
        status = run(wanted, results, out, signals);
    } catch (const qnmctl::error& e) {
        status = e.status;
        results.failure(e.what(), e.status, e.code);
    } catch (const std::exception& e) {
        results.failure(e.what(), status, std::nullopt);
    }
    results.end(status);
    return status_after(out, wanted, status);
}

}  // namespace

int main(int argc, char** argv) {
    if (!tools::open_standard_files()) return qnmctl::exit_failed;
    try {
        tools::mark_own_sequences();
        const int signals = open_signals();
        qnmctl::command_tree tree(qnmctl::used_for::command_line);
        qnmctl::define_all_commands(tree);
        const auto parsed = qnmctl::parse_command_line(tree, argc, argv);
        if (const int* status = std::get_if<int>(&parsed)) return *status;
        return run_and_tell(*std::get<const qnmctl::command*>(parsed), signals);
    } catch (const std::exception& e) {
        tools::tell(qnmctl::message_text(e.what()));
        return qnmctl::exit_failed;
    }
}
