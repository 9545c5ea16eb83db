// What is taken into a report, and from where.
//
// A new part is a function here and a row in the table.
#include "report_archive_parts.h"

#include <algorithm>
#include <filesystem>
#include <set>

#include "config_file.h"
#include "doctor_report.h"
#include "fields.h"
#include "report.h"
#include "report_archive_system.h"
#include "session.h"
#include "topology.h"

namespace qnmctl {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t file_limit = std::size_t{1024} * 1024;  // of a configuration file
constexpr std::size_t log_limit =
    std::size_t{256} * 1024;  // the last part of a log, and of the events

std::string document(const json& of) {
    return of.dump(2, ' ', false, json::error_handler_t::replace) + '\n';
}

const installation& running(const report_sources& from) {
    if (from.running == nullptr) throw error(from.why_not_running);
    return *from.running;
}

void add_versions(const report_sources&, const char* part, report_contents& to) {
    to.members.push_back({"versions.json", document(versions_json()), part});
}

// ---- Files --------------------------------------------------------------------------------------

void add_config(const report_sources& from, const char* part, report_contents& to) {
    const std::string name = from.where.config();
    if (!fs::exists(name)) throw error("there is no file " + name + ", so the defaults hold");
    to.members.push_back({config_name, read_last_part(name, file_limit), part});
}

void add_properties(const report_sources& from, const char* part, report_contents& to) {
    to.members.push_back(
        {properties_name, read_last_part(from.where.properties(), file_limit), part});
}

// Logs of several folders may have the same name: "logs/qnm.log", "logs/qnm-2.log".
std::string name_of_log(const fs::path& file, const report_contents& to) {
    const auto is_taken = [&](const std::string& name) {
        return std::any_of(to.members.begin(), to.members.end(),
                           [&](const report_member& of) { return of.name == name; });
    };
    std::string name = "logs/" + file.filename().string();
    for (int number = 2; is_taken(name); ++number) {
        name = "logs/" + file.stem().string() + '-' + std::to_string(number) +
               file.extension().string();
    }
    return name;
}

// One that cannot be read does not keep the others out.
void add_log(const std::string& file, const char* part, report_contents& to) {
    const std::string name = name_of_log(file, to);
    try {
        to.members.push_back({name, read_last_part(file, log_limit), part});
    } catch (const error& e) {
        to.missing.push_back({part, e.what()});
    }
}

void add_logs(const report_sources& from, const char* part, report_contents& to) {
    const std::string properties = from.where.properties();
    const std::string text = read_last_part(properties, file_limit);
    std::set<std::string> seen = {from.where.stats};  // of a temporary one: part "statistics"
    for (const char* const logger : {"logfile", "syslogfile", "statslogfile"}) {
        const std::string file = file_of_logger(text, logger);
        if (file.empty()) {
            to.missing.push_back({part, properties + " names no file for the logger " + logger});
        } else if (seen.insert(file).second) {
            add_log(file, part, to);
        }
    }
}

// Of an operator's installation: what the manager of this report has logged, beside his own logs.
void add_own_log(const report_sources& from, const char* part, report_contents& to) {
    if (from.where.temporary) return;
    const std::string log = running(from).log;
    to.members.push_back({name_of_log("report.log", to), read_last_part(log, log_limit), part});
}

void add_findings(const report_sources& from, const char* part, report_contents& to) {
    const findings found = examine(all_checks(), inspect_system(from.where));
    to.members.push_back({"doctor.txt", findings_text(found, {}), part});
}

// ---- Ports --------------------------------------------------------------------------------------

void add_ports(const report_sources& from, const char* part, report_contents& to) {
    json ports = json::array();
    const std::vector<std::string> names = configured_ports(read_text(from.where.config()));
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

// The addresses that a record has beside the card's own.
void learn_addresses(const card& of, known_addresses& known) {
    known.learn(common(of).ecd_id);
    for (const section& within : all_sections(of)) {
        for (const field& one : within.fields) {
            if (one.form->how == style::mac) known.learn(one.value);
        }
    }
}

void add_cards(const report_sources& from, const char* part, report_contents& to) {
    running(from);
    const std::vector<card> cards = read_cards();
    json records = json::array();
    for (const card& one : cards) {
        learn_addresses(one, to.addresses);
        records.push_back(card_json(one));
    }
    to.members.push_back({"cards.txt", cards_text(cards, {}), part});
    to.members.push_back({"cards.json", document(records), part});
    to.members.push_back({"topology.txt", topology_text(make_topology(cards), {}), part});
}

void add_statistics(const report_sources& from, const char* part, report_contents& to) {
    const std::string stats = running(from).stats;
    const std::size_t before = read_text(stats).size();
    const qnm_api_code_t code = qnm_stdump(1);
    if (code != QNM_API_SUCCESS) throw failed_call("qnm_stdump", code);
    to.members.push_back({"statistics.txt", read_text(stats).substr(before), part});
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

report_contents collect_report(std::span<const report_part> parts, const report_sources& from) {
    report_contents found;
    for (const report_part& one : parts) {
        try {
            one.add(from, one.name, found);
        } catch (const std::exception& e) {
            found.missing.push_back({one.name, e.what()});
        }
    }
    return found;
}

}  // namespace qnmctl
