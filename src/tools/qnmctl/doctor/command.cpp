// doctor: inspects the system and prints the findings.
#include "doctor/command.h"

#include <nlohmann/json.hpp>

#include "cli/options.h"
#include "doctor/findings_text.h"
#include "manager/context.h"
#include "output/text.h"

namespace qnmctl {

namespace {

constexpr char doctor_help[] =
    "Checks privileges, interfaces with their link and VLAN offload, capture, which process\n"
    "accesses cards by an interface or receives nothing there, the clock, both configuration\n"
    "files line by line, log folders and free space, and for root whether tshark has the\n"
    "dissector. It starts no manager and changes nothing. Each finding is ok, a note, a warning\n"
    "or an error, with its remedy below it.\n"
    "Run it as the user that the host program runs as; only root, though, can see which other\n"
    "processes listen. It reads only regular files up to 1 MiB and follows no symbolic links. The\n"
    "exit status is 3 when there is an error: a manager would not start, would ignore a setting,\n"
    "or would hear nothing.";

constexpr example doctor_examples[] = {
    {"qnmctl doctor", "What keeps a manager from working here"},
    {"qnmctl --dir /opt/tarvo/qnm doctor", "The same for the installation of a host program"},
};

struct doctor_options {};

int run_doctor(context& with, const doctor_options&) {
    const findings found = examine(all_checks(), inspect_system(with.where));
    with.results.text(findings_text(found, with.how));
    for (const finding& shown : found)
        with.results.record("finding", finding_json(shown));
    with.results.record("summary", summary_json(found));
    return count(found, severity::error) == 0 ? exit_ok : exit_unwell;
}

}  // namespace

void define_doctor(command_tree& tree) {
    if (tree.use == used_for::lines) return;
    const auto doctor = add_command_with<doctor_options>(
        tree, {"doctor", "Finds what keeps a manager from working here, and says what helps",
               doctor_help, doctor_examples});
    add_output(doctor.self);
    set_run(doctor, run_doctor);
}

}  // namespace qnmctl
