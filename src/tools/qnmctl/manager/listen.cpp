// The main thread does everything: it waits for events, lines of standard input and signals at the
// same time, and only it prints, so texts cannot mix.
#include "manager/listen.h"

#include <poll.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <string>

#include "cli/command_line.h"
#include "common/deadline.h"
#include "common/end_signals.h"
#include "common/input_lines.h"
#include "common/standard_files.h"
#include "installation/config_file.h"
#include "manager/explain.h"
#include "manager/start.h"
#include "output/pager.h"
#include "output/text.h"
#include "records/event_text.h"

namespace qnmctl {

namespace {

using clock = std::chrono::steady_clock;

// The card may fit as it is now or as it was last printed, so that the event in which it leaves a
// group is printed too.
bool is_wanted(const event_filter& filter, const char* event, std::uint64_t id,
               const std::optional<card>& before, const std::optional<card>& record) {
    const auto& names = filter.events;
    if (!names.empty() && std::find(names.begin(), names.end(), event) == names.end()) return false;
    if (before && fits(*before, filter.cards)) return true;
    if (record) return fits(*record, filter.cards);
    const auto& ids = filter.cards.ids;
    return ids.empty() ? !filter.cards.by_property()
                       : std::find(ids.begin(), ids.end(), id) != ids.end();
}

// Every event is compared, even one that is not printed, because the next is compared with it.
void tell_event(context& with, const observed& seen) {
    const std::optional<card> before = reported_before(with.known, seen.id);
    const reported_change reported =
        seen.record ? tell(with.known, seen.type, *seen.record) : reported_change{};
    if (!is_wanted(with.filter, qnm_event_name(seen.type), seen.id, before, seen.record)) return;
    ++with.reported_events;
    if (with.digested) {
        with.results.text(with.digested->add(seen, reported, clock::now()));
    } else if (with.results.is_text()) {
        with.results.text(event_line(seen, reported, with.how.coloured) + '\n');
    } else {
        with.results.record("event", event_json(seen, reported));
    }
}

// ---- Lines --------------------------------------------------------------------------------------

void answer_line(context& with, const tools::input_line& line) {
    if (line.is_cut) {
        return with.results.failure("the line is too long", exit_usage, std::nullopt);
    }
    command_tree tree(used_for::lines);
    with.define(tree);
    const std::variant<const command*, std::string> parsed = parse_line(tree, line.text);
    if (const auto* wrong = std::get_if<std::string>(&parsed)) {
        return with.results.failure(*wrong, exit_usage, std::nullopt);
    }
    const command* const found = std::get<const command*>(parsed);
    if (found == nullptr) return;
    try {
        found->answer(with);
    } catch (const error& e) {
        with.results.failure(e.what(), e.status, e.code);
    }
}

// Reads what is there; false at the end of standard input.
bool read_input(tools::input_lines& input) {
    char chunk[4096];
    const ssize_t length = read(STDIN_FILENO, chunk, sizeof chunk);
    if (length < 0 && (errno == EINTR || errno == EAGAIN)) return true;
    if (length > 0)
        input.add({chunk, static_cast<std::size_t>(length)});
    else
        input.end();
    return length > 0;
}

// ---- Listening ----------------------------------------------------------------------------------

bool is_counted_out(const context& with, const listening& how) {
    return how.count != 0 && with.reported_events >= how.count;
}

// Prints what has been queued, up to the wanted number; false when enough has been heard.
bool tell_events(context& with, const listening& how) {
    const session::batch batch = with.manager->take();
    if (how.tells && batch.lost != 0) {
        tell_failure(with, std::to_string(batch.lost) + " events lost, the output is too slow");
    }
    for (const observed& seen : batch.events) {
        if (!how.tells || is_counted_out(with, how)) break;
        tell_event(with, seen);
    }
    return !is_counted_out(with, how) && (!how.enough || !how.enough());
}

}  // namespace

void tell_failure(context& with, const std::string& text, std::optional<qnm_api_code_t> code) {
    with.results.failure(text, status_of(code), code);
}

void listen(context& with, const listening& how) {
    enum { signal, wake, out, input };
    pollfd waited[] = {
        {with.signals, POLLIN, 0},
        {with.manager->wake_fd(), POLLIN, 0},
        {with.out.fd(), 0, 0},  // only that its reader has gone: an error or a hang-up
        {how.takes_lines ? STDIN_FILENO : -1, POLLIN, 0}};
    const clock::time_point deadline = tools::deadline_after(how.seconds);
    const auto wake_at = [&] {
        const auto next = with.digested ? with.digested->next() : std::nullopt;
        return next ? std::min(deadline, *next) : deadline;
    };
    tools::input_lines lines;
    with.reported_events = 0;
    const auto is_over = [&] {
        return with.quit || with.out.closed() || is_counted_out(with, how) ||
               clock::now() >= deadline;
    };
    while (!is_over()) {
        if (poll(waited, std::size(waited), tools::milliseconds_until(wake_at())) < 0) {
            if (errno == EINTR) continue;
            throw error(std::string("cannot wait: ") + std::strerror(errno));
        }
        if (waited[out].revents != 0) with.out.end_without_reader();
        if (waited[signal].revents != 0 || waited[out].revents != 0) return;
        if (waited[wake].revents != 0) {
            if (!tell_events(with, how)) return;
            check_running(with);
        }
        if (with.digested) with.results.text(with.digested->due(clock::now()));
        if (waited[input].revents != 0 && !read_input(lines)) waited[input].fd = -1;
        while (!is_over() && !is_signalled(with)) {
            const auto line = lines.next();
            if (!line) break;
            answer_line(with, *line);
        }
    }
}

void tell_monitor(context& with, std::uint64_t id, bool restarted) {
    const auto now = std::chrono::system_clock::now();
    const bool was_on = restarted ? with.stopped.erase(id) == 0 : with.stopped.insert(id).second;
    if (restarted) with.known.facts.restarted[id] = {to_milliseconds(now)};
    const monitor_change event = {now, id, read_card(id), was_on, restarted};
    const std::optional<card> before = reported_before(with.known, id);
    if (!is_wanted(with.filter, monitor_event, id, before, event.record)) return;
    ++with.reported_events;
    if (with.results.is_text()) {
        with.results.text(monitor_line(event, with.how.coloured) + '\n');
    } else {
        with.results.record("event", monitor_json(event));
    }
}

void start(context& with) {
    with.manager = start_manager(with.where, with.copy, with.log_level);
    with.known.facts.expire_ms =
        configured_number(read_config(with.running().config()), "devinfo_expire_time");
}

void listen_and_tell(context& with, double seconds, std::uint64_t count) {
    if (isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1) {
        tools::tell("watching; \"help\" lists the commands, \"quit\" ends\n");
    }
    const listening how = {.seconds = seconds, .count = count, .tells = true, .takes_lines = true};
    with.tell_waiting = [&] { tell_events(with, how); };
    listen(with, how);
    with.tell_waiting = nullptr;
    if (with.digested) with.results.text(with.digested->end(clock::now()));
}

void check_running(const context& with) {
    const auto ended = with.manager->result();
    if (!ended) return;
    std::string text = std::string("the manager has ended: ") + code_name(*ended);
    constexpr std::ptrdiff_t most = 3;
    const std::vector<std::string> lines = error_lines_of(with.running());
    const auto count = std::ssize(lines);
    for (auto at = std::max<std::ptrdiff_t>(0, count - most); at < count; ++at)
        text += "\nThe library's log: " + lines[static_cast<std::size_t>(at)];
    if (with.running().wanted.any()) text += "\nIts log is " + with.running().log.string();
    throw error(text, *ended);
}

void tell_in_pager(context& with, const std::string& text) {
    if (with.results.is_text() && !show_in_pager(text, with.signals)) with.results.text(text);
}

bool is_signalled(const context& with) {
    return tools::is_end_signalled(with.signals);
}

}  // namespace qnmctl
