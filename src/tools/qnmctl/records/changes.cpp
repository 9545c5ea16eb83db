// Compares records field by field.
#include "records/changes.h"

#include <iterator>
#include <optional>

#include "output/text.h"

namespace qnmctl {

namespace {

// The fields that an event type is about, indexed by qnm_evt_type_t; nullopt: all of them.
constexpr std::optional<aspect> abouts[] = {
    std::nullopt,         std::nullopt,       aspect::connection,
    aspect::error_vector, aspect::link_fault, aspect::path,
};
static_assert(std::size(abouts) == QNM_EVT_MAX);

std::string full_name(const section& in, const field& item) {
    std::string name = in.name;
    if (in.index >= 0) name += '[' + std::to_string(in.index) + ']';
    if (!name.empty()) name += '.';
    name += item.name;
    if (item.key != nullptr) name += std::string(".") + item.key;
    return name;
}

// Both cards are of the same kind, so their sections and fields stand in the same order.
std::vector<change> compare(const card& before, const card& after, std::optional<aspect> about) {
    const std::vector<section> old_sections = all_sections(before);
    const std::vector<section> new_sections = all_sections(after);
    std::vector<change> found;
    for (std::size_t in = 0; in < new_sections.size(); ++in) {
        const section& within = new_sections[in];
        for (std::size_t at = 0; at < within.fields.size(); ++at) {
            const field& was = old_sections[in].fields[at];
            const field& is = within.fields[at];
            if (about && is.about != *about) continue;
            if (((was.value ^ is.value) & is.compared) == 0) continue;
            found.push_back({section_title(within), full_name(within, is), was, is, {}});
        }
    }
    return found;
}

// If the record was ahead of the previous event, that event has reported this change and its
// reason.
reason reason_of_no_change(watch_facts& facts, const reported_card& last_reported,
                           const card& now) {
    if (is_restarted(facts, now)) return {.why = cause::restarted};
    const bool ahead = common(last_reported.record).ecd_updatetime == common(now).ecd_updatetime;
    return ahead ? last_reported.why : reason{};
}

}  // namespace

reported_change tell(known_cards& known, qnm_evt_type_t type, const card& now) {
    const auto [at, added] = known.last_reported.try_emplace(common(now).ecd_id);
    reported_card& last_reported = at->second[type];
    const bool first =
        added || type == QNM_EVT_NEWDEVINFO || last_reported.record.index() != now.index();
    if (first) {
        at->second.fill({now});
        return {.first = true, .changes = {}};
    }
    reported_change reported{.changes = compare(last_reported.record, now, abouts[type])};
    for (change& difference : reported.changes)
        difference.why = find_reason(known.facts, now, difference.before, difference.after);
    reported.why = reported.changes.empty() ? reason_of_no_change(known.facts, last_reported, now)
                                            : reported.changes.back().why;
    last_reported = {now, reported.why};
    return reported;
}

std::optional<card> reported_before(const known_cards& known, std::uint64_t id) {
    const auto found = known.last_reported.find(id);
    if (found == known.last_reported.end()) return std::nullopt;
    return found->second[QNM_EVT_UPDATEDEVINFO].record;
}

std::string change_text(const change& difference) {
    return difference.section_title + difference.after.title + ' ' + value_text(difference.before) +
           " -> " + value_text(difference.after);
}

std::string changes_text(const std::vector<change>& all) {
    std::string text;
    for (std::size_t at = 0; at < all.size(); ++at) {
        if (at > 0) text += ", ";
        text += change_text(all[at]);
        const bool last = at + 1 == all.size() || all[at + 1].why != all[at].why;
        if (last) text += " (" + reason_text(all[at].why) + ')';
    }
    return text;
}

std::string present_text(qnm_evt_type_t type, const card& now) {
    const std::optional<aspect> about = abouts[type];
    if (!about) return "nothing further changed";
    std::vector<std::string> parts;
    for (const section& within : sections(now)) {
        for (const field& shown : within.fields) {
            if (shown.about != *about || shown.value == 0) continue;
            parts.push_back(section_title(within) + shown.title + ' ' + value_text(shown));
        }
    }
    return "now: " + (parts.empty() ? std::string("none") : join(parts, ", "));
}

}  // namespace qnmctl
