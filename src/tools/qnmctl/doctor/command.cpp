// doctor: inspects the system and tells what was found.
#include "doctor/command.h"

#include <nlohmann/json.hpp>

#include "cli/options.h"
#include "doctor/findings_text.h"
#include "manager/context.h"
#include "output/text.h"

namespace qnmctl {

namespace {

constexpr char doctor_help[] =
    "Looks at privileges, interfaces with their link and VLAN offload, capture, which process\n"
    "accesses cards by an interface or is deaf there, clock, both files of the configuration line\n"
    "by line, log folders and free space, and for root whether tshark has the dissector, without\n"
    "starting a manager and without changing anything. Each finding is ok, a note, a warning or\n"
    "an error, and has its remedy below it.\n"
    "Run it as the user that the host program runs as; which other processes listen, though, only\n"
    "root can see. Only regular files are read, up to 1 MiB, and not what a symbolic link stands\n"
    "for. The exit status is 3 when there is an error: a manager would not start, do without what\n"
    "it is told to use, or hear nothing.";

struct doctor_options {};

int run_doctor(context& with, const doctor_options&) {
    const findings found = examine(all_checks(), inspect_system(with.where));
    with.told.text(findings_text(found, with.how));
    for (const finding& shown : found)
        with.told.record("finding", finding_json(shown));
    with.told.record("summary", summary_json(found));
    return count(found, severity::error) == 0 ? exit_ok : exit_unwell;
}

}  // namespace

void define_doctor(command_tree& tree) {
    if (tree.use == used_for::lines) return;
    const auto doctor = add_command_with<doctor_options>(
        tree, {"doctor", "Finds what keeps a manager from working here, and says what helps",
               doctor_help});
    add_output(doctor.self);
    set_run(doctor, run_doctor);
}

}  // namespace qnmctl
