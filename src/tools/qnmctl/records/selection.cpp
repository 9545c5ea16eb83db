// Compares cards with what was asked for.
#include "records/selection.h"

#include <algorithm>
#include <set>

namespace qnmctl {

bool fits(const card& one, const selection& wanted) {
    const bool server = std::holds_alternative<qnm_qnsv_t>(one);
    const auto named = std::find(wanted.ids.begin(), wanted.ids.end(), common(one).ecd_id);
    if (!wanted.ids.empty() && named == wanted.ids.end()) return false;
    if (wanted.kind && (*wanted.kind == card_kind::server) != server) return false;
    return !wanted.group || *wanted.group == common(one).ecd_vlan_id;
}

std::vector<std::uint64_t> fitting_ids(const std::vector<card>& known, const selection& wanted) {
    std::set<std::uint64_t> ids;  // one that is known as both kinds is there twice
    for (const card& one : known) {
        if (fits(one, wanted)) ids.insert(common(one).ecd_id);
    }
    return {ids.begin(), ids.end()};
}

}  // namespace qnmctl
