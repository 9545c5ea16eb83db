// Each text gets its own writer: there are few, and standard error may have been redirected since.
#include "common/standard_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <initializer_list>
#include <mutex>
#include <string>

#include "common/descriptor_writer.h"
#include "common/end_signals.h"
#include "common/visible.h"

namespace tools {

bool open_standard_files() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        const int how = fd == STDOUT_FILENO ? O_RDONLY : O_RDWR;
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", how) < 0) return false;
    }
    return true;
}

void tell(std::string_view text) {
    tell("", text);
}

void tell(std::string_view sequence, std::string_view text) {
    static std::mutex mutex;
    const std::lock_guard guard(mutex);
    descriptor_writer(STDERR_FILENO, end_signals()).write(std::string(sequence) + visible(text));
}

int print(std::string_view text, std::string_view program, int signalled) {
    descriptor_writer to(STDOUT_FILENO, end_signals());
    to.write(visible(text));
    const std::string problem = output_problem(to, "standard output");
    if (problem.empty()) return 0;
    tell(std::string(program) + ": " + problem + '\n');
    return to.ended() == output_end::signalled ? signalled : exit_output;
}

}  // namespace tools
