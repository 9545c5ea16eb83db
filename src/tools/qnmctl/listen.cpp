// Everything is done by the main thread, which waits for events, lines of standard input and
// signals at once, so that no two texts can mix.
#include "listen.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>

#include "config_file.h"
#include "input_lines.h"
#include "report.h"
#include "start.h"
#include "text.h"

namespace qnmctl {

namespace {

using clock = std::chrono::steady_clock;

void tell_event(context& with, const observed& seen) {
    if (with.as_json) {
        print_json(with, event_json(seen, with.known));
    } else {
        with.out.write(event_line(seen, with.known, with.coloured) + '\n');
    }
}

// ---- Lines --------------------------------------------------------------------------------------

void answer_line(context& with, const std::string& line) {
    const std::variant<request, std::string> parsed = parse_line(verbs, line);
    if (const auto* wrong = std::get_if<std::string>(&parsed)) return print_error(*wrong);
    const auto& asked = std::get<request>(parsed);
    if (asked.asked == nullptr) return;
    try {
        asked.asked->answer(with, asked);
    } catch (const error& e) {
        print_error(e.what());
    }
}

// Reads what there is and answers the lines that are whole; false at the end of standard input.
bool answer_input(context& with, input_lines& input) {
    char chunk[4096];
    const ssize_t length = read(STDIN_FILENO, chunk, sizeof chunk);
    if (length < 0 && (errno == EINTR || errno == EAGAIN)) return true;
    if (length > 0)
        input.add({chunk, static_cast<std::size_t>(length)});
    else
        input.end();
    while (!with.quit) {
        const auto line = input.next();
        if (!line) break;
        answer_line(with, *line);
    }
    return length > 0;
}

// ---- Listening ----------------------------------------------------------------------------------

// Prints what has been queued, up to the wanted number; false when that is reached.
bool tell_events(context& with, const listening& how, std::uint64_t& told) {
    const session::batch batch = with.manager->take();
    if (how.tells && batch.lost != 0) {
        print_error(std::to_string(batch.lost) + " events lost, the output is too slow");
    }
    for (const observed& seen : batch.events) {
        if (!how.tells) break;
        tell_event(with, seen);
        if (++told == how.count) return false;
    }
    return !how.enough || !how.enough();
}

void check_running(const context& with) {
    const auto ended = with.manager->result();
    if (!ended) return;
    std::string text = std::string("the manager has ended: ") + code_name(*ended);
    const std::string log = with.where.temporary
                                ? with.where.log.string()
                                : file_of_logger(read_text(with.where.properties()), "logfile");
    if (!log.empty()) text += "\nIts log is " + log;
    throw error(text);
}

int milliseconds_until(clock::time_point deadline) {
    if (deadline == clock::time_point::max()) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - clock::now());
    return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 60'000));
}

clock::time_point deadline_after(double seconds) {
    if (seconds == 0) return clock::time_point::max();
    return clock::now() +
           std::chrono::duration_cast<clock::duration>(std::chrono::duration<double>(seconds));
}

}  // namespace

void print_json(context& with, const json& object) {
    with.out.write(object.dump(-1, ' ', false, json::error_handler_t::replace) + '\n');
}

void print_error(const std::string& text) {
    std::fputs(message_text(text).c_str(), stderr);
}

void listen(context& with, const listening& how) {
    enum { signal, wake, out, input };
    pollfd waited[] = {{with.signals, POLLIN, 0},
                       {with.manager->wake_fd(), POLLIN, 0},
                       {with.out.fd(), 0, 0},  // only that its reader has gone
                       {how.takes_lines ? STDIN_FILENO : -1, POLLIN, 0}};
    const clock::time_point deadline = deadline_after(how.seconds);
    input_lines lines;
    std::uint64_t told = 0;
    while (!with.quit && !with.out.closed() && clock::now() < deadline) {
        if (poll(waited, std::size(waited), milliseconds_until(deadline)) < 0) {
            if (errno == EINTR) continue;
            throw error(std::string("cannot wait: ") + std::strerror(errno));
        }
        if (waited[signal].revents != 0 || (waited[out].revents & POLLERR) != 0) return;
        if (waited[wake].revents != 0) {
            if (!tell_events(with, how, told)) return;
            check_running(with);
        }
        if (waited[input].revents != 0 && !answer_input(with, lines)) waited[input].fd = -1;
    }
}

void start(context& with, const request& asked) {
    with.as_json = asked.as_json;
    with.manager = start_manager(with.where, with.log_level);
}

void listen_and_tell(context& with, const request& asked) {
    if (isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1) {
        std::fputs("watching; \"help\" lists the commands, \"quit\" ends\n", stderr);
    }
    listen(with,
           {.seconds = asked.seconds, .count = asked.count, .tells = true, .takes_lines = true});
}

bool is_signalled(const context& with) {
    pollfd waited{with.signals, POLLIN, 0};
    return poll(&waited, 1, 0) > 0;
}

}  // namespace qnmctl
