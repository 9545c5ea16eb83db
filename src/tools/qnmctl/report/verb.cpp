// Listens for a short time, collects, masks, and writes the archive.
#include "report/verb.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "access/image.h"
#include "frames/capture.h"
#include "installation/config_file.h"
#include "manager/listen.h"
#include "output/text.h"
#include "report/archive.h"
#include "report/parts.h"

namespace qnmctl {

namespace {

constexpr unsigned owner_only = 0600;

// A file that is nowhere, for what is written to a descriptor.
class memory_file {
  public:
    memory_file() : fd_(memfd_create("qnmctl", MFD_CLOEXEC)) {
        if (fd_ < 0) throw error(std::string("cannot make a file in memory: ") + strerror(errno));
    }
    ~memory_file() { close(fd_); }
    memory_file(const memory_file&) = delete;
    memory_file& operator=(const memory_file&) = delete;

    int fd() const { return fd_; }
    std::string contents() const {
        std::string bytes(static_cast<std::size_t>(lseek(fd_, 0, SEEK_END)), '\0');
        const ssize_t length = pread(fd_, bytes.data(), bytes.size(), 0);
        bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(0, length)));
        return bytes;
    }

  private:
    int fd_;
};

// Listens, with events told into a text. Why there is no manager, or none any more, is for the
// parts to tell.
void hear(context& own, const request& asked, report_sources& into) {
    try {
        start(own);
        listen(own, {.seconds = asked.seconds, .tells = true});
        into.running = &own.running();
    } catch (const std::exception& e) {
        into.why_not_running = e.what();
    }
}

// What passes both ports meanwhile. A port that does not take part is told of beside the others.
class short_capture {
  public:
    short_capture(const context& with, const request& asked)
        : thread_([this, how = options(with, asked)] { run(how); }) {}

    void end(report_sources& into) {
        thread_.join();
        into.why_no_capture = problem_;
        into.capture = file_.contents();
    }

  private:
    static capture_options options(const context& with, const request& asked) {
        constexpr std::uint64_t byte_limit = std::uint64_t{4} * 1024 * 1024;
        const std::string config = config_of(with.where);
        return {.ports = configured_ports(config),
                .rules = configured_rules(config),
                .seconds = asked.seconds,
                .bytes = byte_limit,
                .signals = with.signals};
    }

    void run(const capture_options& how) {
        try {
            std::vector<std::string> problems;
            for (const captured_port& port : capture_ports(how, file_.fd(), "the capture").ports) {
                if (!port.problem.empty()) problems.push_back(port.problem);
            }
            problem_ = join(problems, "\n");
        } catch (const std::exception& e) {
            problem_ = e.what();
        }
    }

    memory_file file_;
    std::string problem_;
    std::jthread thread_;  // the last one: it uses the others
};

report_contents gather(context& with, const request& asked) {
    const memory_file events;
    output out(events.fd(), with.signals);
    writer told(out, output_form::text, asked.asked->name);
    context own{.verbs = with.verbs,
                .where = with.where,
                .log_level = with.log_level,
                .out = out,
                .told = told,
                .signals = with.signals,
                .how = {}};
    report_sources from{.where = with.where};
    short_capture capture(with, asked);
    hear(own, asked, from);
    capture.end(from);
    if (is_signalled(with)) throw error("ended by a signal; no archive was written");
    from.events = events.contents();
    return collect_report(report_parts(), from);
}

}  // namespace

int run_report(context& with, const request& asked) {
    const wall_time when = std::chrono::system_clock::now();
    const std::string file = asked.file.empty() ? report_name(when) + archive_ending : asked.file;
    new_file archive(file, {.mode = owner_only, .replaces = asked.force});
    report_contents contents = gather(with, asked);
    contents.when = when;
    if (asked.mask_ids) mask_report(contents);
    add_manifest(contents);
    const std::string bytes = archive_bytes(contents);
    archive.commit(bytes);
    with.told.text(contents_text(contents, with.how));
    tell_contents(with.told, contents);
    with.told.text(file + ": " + std::to_string(bytes.size()) + " bytes" +
                   (contents.masked ? ", masked" : "") + '\n');
    with.told.record("archive", archive_json(contents, file, bytes.size()));
    return exit_ok;
}

}  // namespace qnmctl
