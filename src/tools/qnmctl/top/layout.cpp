// Lays out the head, then cards, detail or help, and a last line for keys or the filter being
// typed. Only the cards on the screen are formatted.
#include "top/layout.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "cards/card_text.h"
#include "common/visible.h"
#include "output/table.h"

namespace qnmctl {

namespace {

using lines = std::vector<top_line>;

constexpr char keys_hint[] =
    "? help  q end  Enter detail  / filter  t kind  c state  s sort  r reverse";

// Below it there are only the cards.
constexpr std::size_t roomy_height = 10;

// ---- Words --------------------------------------------------------------------------------------

std::string per_second_text(const rate& measured) {
    constexpr double without_decimals = 1000;
    const double value = measured.per_second();
    char text[32];
    std::snprintf(text, sizeof text, value < without_decimals ? "%.1f" : "%.0f", value);
    return text;
}

std::string right(const std::string& text, std::size_t width) {
    return std::string(width - std::min(width, text.size()), ' ') + text;
}

std::string left(const std::string& text, std::size_t width) {
    return text + std::string(width - std::min(width, text.size()), ' ');
}

// In the largest unit that leaves at least a hundred.
std::string silence_text(const std::optional<std::uint64_t>& milliseconds) {
    if (!milliseconds) return "never";
    constexpr struct {
        const char* name;
        std::uint64_t milliseconds;
    } units[] = {{"s", 1000}, {"min", 60'000}, {"h", 3'600'000}, {"d", 86'400'000}};
    constexpr std::uint64_t enough = 100;
    const auto* unit = std::begin(units);
    while (unit + 1 != std::end(units) && *milliseconds / unit->milliseconds >= enough)
        ++unit;
    return std::to_string(*milliseconds / unit->milliseconds) + ' ' + unit->name;
}

// A byte that a terminal could take for something else becomes a question mark.
std::string fitted(const std::string& line, std::size_t width) {
    std::string text = tools::visible_line(line);
    text.resize(std::min(text.size(), width));
    const auto strange = [](char c) { return c < ' ' || c > '~'; };
    std::replace_if(text.begin(), text.end(), strange, '?');
    return text;
}

// ---- Head ---------------------------------------------------------------------------------------

std::string title_text(const top_model& model) {
    constexpr std::size_t clock_at = std::string_view("2026-03-01 ").size();
    constexpr std::size_t clock_length = std::string_view("14:03:21").size();
    std::size_t servers = 0;
    std::size_t connected = 0;
    std::size_t all = 0;
    for (const auto& [id, known] : model.cards) {
        if (!known.record) continue;
        ++all;
        if (std::holds_alternative<qnm_qnsv_t>(*known.record)) ++servers;
        if (is_connected(*known.record)) ++connected;
    }
    return "qnmctl top " + time_text(model.now).substr(clock_at, clock_length) + "  " +
           std::to_string(all) + " cards: " + std::to_string(servers) + " QNSV, " +
           std::to_string(all - servers) + " QNIO; " + std::to_string(connected) + " connected";
}

top_line port_line(const top_port& port, std::size_t number) {
    constexpr std::size_t name_width = 15;
    constexpr std::size_t rate_width = 9;
    const std::string start = "port " + std::to_string(number) + ' ' + left(port.name, name_width);
    if (!port.now) return {start + " there is no such interface", top_style::alarm};
    return {start + (port.now->up ? " up    " : " down  ") + "frames/s in " +
                right(per_second_text(port.received), rate_width) + " out " +
                right(per_second_text(port.sent), rate_width),
            port.now->up ? top_style::plain : top_style::alarm};
}

std::string events_text(const top_model& model) {
    std::string text = "events/s " + per_second_text(model.event_rate) + ", " +
                       std::to_string(model.events) + " in all";
    if (model.lost_events != 0) text += " (" + std::to_string(model.lost_events) + " lost)";
    if (model.last_event) {
        text += "; last " + std::string(qnm_event_name(model.last_event->type)) + ' ' +
                id_text(model.last_event->id);
    }
    return text;
}

std::string order_text(const top_model& model) {
    const card_filter& filter = model.filter;
    std::string text =
        std::string("sort ") + top_order_words[static_cast<std::size_t>(model.order)];
    if (model.reversed) text += " reversed";
    text += "; " + std::to_string(model.shown.size()) + " shown";
    if (filter.cards.kind) {
        text += filter.cards.kind == card_kind::server ? ", only QNSV" : ", only QNIO";
    }
    if (filter.connected) text += *filter.connected ? ", only connected" : ", only disconnected";
    if (filter.cards.group) text += ", only group " + std::to_string(*filter.cards.group);
    if (!filter.cards.ids.empty()) text += ", only named ones";
    if (!filter.text.empty()) text += ", filter \"" + filter.text + '"';
    return text;
}

lines head(const top_model& model, std::size_t height) {
    lines result = {{title_text(model), top_style::title}};
    if (height >= roomy_height) {
        for (std::size_t at = 0; at < model.ports.size(); ++at)
            result.push_back(port_line(model.ports[at], at));
        result.push_back({events_text(model)});
    }
    result.push_back({order_text(model)});
    return result;
}

// ---- Cards --------------------------------------------------------------------------------------

std::string id_cell(const top_card& shown, wall_time) {
    return id_text(common(*shown.record).ecd_id);
}

std::string kind_cell(const top_card& shown, wall_time) {
    return kind_text(*shown.record);
}

std::string type_cell(const top_card& shown, wall_time) {
    return common(*shown.record).ecd_type == 0 ? "1/10G" : "40G";
}

std::string vlan_cell(const top_card& shown, wall_time) {
    return std::to_string(common(*shown.record).ecd_vlan_id);
}

template <int Port, int Path>
std::string path_cell(const top_card& shown, wall_time) {
    return sight_text(path_of(*shown.record, Port, Path));
}

std::string heard_cell(const top_card& shown, wall_time now) {
    return silence_text(silence(*shown.record, now));
}

std::string events_cell(const top_card& shown, wall_time) {
    return std::to_string(shown.events);
}

std::string rate_cell(const top_card& shown, wall_time) {
    return per_second_text(shown.event_rate);
}

std::string last_event_cell(const top_card& shown, wall_time) {
    return shown.last_event ? qnm_event_name(*shown.last_event) : "";
}

struct card_column {
    table_column column;
    std::string (*cell)(const top_card&, wall_time now);
};

// Columns are as wide as their longest possible text, so they do not move with the cards on the
// screen.
constexpr card_column columns[] = {
    {{.heading = "ID", .width = 14}, id_cell},
    {{.heading = "KIND"}, kind_cell},
    {{.heading = "TYPE", .width = 5, .spare = 2}, type_cell},
    {{.heading = "VLAN", .right = true, .spare = 1}, vlan_cell},
    {{.heading = "P0M0", .right = true}, path_cell<0, 0>},
    {{.heading = "P0M1", .right = true}, path_cell<0, 1>},
    {{.heading = "P1M0", .right = true}, path_cell<1, 0>},
    {{.heading = "P1M1", .right = true}, path_cell<1, 1>},
    {{.heading = "HEARD", .right = true, .width = 6}, heard_cell},
    {{.heading = "EVENTS", .right = true, .width = 7}, events_cell},
    {{.heading = "EV/S", .right = true, .width = 6, .spare = 3}, rate_cell},
    {{.heading = "LAST EVENT", .width = 18, .spare = 4}, last_event_cell},
};

top_style style_of(const card& record) {
    constexpr top_style styles[] = {top_style::plain, top_style::warning, top_style::alarm};
    return styles[static_cast<std::size_t>(condition_of(record))];
}

// The heading and the cards of the screen.
lines card_lines(const top_model& model, std::size_t width) {
    table cards{.columns = {}};
    std::vector<top_style> styles = {top_style::heading};
    for (const card_column& column : columns)
        cards.columns.push_back(column.column);
    const std::size_t end = std::min(model.first + model.height, model.shown.size());
    for (std::size_t at = model.first; at < end; ++at) {
        const top_card& shown = shown_card(model, at);
        std::vector<std::string>& row = cards.rows.emplace_back();
        for (const card_column& column : columns)
            row.push_back(column.cell(shown, model.now));
        const bool selected = model.selected == model.shown[at];
        styles.push_back(selected ? top_style::selected : style_of(*shown.record));
    }
    lines result;
    for (const std::string& text : split(table_text(cards, {.width = width}), "\n"))
        result.push_back({text, styles[result.size()]});
    return result;
}

lines card_page(top_model& model, top_size size) {
    lines result = head(model, size.height);
    const std::size_t others = result.size() + 2;  // the heading, the last line
    set_height(model, size.height - std::min(size.height, others), 0);
    const lines cards = card_lines(model, size.width);
    result.insert(result.end(), cards.begin(), cards.end());
    return result;
}

// ---- One card, and help -------------------------------------------------------------------------

// Lines of the detail that do not come from the record.
std::string activity_text(const top_card& shown, wall_time now) {
    const auto silent = silence(*shown.record, now);
    std::string text = "  last heard " + silence_text(silent) + (silent ? " ago" : "") + "; " +
                       std::to_string(shown.events) + " events, " +
                       per_second_text(shown.event_rate) + " a second";
    if (shown.last_event) text += ", last " + std::string(qnm_event_name(*shown.last_event));
    return text;
}

lines detail_page(top_model& model, top_size size) {
    const top_card& shown = model.cards.at(*model.selected);
    std::vector<std::string> texts = {"The card is no longer known."};
    if (shown.record) {
        texts = split(card_text(*shown.record, {.width = size.width}), "\n");
        texts.insert(texts.begin() + 1, activity_text(shown, model.now));
    }
    constexpr std::size_t others = 2;  // the first line, the last one
    set_height(model, size.height - std::min(size.height, others), texts.size() - 1);
    lines result = {{texts.front(), top_style::title}};
    const std::size_t end = std::min(model.detail_first + model.height, model.detail_lines);
    for (std::size_t at = model.detail_first; at < end; ++at)
        result.push_back({texts[at + 1]});
    return result;
}

lines help_page() {
    constexpr std::size_t keys_width = 19;
    lines result = {{"Keys of qnmctl top", top_style::title}};
    for (const top_key_row& row : top_keys()) {
        if (row.shown != nullptr) result.push_back({left(row.shown, keys_width) + row.help});
    }
    result.push_back({"C connected, D disconnected, - never heard"});
    result.push_back({"frames: all that the kernel counts on the interface"});
    return result;
}

std::string last_line(const top_model& model) {
    if (model.typed) return '/' + *model.typed + "_  (Enter: keep, Esc: as before)";
    if (model.page == top_page::cards) return keys_hint;
    if (model.detail_lines == 0) return "Esc back  q end";
    const std::size_t end = std::min(model.detail_first + model.height, model.detail_lines);
    return "Esc back  arrows, PgUp, PgDn move  q end   lines " +
           std::to_string(model.detail_first + 1) + " to " + std::to_string(end) + " of " +
           std::to_string(model.detail_lines);
}

}  // namespace

std::vector<top_line> top_lines(top_model& model, top_size size) {
    lines result;
    if (model.page == top_page::help) {
        result = help_page();
    } else {
        result = model.page == top_page::detail ? detail_page(model, size) : card_page(model, size);
        result.resize(size.height == 0 ? 0 : size.height - 1);
        result.push_back({last_line(model), top_style::title});
    }
    result.resize(std::min(result.size(), size.height));
    for (top_line& line : result)
        line.text = fitted(line.text, size.width);
    return result;
}

}  // namespace qnmctl
