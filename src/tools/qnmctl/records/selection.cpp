// Compares cards with a selection.
#include "records/selection.h"

#include <algorithm>
#include <set>

namespace qnmctl {

bool fits(const card& record, const selection& wanted) {
    const bool server = std::holds_alternative<qnm_qnsv_t>(record);
    const auto named = std::find(wanted.ids.begin(), wanted.ids.end(), common(record).ecd_id);
    if (!wanted.ids.empty() && named == wanted.ids.end()) return false;
    if (wanted.kind && (*wanted.kind == card_kind::server) != server) return false;
    return !wanted.group || *wanted.group == common(record).ecd_vlan_id;
}

std::vector<std::uint64_t> fitting_ids(const std::vector<card>& known, const selection& wanted) {
    std::set<std::uint64_t> ids;  // one that is known as both kinds is there twice
    for (const card& record : known) {
        if (fits(record, wanted)) ids.insert(common(record).ecd_id);
    }
    return {ids.begin(), ids.end()};
}

}  // namespace qnmctl
