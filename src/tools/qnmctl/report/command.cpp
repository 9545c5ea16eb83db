// report: listens for a short time, collects, masks, and writes the archive.
#include "report/command.h"

#include <sys/mman.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "access/image.h"
#include "cli/options.h"
#include "common/descriptor.h"
#include "frames/capture.h"
#include "installation/config_file.h"
#include "manager/listen.h"
#include "output/text.h"
#include "report/archive.h"
#include "report/parts.h"

namespace qnmctl {

namespace {

constexpr char report_help[] =
    "Versions, configuration, findings of doctor, ports, cards, statistics, the events heard\n"
    "meanwhile, the last part of the logs and a capture of both ports, in one archive that its\n"
    "owner alone can read. What cannot be had is named at the end and in problems.txt; the rest\n"
    "is there. Of each log, and of the one that was rotated last, it takes the last 256 KiB, of a\n"
    "file of the configuration 1 MiB; what was cut off is named there. Only regular files are\n"
    "taken, not what a symbolic link stands for; in the folders above, links of root and of this\n"
    "user are followed. Where others than root and this user can change qnm_log4c.properties,\n"
    "only logs of its owner are taken, and where they can change the folder, no log that has\n"
    "other names, too.\n"
    "--mask-ids replaces each card ID and each MAC address by the same pseudonym everywhere: in\n"
    "texts, names of files, logs and captured frames. Not masked are parts of an address, groups,\n"
    "names of interfaces, and what registers and EEPROMs hold. A part that cannot be masked\n"
    "safely is left out.";

constexpr example report_examples[] = {
    {"qnmctl report", "An archive in this directory"},
    {"qnmctl report --mask-ids case.tar.gz", "Another name, with addresses replaced"},
};

struct report_options {
    std::string file = {};
    bool mask_ids = false;
    bool force = false;
    double seconds = 3;
};

constexpr unsigned owner_only = 0600;

// A file without a name, for functions that write to a descriptor.
class memory_file {
  public:
    memory_file() : file_(memfd_create("qnmctl", MFD_CLOEXEC)) {
        if (file_.fd < 0)
            throw error(std::string("cannot make a file in memory: ") + strerror(errno));
    }

    int fd() const { return file_.fd; }
    std::string contents() const {
        std::string bytes(static_cast<std::size_t>(lseek(file_.fd, 0, SEEK_END)), '\0');
        const ssize_t length = pread(file_.fd, bytes.data(), bytes.size(), 0);
        bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(0, length)));
        return bytes;
    }

  private:
    tools::descriptor file_;
};

// Listens and writes the events into a text. If there is no manager, or no longer one, the parts
// say why.
void hear(context& own, const report_options& options, report_sources& into) {
    try {
        start(own);
        listen(own, {.seconds = options.seconds, .tells = true});
        into.running = &own.running();
    } catch (const std::exception& e) {
        into.why_not_running = e.what();
    }
}

// Captures both ports meanwhile. A port that cannot be captured is reported with the others'
// frames.
class short_capture {
  public:
    short_capture(const context& with, const report_options& options)
        : thread_([this, how = capture_for(with, options)] { run(how); }) {}

    void end(report_sources& into) {
        thread_.join();
        into.why_no_capture = problem_;
        into.capture = file_.contents();
    }

  private:
    static capture_options capture_for(const context& with, const report_options& options) {
        constexpr std::uint64_t byte_limit = std::uint64_t{4} * 1024 * 1024;
        const std::string config = config_of(with.where);
        return {.ports = configured_ports(config),
                .rules = configured_rules(config),
                .seconds = options.seconds,
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

report_contents gather(context& with, const report_options& options) {
    const memory_file events;
    output out(events.fd(), with.signals);
    writer records(out, output_form::text, "report");
    context own{.define = with.define,
                .where = with.where,
                .log_level = with.log_level,
                .out = out,
                .results = records,
                .signals = with.signals,
                .how = {}};
    report_sources from{.where = with.where};
    short_capture capture(with, options);
    hear(own, options, from);
    capture.end(from);
    if (is_signalled(with)) throw error("ended by a signal; no archive was written");
    from.events = events.contents();
    return collect_report(report_parts(), from);
}

int run_report(context& with, const report_options& options) {
    const wall_time when = std::chrono::system_clock::now();
    const std::string file =
        options.file.empty() ? report_name(when) + archive_ending : options.file;
    new_file archive(file, {.mode = owner_only, .replaces = options.force});
    report_contents contents = gather(with, options);
    contents.when = when;
    if (options.mask_ids) mask_report(contents);
    add_manifest(contents);
    const std::string bytes = archive_bytes(contents);
    archive.commit(bytes);
    with.results.text(contents_text(contents, with.how));
    tell_contents(with.results, contents);
    with.results.text(file + ": " + std::to_string(bytes.size()) + " bytes" +
                      (contents.masked ? ", masked" : "") + '\n');
    with.results.record("archive", archive_json(contents, file, bytes.size()));
    return exit_ok;
}

}  // namespace

void define_report(command_tree& tree) {
    if (tree.use == used_for::lines) return;
    const auto report = add_command_with<report_options>(
        tree, {"report", "Packs what a support case needs into one archive", report_help,
               report_examples});
    add_operand(report.self, "FILE",
                "The archive (default: qnm-report-YYYYMMDD-HHMMSS.tar.gz in this directory)",
                file_name(report.options.file), presence::optional);
    add_flag(report.self, "--mask-ids", "Put pseudonyms in place of card IDs and MAC addresses",
             report.options.mask_ids);
    add_flag(report.self, "--force", "Replace a file that is there already", report.options.force);
    add_seconds(report.self, report.options.seconds);
    add_output(report.self);
    set_run(report, run_report);
}

}  // namespace qnmctl
