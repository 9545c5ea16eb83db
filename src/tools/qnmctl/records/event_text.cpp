// Makes the text of an event from the fields that it changed.
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
meaning meaning_of(const change& difference) {
    const std::uint64_t raised = difference.after.value & ~difference.before.value;
    switch (difference.after.about) {
        case aspect::path:
            return difference.after.value != 0 ? meaning::back : meaning::lost;
        case aspect::error_vector:
        case aspect::link_fault:
            return raised != 0 ? meaning::faulty : meaning::back;
        case aspect::general:
        case aspect::connection:
            break;
    }
    return meaning::plain;
}

// The end of the line of a card that is seen for the first time.
std::string summary(const card& record) {
    const std::vector<field> fields = sections(record).front().fields;
    const auto text = [&](const char* name) { return value_text(*find_field(fields, name, "")); };
    std::string words = text("type") + ", VLAN ID " + text("vlan_id") + ", version " + text("ver");
    if (common(record).ecd_vlan_mode != 0) words += ", VLAN mode " + text("vlan_mode");
    const auto* described = std::get_if<qnm_qnio_t>(&record);
    if (described != nullptr && described->eio_mr_resource_num != 0) {
        words += ", resource ID " + text("mr_resource_num");
    }
    std::vector<std::string> paths;
    for (const field& shown : fields) {
        if (shown.about == aspect::path && shown.value != 0) paths.emplace_back(shown.key);
    }
    return words + (paths.empty() ? ", no path connected" : ", connected " + join(paths, " "));
}

std::string event_words(const observed& seen, const reported_change& reported) {
    if (!seen.record) return "the card is no longer known";
    if (reported.first) return summary(*seen.record) + " (" + reason_text(reported.why) + ')';
    if (reported.changes.empty()) {
        return present_text(seen.type, *seen.record) + " (" + reason_text(reported.why) + ')';
    }
    return changes_text(reported.changes);
}

json change_json(const change& difference) {
    return {{"field", difference.name},
            {"old", value_json(difference.before)},
            {"new", value_json(difference.after)},
            {"why", reason_json(difference.why)}};
}

const char* kind_or_unknown(const std::optional<card>& record) {
    return record ? kind_text(*record) : "????";
}

json kind_json(const std::optional<card>& record) {
    return record ? json(kind_text(*record)) : json();
}

std::string line_text(wall_time when, const char* event, const char* colour,
                      const std::optional<card>& record, std::uint64_t id,
                      const std::string& words) {
    constexpr int name_width = -18;
    return time_text(when) + ' ' + in_colour(padded(event, name_width), colour, colour != nullptr) +
           ' ' + kind_or_unknown(record) + ' ' + id_text(id) + "  " + words;
}

reason reason_of(const monitor_change& event) {
    return {.why = event.restarted ? cause::restarted : cause::stopped};
}

const char* on_off(bool on) {
    return on ? "on" : "off";
}

}  // namespace

// The worst of all changes counts.
meaning meaning_of(const observed& seen, const reported_change& reported) {
    if (!seen.record) return meaning::lost;
    meaning worst = reported.first ? meaning::back : meaning::plain;
    for (const change& difference : reported.changes)
        worst = std::max(worst, meaning_of(difference));
    return worst;
}

std::string event_line(const observed& seen, const reported_change& reported, bool coloured) {
    const auto meaning = static_cast<std::size_t>(meaning_of(seen, reported));
    return line_text(seen.when, qnm_event_name(seen.type), coloured ? colours[meaning] : nullptr,
                     seen.record, seen.id, event_words(seen, reported));
}

json event_json(const observed& seen, const reported_change& reported) {
    json object = {{"time", iso_time_text(seen.when)},
                   {"event", qnm_event_name(seen.type)},
                   {"kind", kind_json(seen.record)},
                   {"id", id_text(seen.id)}};
    if (!seen.record) return object;
    if (!reported.first) {
        object["changes"] = json::array();
        for (const change& difference : reported.changes)
            object["changes"].push_back(change_json(difference));
    }
    if (reported.changes.empty()) {
        object["card"] = card_json(*seen.record);
        object["why"] = reason_json(reported.why);
    }
    return object;
}

std::string monitor_line(const monitor_change& event, bool coloured) {
    const std::string words = std::string("monitoring ") + on_off(event.was_on) + " -> " +
                              on_off(event.restarted) + " (" + reason_text(reason_of(event)) + ')';
    return line_text(event.when, monitor_event, coloured ? bold : nullptr, event.record, event.id,
                     words);
}

json monitor_json(const monitor_change& event) {
    return {{"time", iso_time_text(event.when)},
            {"event", monitor_event},
            {"kind", kind_json(event.record)},
            {"id", id_text(event.id)},
            {"changes", json::array({{{"field", "monitoring"},
                                      {"old", on_off(event.was_on)},
                                      {"new", on_off(event.restarted)},
                                      {"why", reason_json(reason_of(event))}}})}};
}

}  // namespace qnmctl
