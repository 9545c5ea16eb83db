// Collects the parts of a report.
//
// A new part is a function here and a row in the table.
#include "report/parts.h"

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>

#include "cards/card_text.h"
#include "cards/topology.h"
#include "common/regular_file.h"
#include "common/visible.h"
#include "doctor/findings_text.h"
#include "installation/config_file.h"
#include "installation/log_properties.h"
#include "manager/session.h"
#include "records/fields.h"
#include "report/system.h"
#include "system/own_folder.h"
#include "system/ownership.h"

namespace qnmctl {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t file_limit = std::size_t{1024} * 1024;  // of a configuration file
constexpr std::size_t log_limit =
    std::size_t{256} * 1024;  // the last part of a log, and of the events

// Archives are read on terminals.
std::string document(const json& value) {
    return value.dump(2, ' ', true, json::error_handler_t::replace) + '\n';
}

const installation& running(const report_sources& from) {
    if (from.running == nullptr) throw error(from.why_not_running);
    return *from.running;
}

void add_versions(const report_sources&, const char* part, report_contents& to) {
    to.members.push_back({"versions.json", document(versions_json()), part});
}

// ---- Files --------------------------------------------------------------------------------------

// The last part of a file as a member, with a note of what was cut off.
void add_end(const std::string& name, const file_end& end, const std::string& member,
             const char* part, report_contents& to) {
    to.members.push_back({member, end.text, part});
    if (end.text.size() >= end.size) return;
    to.missing.push_back({part, name + " has " + std::to_string(end.size) +
                                    " bytes; the archive has the last " +
                                    std::to_string(end.text.size()) + " of them"});
}

void add_file(const std::string& name, const char* member, const char* part, report_contents& to) {
    add_end(name, read_file_end(name, file_limit), member, part, to);
}

void add_config(const report_sources& from, const char* part, report_contents& to) {
    const std::string name = from.where.config();
    if (open_by_own_links(name, tools::links::refused).state == tools::file_state::missing) {
        throw error("there is no file " + name + ", so the defaults hold");
    }
    add_file(name, config_name, part, to);
}

void add_properties(const report_sources& from, const char* part, report_contents& to) {
    add_file(from.where.properties(), properties_name, part, to);
}

// Logs of several folders may have the same name: "logs/qnm.log", "logs/qnm-2.log".
std::string name_of_log(const fs::path& file, const report_contents& to) {
    const auto is_taken = [&](const std::string& name) {
        return std::any_of(to.members.begin(), to.members.end(),
                           [&](const report_member& member) { return member.name == name; });
    };
    std::string name = file.filename().string();
    const auto member = [&name] { return "logs/" + tools::visible_line(name); };
    for (int number = 2; is_taken(member()); ++number)
        name = file.stem().string() + '-' + std::to_string(number) + file.extension().string();
    return member();
}

bool is_in_own_folder(const std::string& file) {
    struct stat folder {};
    return stat(fs::absolute(file).parent_path().c_str(), &folder) == 0 && is_own(folder);
}

// A user who can change the properties file could name any file there, and have it read by a user
// who may read more. So only logs of the file's owner are taken. A user who can change the folder
// could also put a hard link to another file there.
std::optional<std::string> reason_to_leave_out(const std::string& name, const struct stat& log,
                                               const std::string& properties,
                                               const struct stat& author) {
    if (log.st_nlink > 1 && !is_in_own_folder(name)) {
        return name + " has other names, too, and others can change its folder";
    }
    if (is_own(author)) return std::nullopt;
    if (!is_own_user(author.st_uid) && log.st_uid == author.st_uid) return std::nullopt;
    return name + " belongs to another user than " + properties +
           ", which others can change\nGive that one to root, or have its owner make the report.";
}

struct named_logs {
    const std::string& properties;
    struct stat author;
};

// A log that cannot be read does not keep the others out. The one that was rotated last is taken
// too, because the log itself may have just begun.
void add_log(const std::string& file, const named_logs& by, const char* part, report_contents& to) {
    for (const std::string& name : {file, file + ".1"}) {
        const bool is_rotated = name != file;
        if (is_rotated &&
            open_by_own_links(name, tools::links::refused).state == tools::file_state::missing)
            return;
        const std::string member = name_of_log(name, to);
        try {
            const file_end end = read_file_end(name, log_limit);
            if (const auto why = reason_to_leave_out(name, end.about, by.properties, by.author))
                throw error(*why);
            add_end(name, end, member, part, to);
        } catch (const error& e) {
            to.missing.push_back({part, e.what()});
        }
    }
}

void add_logs(const report_sources& from, const char* part, report_contents& to) {
    const std::string properties = from.where.properties();
    const file_end read = read_file_end(properties, file_limit);
    std::set<std::string> seen = {from.where.stats};  // of a private one: part "statistics"
    const log_properties in = read_log_properties(read.text);
    for (const char* const logger : library_loggers) {
        const std::vector<std::string> files = files_of_logger(in, logger);
        if (files.empty()) {
            to.missing.push_back({part, properties + " names no file for the logger " + logger});
        }
        for (const std::string& file : files) {
            if (seen.insert(file).second) add_log(file, {properties, read.about}, part, to);
        }
    }
}

// For an operator's installation: the log of this report's manager, beside the installation's logs.
void add_own_log(const report_sources& from, const char* part, report_contents& to) {
    if (from.where.temporary) return;
    const std::string log = running(from).log;
    add_end(log, read_file_end(log, log_limit), name_of_log("report.log", to), part, to);
}

void add_findings(const report_sources& from, const char* part, report_contents& to) {
    const findings found = examine(all_checks(), inspect_system(from.where));
    to.members.push_back({"doctor.txt", tools::visible(findings_text(found, {})), part});
}

// ---- Ports --------------------------------------------------------------------------------------

void add_ports(const report_sources& from, const char* part, report_contents& to) {
    json ports = json::array();
    const std::vector<std::string> names = configured_ports(config_of(from.where));
    for (std::size_t at = 0; at < names.size(); ++at) {
        if (auto found = port_json(static_cast<int>(at), names[at])) {
            ports.push_back(*found);
        } else {
            to.missing.push_back({part, "no such interface: \"" + names[at] + '"'});
        }
    }
    to.members.push_back({"ports.json", document(ports), part});
}

// ---- From the manager ---------------------------------------------------------------------------

// The addresses in a record other than the card's own.
void learn_addresses(const card& record, known_addresses& known) {
    known.learn(common(record).ecd_id);
    for (const section& within : all_sections(record)) {
        for (const field& item : within.fields) {
            if (item.form->how == style::mac) known.learn(item.value);
        }
    }
}

void add_cards(const report_sources& from, const char* part, report_contents& to) {
    running(from);
    const std::vector<card> cards = read_cards();
    json records = json::array();
    for (const card& record : cards) {
        learn_addresses(record, to.addresses);
        records.push_back(card_json(record));
    }
    to.members.push_back({"cards.txt", cards_text(cards, {}), part});
    to.members.push_back({"cards.json", document(records), part});
    to.members.push_back({"topology.txt", topology_text(make_topology(cards), {}), part});
}

void add_statistics(const report_sources& from, const char* part, report_contents& to) {
    const log_mark before(running(from).stats);
    const qnm_api_code_t code = qnm_stdump(1);
    if (code != QNM_API_SUCCESS) throw failed_call("qnm_stdump", code);
    to.members.push_back({"statistics.txt", tools::visible(before.text_since()), part});
}

void add_events(const report_sources& from, const char* part, report_contents& to) {
    running(from);
    to.members.push_back({"events.txt", last_part(from.events, log_limit), part});
}

void add_capture(const report_sources& from, const char* part, report_contents& to) {
    if (!from.why_no_capture.empty()) to.missing.push_back({part, from.why_no_capture});
    if (from.capture.empty()) return;
    to.members.push_back({"capture.pcapng", from.capture, part, member_form::capture});
}

// ---- The table ----------------------------------------------------------------------------------

constexpr report_part rows[] = {
    {"versions", add_versions},
    {"configuration", add_config},
    {"properties", add_properties},
    {"doctor", add_findings},
    {"ports", add_ports},
    {"cards", add_cards},
    {"statistics", add_statistics},
    {"events", add_events},
    {"capture", add_capture},
    {"logs", add_logs},
    {"log of this report", add_own_log},
};

}  // namespace

std::span<const report_part> report_parts() {
    return rows;
}

// One more byte is read, to see whether a line starts exactly at the limit.
file_end read_file_end(const std::string& name, std::size_t limit) {
    const tools::opened_file file = open_by_own_links(name, tools::links::refused);
    if (file.state != tools::file_state::readable) throw error(tools::refusal_text(file));
    const std::uint64_t wanted = std::uint64_t{limit} + 1;
    const std::uint64_t start = file.size() - std::min(file.size(), wanted);
    return {last_part(tools::read_part(file, start, limit + 1), limit), file.size(), file.about};
}

std::string config_of(const installation& where) {
    const tools::opened_file file = open_by_own_links(where.config(), tools::links::refused);
    return file.state == tools::file_state::readable ? tools::read_part(file, 0, file_limit) : "";
}

report_contents collect_report(std::span<const report_part> parts, const report_sources& from) {
    report_contents found;
    for (const report_part& part : parts) {
        try {
            part.add(from, part.name, found);
        } catch (const std::exception& e) {
            found.missing.push_back({part.name, e.what()});
        }
    }
    return found;
}

}  // namespace qnmctl
