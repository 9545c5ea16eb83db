// The archive of a report: its members, what is missing and why, and the file with all of it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "output/output.h"
#include "output/text.h"
#include "output/writer.h"
#include "report/mask.h"

namespace qnmctl {

enum class member_form { text, capture };

struct report_member {
    std::string name;  // in the archive's folder, "conf/qnm.conf"
    std::string bytes;
    std::string part;  // the row that it is from
    member_form form = member_form::text;
};

struct missing_part {
    std::string part;
    std::string reason;  // may have several lines
};

struct report_contents {
    std::vector<report_member> members = {};
    std::vector<missing_part> missing = {};
    known_addresses addresses = {};  // of the cards' records
    bool masked = false;
    wall_time when = {};
};

// "qnm-report-20260301-140321", of local time: the folder in the archive, and the usual file's
// name.
std::string report_name(wall_time when);
inline constexpr char archive_ending[] = ".tar.gz";

// The end of a file that grows, from the beginning of a line on.
std::string last_part(const std::string& text, std::size_t limit);

// Puts pseudonyms in place of all card IDs and MAC addresses. A member that still shows one is left
// out, and is missing then.
void mask_report(report_contents& contents);

// Adds two members that list what there is and what is missing, for programs and for people. Called
// when all others are there.
void add_manifest(report_contents& to);

// A tar archive, compressed by gzip. Throws error.
std::string archive_bytes(const report_contents& contents);

std::string contents_text(const report_contents& contents, const look& how);
void tell_contents(writer& results, const report_contents& contents);
json archive_json(const report_contents& contents, const std::string& file, std::size_t bytes);

}  // namespace qnmctl
