// The parts of a report, in one table.
//
// A part that cannot be had throws error with the reason, and the others go on; what it has added
// by then stays.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "manager/context.h"
#include "report/archive.h"

namespace qnmctl {

// What the parts are made from.
struct report_sources {
    const installation& where;  // as named by the operator

    // The manager of this report. It has a log that can be read, even where the operator's is
    // elsewhere or cannot be written; nullptr: there is none.
    const installation* running = nullptr;
    std::string why_not_running = {};

    std::string events = {};  // as heard meanwhile
    std::string capture = {};
    std::string why_no_capture = {};
};

struct report_part {
    const char* name;
    void (*add)(const report_sources& from, const char* part, report_contents& to);
};

std::span<const report_part> report_parts();

// A regular file's last part, and the size of the whole. What a link stands for is none, nor what
// lies behind one of another user. Throws error.
struct file_end {
    std::string text;
    std::uint64_t size;
    struct stat about;
};
file_end read_file_end(const std::string& name, std::size_t limit);

// The configuration, as far as a report looks at it: empty where it is no regular file.
std::string config_of(const installation& where);

// All of them, in the order of the table.
report_contents collect_report(std::span<const report_part> parts, const report_sources& from);

}  // namespace qnmctl
