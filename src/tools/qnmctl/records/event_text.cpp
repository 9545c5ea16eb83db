// What an event tells of a card, from the fields that it changed.
#include "records/event_text.h"

#include <iterator>
#include <nlohmann/json.hpp>
#include <vector>

#include "output/output.h"

namespace qnmctl {

namespace {

// Indexed by meaning.
constexpr const char* colours[] = {nullptr, green, yellow, red};

// What a change of one field means.
meaning meaning_of(const change& of) {
    const std::uint64_t raised = of.after.value & ~of.before.value;
    switch (of.after.about) {
        case aspect::path:
            return of.after.value != 0 ? meaning::back : meaning::lost;
        case aspect::error_vector:
        case aspect::link_fault:
            return raised != 0 ? meaning::faulty : meaning::back;
        case aspect::general:
        case aspect::connection:
            break;
    }
    return meaning::plain;
}

// What stands behind a card when it is seen for the first time.
std::string summary(const card& of) {
    const std::vector<field> fields = sections(of).front().fields;
    const auto text = [&](const char* name) { return value_text(*find_field(fields, name, "")); };
    std::string words = text("type") + ", VLAN ID " + text("vlan_id") + ", version " + text("ver");
    if (common(of).ecd_vlan_mode != 0) words += ", VLAN mode " + text("vlan_mode");
    const auto* described = std::get_if<qnm_qnio_t>(&of);
    if (described != nullptr && described->eio_mr_resource_num != 0) {
        words += ", resource ID " + text("mr_resource_num");
    }
    std::vector<std::string> paths;
    for (const field& shown : fields) {
        if (shown.about == aspect::path && shown.value != 0) paths.emplace_back(shown.key);
    }
    return words + (paths.empty() ? ", no path connected" : ", connected " + join(paths, " "));
}

std::string event_words(const observed& seen, const told_change& told) {
    if (!seen.record) return "the card is no longer known";
    if (told.first) return summary(*seen.record) + " (" + reason_text(told.why) + ')';
    if (told.changes.empty()) {
        return present_text(seen.type, *seen.record) + " (" + reason_text(told.why) + ')';
    }
    return changes_text(told.changes);
}

json change_json(const change& one) {
    return {{"field", one.name},
            {"old", value_json(one.before)},
            {"new", value_json(one.after)},
            {"why", reason_json(one.why)}};
}

const char* kind_or_unknown(const std::optional<card>& of) {
    return of ? kind_text(*of) : "????";
}

json kind_json(const std::optional<card>& of) {
    return of ? json(kind_text(*of)) : json();
}

std::string line_text(wall_time when, const char* event, const char* colour,
                      const std::optional<card>& record, std::uint64_t id,
                      const std::string& words) {
    constexpr int name_width = -18;
    return time_text(when) + ' ' + in_colour(padded(event, name_width), colour, colour != nullptr) +
           ' ' + kind_or_unknown(record) + ' ' + id_text(id) + "  " + words;
}

reason reason_of(const monitor_change& of) {
    return {.why = of.restarted ? cause::restarted : cause::stopped};
}

const char* on_off(bool on) {
    return on ? "on" : "off";
}

}  // namespace

// The worst of all changes counts.
meaning meaning_of(const observed& seen, const told_change& told) {
    if (!seen.record) return meaning::lost;
    meaning worst = told.first ? meaning::back : meaning::plain;
    for (const change& one : told.changes)
        worst = std::max(worst, meaning_of(one));
    return worst;
}

std::string event_line(const observed& seen, const told_change& told, bool coloured) {
    const auto of = static_cast<std::size_t>(meaning_of(seen, told));
    return line_text(seen.when, qnm_event_name(seen.type), coloured ? colours[of] : nullptr,
                     seen.record, seen.id, event_words(seen, told));
}

json event_json(const observed& seen, const told_change& told) {
    json object = {{"time", iso_time_text(seen.when)},
                   {"event", qnm_event_name(seen.type)},
                   {"kind", kind_json(seen.record)},
                   {"id", id_text(seen.id)}};
    if (!seen.record) return object;
    if (!told.first) {
        object["changes"] = json::array();
        for (const change& one : told.changes)
            object["changes"].push_back(change_json(one));
    }
    if (told.changes.empty()) {
        object["card"] = card_json(*seen.record);
        object["why"] = reason_json(told.why);
    }
    return object;
}

std::string monitor_line(const monitor_change& of, bool coloured) {
    const std::string words = std::string("monitoring ") + on_off(of.was_on) + " -> " +
                              on_off(of.restarted) + " (" + reason_text(reason_of(of)) + ')';
    return line_text(of.when, monitor_event, coloured ? bold : nullptr, of.record, of.id, words);
}

json monitor_json(const monitor_change& of) {
    return {{"time", iso_time_text(of.when)},
            {"event", monitor_event},
            {"kind", kind_json(of.record)},
            {"id", id_text(of.id)},
            {"changes", json::array({{{"field", "monitoring"},
                                      {"old", on_off(of.was_on)},
                                      {"new", on_off(of.restarted)},
                                      {"why", reason_json(reason_of(of))}}})}};
}

}  // namespace qnmctl
