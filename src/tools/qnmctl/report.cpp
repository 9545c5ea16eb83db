// Texts and JSON objects made from the fields of cards.
#include "report.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string_view>

#include "table.h"

namespace qnmctl {

namespace {

// Indexed by qnm_evt_type_t.
constexpr const char* event_colours[] = {
    "\033[32m",  // new: green
    "\033[36m",  // update: cyan
    "\033[34m",  // binding: blue
    "\033[31m",  // error: red
    "\033[33m",  // link fault: yellow
    "\033[35m",  // path: magenta
};
static_assert(std::size(event_colours) == QNM_EVT_MAX);

std::string padded(std::string text, int width) {
    const auto wanted = static_cast<std::size_t>(std::abs(width));
    if (text.size() >= wanted) return text;
    const std::string blanks(wanted - text.size(), ' ');
    return width < 0 ? text + blanks : blanks + text;
}

std::string trimmed(std::string text) {
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

const field* find_field(const std::vector<field>& in, std::string_view name, std::string_view key) {
    const auto found = std::find_if(in.begin(), in.end(), [&](const field& of) {
        return name == of.name && key == (of.key != nullptr ? of.key : "");
    });
    return found == in.end() ? nullptr : &*found;
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

// A column of the table of cards: the field that it shows.
struct card_column {
    table_column column;
    const char* name;
    const char* key;
};

constexpr card_column card_columns[] = {
    {{.heading = "ID", .width = 14}, "id", ""},
    {{.heading = "TYPE", .width = 5, .spare = 2}, "type", ""},
    {{.heading = "VLAN", .right = true, .spare = 1}, "vlan_id", ""},
    {{.heading = "VER", .right = true, .spare = 3}, "ver", ""},
    {{.heading = "P0M0", .right = true}, "state", "P0M0"},
    {{.heading = "P0M1", .right = true}, "state", "P0M1"},
    {{.heading = "P1M0", .right = true}, "state", "P1M0"},
    {{.heading = "P1M1", .right = true}, "state", "P1M1"},
    {{.heading = "MODE", .width = 6, .spare = 4}, "vlan_mode", ""},
    {{.heading = "R-ID", .right = true, .spare = 5}, "mr_resource_num", ""},
};

std::string cell(const card& of, const field* shown) {
    if (shown == nullptr) return "-";  // a field that this kind of card does not have
    if (shown->about != aspect::path) return value_text(*shown);
    const int port = shown->key[1] - '0';  // "P0M1"
    const int path = shown->key[3] - '0';
    return sight_text(path_of(of, port, path));
}

json section_json(const section& of) {
    json object = json::object();
    for (const field& shown : of.fields) {
        if (shown.key == nullptr) {
            object[shown.name] = value_json(shown);
        } else {
            object[shown.name][shown.key] = value_json(shown);
        }
    }
    return object;
}

// None for a type that no callback brings; qnm_event_name() has a name for those, too.
const char* colour_of(qnm_evt_type_t type) {
    return type < QNM_EVT_MAX ? event_colours[type] : nullptr;
}

}  // namespace

std::string event_line(const observed& seen, const told_change& told, bool coloured) {
    return line_text(seen.when, qnm_event_name(seen.type),
                     coloured ? colour_of(seen.type) : nullptr, seen.record, seen.id,
                     event_words(seen, told));
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

json monitored_json(const char* action, std::uint64_t id, qnm_api_code_t code) {
    return {{"action", action}, {"id", id_text(id)}, {"result", code_name(code)}};
}

json stats_json(const std::string& text, const std::string& file) {
    return {{"text", text}, {"file", file.empty() ? json() : json(file)}};
}

std::string cards_text(const std::vector<card>& cards, const look& how) {
    table shown{.columns = {{.heading = "KIND"}}};
    for (const card_column& of : card_columns)
        shown.columns.push_back(of.column);
    std::size_t servers = 0;
    for (const card& one : cards) {
        servers += std::holds_alternative<qnm_qnsv_t>(one) ? 1U : 0U;
        const std::vector<field> fields = sections(one).front().fields;
        std::vector<std::string>& row = shown.rows.emplace_back();
        row.emplace_back(kind_text(one));
        for (const card_column& of : card_columns)
            row.push_back(cell(one, find_field(fields, of.name, of.key)));
    }
    return table_text(shown, how) + std::to_string(servers) + " QNSV, " +
           std::to_string(cards.size() - servers) + " QNIO\n";
}

std::string card_text(const card& shown, const look& how) {
    constexpr int title_width = -32;
    constexpr int name_width = -18;
    constexpr std::size_t width_with_names = 78;
    std::string text =
        in_colour(std::string(kind_text(shown)) + " card " + id_text(common(shown).ecd_id), bold,
                  how.coloured) +
        '\n';
    for (const section& within : sections(shown)) {
        const std::string title = section_title(within);
        const bool indented = !title.empty();
        if (indented) text += in_colour("  " + trimmed(title), bold, how.coloured) + '\n';
        for (const field& of : within.fields) {
            const std::string name =
                of.key == nullptr ? of.name : of.name + (std::string(".") + of.key);
            text += (indented ? "    " : "  ") + padded(of.title, title_width) + ' ';
            if (how.width >= width_with_names) text += padded(name, name_width) + ' ';
            text += value_text(of) + '\n';
        }
    }
    return text;
}

json card_json(const card& shown) {
    json object = {{"kind", kind_text(shown)}};
    for (const section& within : sections(shown)) {
        if (within.index >= 0) {
            object[within.name].push_back(section_json(within));
        } else if (within.name[0] != '\0') {
            object[within.name] = section_json(within);
        } else {
            object.update(section_json(within));
        }
    }
    return object;
}

}  // namespace qnmctl
