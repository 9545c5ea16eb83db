// Texts and JSON objects made from the fields of cards.
#include "report.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string_view>

namespace qnmctl {

namespace {

constexpr char bold[] = "\033[1m";
constexpr char plain[] = "\033[0m";

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

std::string in_colour(const std::string& text, const char* colour, bool coloured) {
    return coloured ? colour + text + plain : text;
}

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

std::string event_words(const observed& seen, known_cards& known) {
    if (!seen.record) return "the card is no longer known";
    const told_change told = tell(known, seen.type, *seen.record);
    if (told.first) return summary(*seen.record);
    if (told.changes.empty()) return present_text(seen.type, *seen.record);
    std::vector<std::string> parts;
    for (const change& one : told.changes)
        parts.push_back(change_text(one));
    return join(parts, ", ");
}

json change_json(const change& one) {
    return {{"field", one.name}, {"old", value_json(one.before)}, {"new", value_json(one.after)}};
}

// A column of the table of cards: the field that it shows.
struct column {
    const char* heading;
    int width;  // negative: to the left
    const char* name;
    const char* key;
};

constexpr column columns[] = {
    {"ID", -14, "id", ""},         {"TYPE", -5, "type", ""},
    {"VLAN", 4, "vlan_id", ""},    {"VER", 3, "ver", ""},
    {"P0M0", 4, "state", "P0M0"},  {"P0M1", 4, "state", "P0M1"},
    {"P1M0", 4, "state", "P1M0"},  {"P1M1", 4, "state", "P1M1"},
    {"MODE", -6, "vlan_mode", ""}, {"R-ID", 4, "mr_resource_num", ""},
};

std::string cell(const field* shown) {
    if (shown == nullptr) return "-";  // a field that this kind of card does not have
    if (shown->about == aspect::path) return shown->value != 0 ? "C" : "D";
    return value_text(*shown);
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

}  // namespace

std::string event_line(const observed& seen, known_cards& known, bool coloured) {
    constexpr int name_width = -18;
    const std::string words = event_words(seen, known);
    const std::string name = padded(event_name(seen.type), name_width);
    const char* const kind = seen.record ? kind_text(*seen.record) : "????";
    return time_text(seen.when) + ' ' + in_colour(name, event_colours[seen.type], coloured) + ' ' +
           kind + ' ' + id_text(seen.id) + "  " + words;
}

json event_json(const observed& seen, known_cards& known) {
    json object = {{"time", iso_time_text(seen.when)}, {"event", event_name(seen.type)}};
    object["kind"] = seen.record ? json(kind_text(*seen.record)) : json();
    object["id"] = id_text(seen.id);
    if (!seen.record) return object;
    const told_change told = tell(known, seen.type, *seen.record);
    if (told.first) {
        object["card"] = card_json(*seen.record);
        return object;
    }
    object["changes"] = json::array();
    for (const change& one : told.changes)
        object["changes"].push_back(change_json(one));
    return object;
}

std::string table_text(const std::vector<card>& cards, bool coloured) {
    std::string heading = "KIND";
    for (const column& of : columns)
        heading += ' ' + padded(of.heading, of.width);
    std::string text = in_colour(heading, bold, coloured) + '\n';
    std::size_t servers = 0;
    for (const card& shown : cards) {
        servers += std::holds_alternative<qnm_qnsv_t>(shown) ? 1U : 0U;
        const std::vector<field> fields = sections(shown).front().fields;
        std::string line = kind_text(shown);
        for (const column& of : columns) {
            line += ' ' + padded(cell(find_field(fields, of.name, of.key)), of.width);
        }
        text += trimmed(line) + '\n';
    }
    return text + std::to_string(servers) + " QNSV, " + std::to_string(cards.size() - servers) +
           " QNIO\n";
}

json table_json(const std::vector<card>& cards) {
    json all = json::array();
    for (const card& shown : cards)
        all.push_back(card_json(shown));
    return all;
}

std::string card_text(const card& shown, bool coloured) {
    constexpr int title_width = -32;
    constexpr int name_width = -18;
    std::string text =
        in_colour(std::string(kind_text(shown)) + " card " + id_text(common(shown).ecd_id), bold,
                  coloured) +
        '\n';
    for (const section& within : sections(shown)) {
        const std::string title = section_title(within);
        const bool indented = !title.empty();
        if (indented) text += in_colour("  " + trimmed(title), bold, coloured) + '\n';
        for (const field& of : within.fields) {
            const std::string name =
                of.key == nullptr ? of.name : of.name + (std::string(".") + of.key);
            text += (indented ? "    " : "  ") + padded(of.title, title_width) + ' ' +
                    padded(name, name_width) + ' ' + value_text(of) + '\n';
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
