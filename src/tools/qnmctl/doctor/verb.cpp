// Inspects the system and tells what was found.
#include "doctor/verb.h"

#include "doctor/findings_text.h"
#include "output/text.h"

namespace qnmctl {

int run_doctor(context& with, const request&) {
    const findings found = examine(all_checks(), inspect_system(with.where));
    with.told.text(findings_text(found, with.how));
    for (const finding& one : found)
        with.told.record("finding", finding_json(one));
    with.told.record("summary", summary_json(found));
    return count(found, severity::error) == 0 ? exit_ok : exit_unwell;
}

}  // namespace qnmctl
