// Texts and JSON objects made from the fields of cards.
#include "cards/card_text.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string_view>

#include "manager/status_dump.h"
#include "output/table.h"
#include "records/condition.h"

namespace qnmctl {

namespace {

std::string trimmed(std::string text) {
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
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
    {{.heading = "VER", .right = true, .spare = 4}, "ver", ""},
    {{.heading = "P0M0", .right = true}, "state", "P0M0"},
    {{.heading = "P0M1", .right = true}, "state", "P0M1"},
    {{.heading = "P1M0", .right = true}, "state", "P1M0"},
    {{.heading = "P1M1", .right = true}, "state", "P1M1"},
    {{.heading = "MODE", .width = 6, .spare = 5}, "vlan_mode", ""},
    {{.heading = "R-ID", .right = true, .spare = 6}, "mr_resource_num", ""},
};

// Indexed by condition.
constexpr const char* condition_colours[] = {nullptr, yellow, red};

std::string cell(const card& record, const field* shown) {
    if (shown == nullptr) return "-";  // a field that this kind of card does not have
    if (shown->about != aspect::path) return value_text(*shown);
    const int port = shown->key[1] - '0';  // "P0M1"
    const int path = shown->key[3] - '0';
    return sight_text(path_of(record, port, path));
}

// A downstream port with no card connected behind it.
bool is_empty_port(const section& part) {
    const field* const connection = find_field(part.fields, "connection", "");
    return part.index >= 0 && connection != nullptr && connection->value == 0;
}

std::string section_text(const section& shown, const look& how) {
    constexpr int title_width = -32;
    constexpr int name_width = -18;
    constexpr std::size_t width_with_names = 78;
    const std::string title = trimmed(section_title(shown));
    std::string text = title.empty() ? "" : in_colour("  " + title, bold, how.coloured) + '\n';
    for (const field& item : shown.fields) {
        const std::string name =
            item.key == nullptr ? item.name : item.name + (std::string(".") + item.key);
        text += (title.empty() ? "  " : "    ") + padded(item.title, title_width) + ' ';
        if (how.width >= width_with_names) text += padded(name, name_width) + ' ';
        text += value_text(item) + '\n';
    }
    return text;
}

}  // namespace

json monitored_json(const char* action, std::uint64_t id, qnm_api_code_t code) {
    return {{"action", action}, {"id", id_text(id)}, {"result", code_name(code)}};
}

json stats_json(const std::string& text, const std::string& file) {
    json record = status_dump_json(text);
    record["text"] = text;
    record["file"] = file.empty() ? json() : json(file);
    return record;
}

std::string cards_text(const std::vector<card>& cards, const look& how) {
    table shown{.columns = {{.heading = "KIND"}}};
    for (const card_column& column : card_columns)
        shown.columns.push_back(column.column);
    shown.columns.push_back({.heading = "TROUBLE", .spare = 3});
    for (const card& record : cards) {
        const std::vector<field> fields = sections(record).front().fields;
        std::vector<std::string>& row = shown.rows.emplace_back();
        row.emplace_back(kind_text(record));
        for (const card_column& column : card_columns)
            row.push_back(cell(record, find_field(fields, column.name, column.key)));
        row.push_back(trouble_text(record));
        shown.colours.push_back(condition_colours[static_cast<std::size_t>(condition_of(record))]);
    }
    return table_text(shown, how);
}

std::string count_text(const std::vector<card>& cards, std::size_t known) {
    const auto servers =
        static_cast<std::size_t>(std::count_if(cards.begin(), cards.end(), [](const card& record) {
            return std::holds_alternative<qnm_qnsv_t>(record);
        }));
    const std::string text =
        std::to_string(servers) + " QNSV, " + std::to_string(cards.size() - servers) + " QNIO";
    return known == cards.size() ? text : text + ", of " + std::to_string(known) + " cards";
}

std::string card_text(const card& shown, const look& how, down_ports ports) {
    std::string text =
        in_colour(std::string(kind_text(shown)) + " card " + id_text(common(shown).ecd_id), bold,
                  how.coloured) +
        '\n';
    std::vector<std::string> empty;
    for (const section& within : sections(shown)) {
        if (ports == down_ports::connected && is_empty_port(within)) {
            empty.push_back(std::to_string(within.index));
        } else {
            text += section_text(within, how);
        }
    }
    if (empty.empty()) return text;
    return text + "  down ports without a card: " + join(empty, ", ") + " (-v shows them)\n";
}

}  // namespace qnmctl
