// Masks, lists and packs the members of a report.
#include "report/archive.h"

#include <archive.h>
#include <archive_entry.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <ctime>
#include <memory>

#include "common/visible.h"
#include "output/table.h"

namespace qnmctl {

namespace {

constexpr char masking_text[] =
    "Every card ID and every MAC address, the ports' included, has a pseudonym that begins with "
    "fa:fa:fa and is the same in all members; the lowest bit, which tells the two paths of a card "
    "apart, is kept. Replaced are addresses in texts, in names of members and in the frames of "
    "the capture, in either byte order. Not masked are group addresses, parts of an address, an "
    "address of which no header, announcement or record was seen, VLAN IDs, names of interfaces, "
    "and the contents of registers and of the EEPROM in captured frames, and whatever else a log "
    "or a configuration says.";

constexpr char manifest_name[] = "manifest.json";
constexpr char problems_name[] = "problems.txt";

json member_json(const report_member& member) {
    return {{"name", member.name}, {"bytes", member.bytes.size()}, {"part", member.part}};
}

json missing_json(const missing_part& missing) {
    return {{"part", missing.part}, {"reason", missing.reason}};
}

json manifest(const report_contents& contents) {
    json object = {{"schema", schema_number},
                   {"made", iso_time_text(contents.when)},
                   {"masked", contents.masked},
                   {"members", json::array()},
                   {"missing", json::array()}};
    if (contents.masked) object["masking"] = masking_text;
    for (const report_member& member : contents.members)
        object["members"].push_back(member_json(member));
    for (const missing_part& missing : contents.missing)
        object["missing"].push_back(missing_json(missing));
    return object;
}

// Further lines of a reason are indented.
std::string missing_text(const std::vector<missing_part>& all) {
    std::string text;
    for (const missing_part& missing : all)
        text += missing.part + ": " + join(split(missing.reason, "\n"), "\n  ") + '\n';
    return text;
}

// ---- libarchive ---------------------------------------------------------------------------------

using archive_pointer = std::unique_ptr<archive, decltype(&archive_write_free)>;
using entry_pointer = std::unique_ptr<archive_entry, decltype(&archive_entry_free)>;

la_ssize_t append(archive*, void* to, const void* bytes, std::size_t length) {
    static_cast<std::string*>(to)->append(static_cast<const char*>(bytes), length);
    return static_cast<la_ssize_t>(length);
}

void check(archive* handle, la_ssize_t result) {
    if (result >= ARCHIVE_OK) return;
    const char* const reason = archive_error_string(handle);
    throw error(std::string("cannot make the archive: ") +
                (reason != nullptr ? reason : "out of memory"));
}

void pack(archive* into, const std::string& name, const std::string& bytes, wall_time when) {
    constexpr mode_t owner_only = 0600;
    const entry_pointer entry(archive_entry_new(), archive_entry_free);
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(bytes.size()));
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), owner_only);
    archive_entry_set_mtime(entry.get(), std::chrono::system_clock::to_time_t(when), 0);
    check(into, archive_write_header(into, entry.get()));
    check(into, archive_write_data(into, bytes.data(), bytes.size()));
}

}  // namespace

std::string report_name(wall_time when) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[sizeof "qnm-report-YYYYMMDD-HHMMSS" + 8];  // the year may have more digits
    text[std::strftime(text, sizeof text - 1, "qnm-report-%Y%m%d-%H%M%S", &local)] = '\0';
    return text;
}

std::string last_part(const std::string& text, std::size_t limit) {
    if (text.size() <= limit) return text;
    const std::size_t start = text.size() - limit;
    const std::size_t end_of_line = text.find('\n', start - 1);
    return text.substr(end_of_line == std::string::npos ? start : end_of_line + 1);
}

void mask_report(report_contents& contents) {
    known_addresses known = contents.addresses;
    for (const report_member& member : contents.members) {
        known.learn_from_text(member.name);
        if (member.form == member_form::capture) {
            known.learn_from_capture(member.bytes);
        } else {
            known.learn_from_text(member.bytes);
        }
    }
    for (const missing_part& missing : contents.missing)
        known.learn_from_text(missing.reason);
    const id_mask mask(std::move(known));
    std::vector<report_member> masked;
    for (report_member& member : contents.members) {
        const bool is_text = member.form == member_form::text;
        const auto bytes = is_text ? mask.text(member.bytes) : mask.capture(member.bytes);
        if (bytes && !mask.shows_in(*bytes)) {
            masked.push_back({mask.text(member.name), *bytes, member.part, member.form});
        } else {
            contents.missing.push_back(
                {member.part, "it could not be masked safely, so it was left out"});
        }
    }
    for (missing_part& missing : contents.missing)
        missing.reason = mask.text(missing.reason);
    contents.members = std::move(masked);
    contents.masked = true;
}

void add_manifest(report_contents& to) {
    const std::string missing = tools::visible(missing_text(to.missing));
    to.members.push_back(
        {problems_name, missing.empty() ? "Nothing is missing.\n" : missing, "manifest"});
    const std::string listed =
        manifest(to).dump(2, ' ', true, json::error_handler_t::replace) + '\n';
    to.members.push_back({manifest_name, listed, "manifest"});
}

std::string archive_bytes(const report_contents& contents) {
    std::string bytes;
    const archive_pointer result(archive_write_new(), archive_write_free);
    check(result.get(), archive_write_add_filter_gzip(result.get()));
    check(result.get(), archive_write_set_format_pax_restricted(result.get()));
    check(result.get(), archive_write_set_bytes_in_last_block(result.get(), 1));  // it is no tape
    check(result.get(), archive_write_open(result.get(), &bytes, nullptr, append, nullptr));
    for (const report_member& member : contents.members)
        pack(result.get(), report_name(contents.when) + '/' + member.name, member.bytes,
             contents.when);
    check(result.get(), archive_write_close(result.get()));
    return bytes;
}

std::string contents_text(const report_contents& contents, const look& how) {
    table shown{.columns = {{.heading = "MEMBER"},
                            {.heading = "BYTES", .right = true},
                            {.heading = "PART", .spare = 1}}};
    for (const report_member& member : contents.members)
        shown.rows.push_back({member.name, std::to_string(member.bytes.size()), member.part});
    const std::string missing = missing_text(contents.missing);
    return table_text(shown, how) + (missing.empty() ? "" : "\nMissing:\n" + missing) + '\n';
}

void tell_contents(writer& results, const report_contents& contents) {
    for (const report_member& member : contents.members)
        results.record("member", member_json(member));
    for (const missing_part& missing : contents.missing)
        results.record("missing", missing_json(missing));
}

json archive_json(const report_contents& contents, const std::string& file, std::size_t bytes) {
    return {{"file", file}, {"bytes", bytes}, {"masked", contents.masked}};
}

}  // namespace qnmctl
