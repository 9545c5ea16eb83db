// Lays out a table: finds the width of each column, drops those that do not fit, writes the lines.
#include "output/table.h"

#include <algorithm>
#include <numeric>

namespace qnmctl {

namespace {

struct shown_column {
    std::size_t index;
    std::size_t width;
};

bool continues_character(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

std::vector<shown_column> all_columns(const table& layout) {
    std::vector<shown_column> shown;
    for (std::size_t at = 0; at < layout.columns.size(); ++at) {
        std::size_t width =
            std::max(layout.columns[at].width, width_of(layout.columns[at].heading));
        for (const auto& row : layout.rows)
            width = std::max(width, width_of(row[at]));
        shown.push_back({at, width});
    }
    return shown;
}

std::size_t whole_width(const std::vector<shown_column>& shown) {
    return std::accumulate(
        shown.begin(), shown.end(), shown.empty() ? 0 : shown.size() - 1,
        [](std::size_t sum, const shown_column& column) { return sum + column.width; });
}

void leave_out(const table& layout, std::vector<shown_column>& shown, std::size_t width) {
    const auto spare = [&](const shown_column& column) {
        return layout.columns[column.index].spare;
    };
    while (whole_width(shown) > width) {
        const auto least = std::max_element(
            shown.begin(), shown.end(),
            [&](const shown_column& a, const shown_column& b) { return spare(a) < spare(b); });
        if (least == shown.end() || spare(*least) == 0) return;
        shown.erase(least);
    }
}

std::string cut(const std::string& text, std::size_t width) {
    std::size_t characters = 0;
    std::size_t end = 0;
    while (end < text.size()) {
        if (!continues_character(text[end]) && characters++ == width) break;
        ++end;
    }
    return text.substr(0, end);
}

template <class Cell>
std::string line_text(const table& layout, const std::vector<shown_column>& shown,
                      std::size_t width, Cell cell) {
    std::string line;
    for (const shown_column& column : shown) {
        const std::string text = cell(column.index);
        const std::string blanks(column.width - width_of(text), ' ');
        if (!line.empty()) line += ' ';
        line += layout.columns[column.index].right ? blanks + text : text + blanks;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return cut(line, width);
}

}  // namespace

std::size_t width_of(const std::string& text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return !continues_character(c); }));
}

std::string table_text(const table& layout, const look& how) {
    std::vector<shown_column> shown = all_columns(layout);
    leave_out(layout, shown, how.width);
    const std::string heading = line_text(layout, shown, how.width, [&](std::size_t at) {
        return std::string(layout.columns[at].heading);
    });
    std::string text = in_colour(heading, bold, how.coloured);
    for (std::size_t at = 0; at < layout.rows.size(); ++at) {
        const auto& row = layout.rows[at];
        const std::string line =
            line_text(layout, shown, how.width, [&](std::size_t cell) { return row[cell]; });
        const char* const colour = at < layout.colours.size() ? layout.colours[at] : nullptr;
        text += '\n' + in_colour(line, colour, how.coloured && colour != nullptr);
    }
    return text + '\n';
}

}  // namespace qnmctl
