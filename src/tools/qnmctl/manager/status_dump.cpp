// Reads the status dump: sections with a heading, and in each lines "name : value" or rows of
// numbers. Each section has a reader, which gets the section's lines and adds to the result.
#include "manager/status_dump.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string_view>
#include <vector>

namespace qnmctl {

namespace {

using lines = std::vector<std::string_view>;

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(' ');
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

// A number stays a number, anything else a text.
json value_of(std::string_view text) {
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, problem] = std::from_chars(text.data(), end, number);
    if (problem == std::errc() && stop == end) return number;
    return std::string(text);
}

struct named_text {
    std::string_view name;
    std::string_view text;
};

// "name : text"; the name is empty on other lines.
named_text named_text_of(std::string_view line) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) return {};
    return {trimmed(line.substr(0, colon)), trimmed(line.substr(colon + 1))};
}

// The words of a row. A row of numbers has only numbers behind its first word.
std::vector<std::string> words_of(std::string_view line) {
    std::istringstream in{std::string(line)};
    std::vector<std::string> words;
    for (std::string word; in >> word;)
        words.push_back(word);
    return words;
}

bool are_numbers(const std::vector<std::string>& words, std::size_t from) {
    for (std::size_t at = from; at < words.size(); ++at) {
        if (!value_of(words[at]).is_number()) return false;
    }
    return true;
}

// A name of the dump and where its value goes: into one object, or one within it.
struct destination {
    const char* name;
    const char* object;  // nullptr: none
    const char* key;
};

constexpr destination state_names[] = {
    {"Init flag", nullptr, "initialized"},
    {"Start flag", nullptr, "started"},
    {"Fini flag", nullptr, "stopping"},
    {"Log level", nullptr, "log_level"},
};

constexpr destination port_names[] = {
    {"MAC addr", nullptr, "macaddr"},
    {"Link state", nullptr, "link"},
    {"Total down", nullptr, "link_losses"},
};

constexpr destination callback_names[] = {
    {"Total called", nullptr, "called"},
    {"Total returned", nullptr, "returned"},
};

constexpr destination frame_names[] = {
    {"QNM_STATS_R_TOTAL", "received", "total"},
    {"QNM_STATS_R_DEV", "received", "devinfo"},
    {"QNM_STATS_R_DEV40", "received", "devinfo_40g"},
    {"QNM_STATS_R_NOTI", "received", "notify"},
    {"QNM_STATS_R_NOTI40", "received", "notify_40g"},
    {"QNM_STATS_R_COMP", "received", "completion"},
    {"QNM_STATS_T_TOTAL", "sent", "total"},
    {"QNM_STATS_T_VLANSET", "sent", "vlan_set"},
    {"QNM_STATS_T_REGR", "sent", "register_read"},
    {"QNM_STATS_T_REGW", "sent", "register_write"},
    {"QNM_STATS_T_RESET", "sent", "reset"},
    {"QNM_STATS_T_MMS", "sent", "mms"},
};

std::string mac_of(std::string_view digits) {
    std::string mac;
    for (std::size_t at = 0; at < digits.size(); ++at) {
        if (at != 0 && at % 2 == 0) mac += ':';
        mac += digits[at];
    }
    return mac;
}

// The value as other records have it.
json usual_value(std::string_view key, std::string_view text) {
    if (key == "macaddr") return mac_of(text);
    if (text == "ON") return true;
    if (text == "OFF") return false;
    if (text == "UP") return "up";
    if (text == "DOWN") return "down";
    return value_of(text);
}

template <std::size_t Count>
void put(const destination (&names)[Count], std::string_view line, json& into) {
    const named_text read = named_text_of(line);
    for (const destination& row : names) {
        if (read.name != row.name) continue;
        json& object = row.object == nullptr ? into : into[row.object];
        object[row.key] = usual_value(row.key, read.text);
    }
}

template <std::size_t Count>
json object_of(const destination (&names)[Count], const lines& section) {
    json object = json::object();
    for (const std::string_view line : section)
        put(names, line, object);
    return object;
}

// "+ Port0" begins the lines of a port.
template <std::size_t Count>
json ports_of(const destination (&names)[Count], const lines& section) {
    json ports = json::array();
    for (const std::string_view line : section) {
        if (trimmed(line).starts_with("+ Port")) {
            ports.push_back({{"port", ports.size()}});
        } else if (!ports.empty()) {
            put(names, line, ports.back());
        }
    }
    return ports;
}

// The counters whose names begin like this, by those names.
json counters_of(std::string_view prefix, const lines& section) {
    json counters = json::object();
    for (const std::string_view line : section) {
        const auto [name, text] = named_text_of(line);
        if (name.starts_with(prefix)) counters[std::string(name)] = value_of(text);
    }
    return counters;
}

void read_state(const lines& section, json& dump) {
    dump["state"] = object_of(state_names, section);
}

void read_ports(const lines& section, json& dump) {
    dump["ports"] = ports_of(port_names, section);
}

void read_cards(const lines& section, json& dump) {
    json cards = {{"groups", json::array()}};
    for (const std::string_view line : section) {
        const auto [name, total] = named_text_of(line);
        if (name == "qnsv total") cards["qnsv"] = value_of(total);
        if (name == "qnio total") cards["qnio"] = value_of(total);
        const std::vector<std::string> row = words_of(line);
        if (row.size() != 3 || !are_numbers(row, 0)) continue;
        cards["groups"].push_back({{"vlan_id", value_of(row[0])},
                                   {"qnsv", value_of(row[1])},
                                   {"qnio", value_of(row[2])}});
    }
    dump["cards"] = std::move(cards);
}

void read_memory(const lines& section, json& dump) {
    json& memory = dump["memory"] = json::object();
    for (const std::string_view line : section) {
        const std::vector<std::string> row = words_of(line);
        if (row.size() != 4 || !are_numbers(row, 1)) continue;
        memory[row[0]] = {{"in_use", value_of(row[1])},
                          {"allocated", value_of(row[2])},
                          {"freed", value_of(row[3])}};
    }
}

void read_callbacks(const lines& section, json& dump) {
    dump["callbacks"] = object_of(callback_names, section);
}

// Other records name an event without the prefix.
void read_events(const lines& section, json& dump) {
    constexpr std::string_view prefix = "QNM_EVT_";
    const json counters = counters_of(prefix, section);
    json& events = dump["events"] = json::object();
    for (const auto& [name, count] : counters.items())
        events[name.substr(prefix.size())] = count;
}

void read_frames(const lines& section, json& dump) {
    dump["frames"] = ports_of(frame_names, section);
}

void read_results(const lines& section, json& dump) {
    dump["results"] = counters_of("QNM_API_", section);
}

// A call's name, then its results.
void read_calls(const lines& section, json& dump) {
    json& calls = dump["calls"] = json::object();
    json* results = nullptr;
    for (const std::string_view line : section) {
        const std::string_view text = trimmed(line);
        if (text.ends_with("()")) {
            results = &(calls[std::string(text.substr(0, text.size() - 2))] = json::object());
        } else if (results != nullptr) {
            results->update(counters_of("QNM_API_", {line}));
        }
    }
}

void read_stopped(const lines& section, json& dump) {
    json& stopped = dump["stopped"] = json::array();
    for (const std::string_view line : section) {
        if (trimmed(line).starts_with("0x")) stopped.push_back(trimmed(line));
    }
}

struct section_reader {
    std::string_view heading;
    void (*read)(const lines& section, json& dump);
};

constexpr section_reader readers[] = {
    {"State", read_state},
    {"Port information", read_ports},
    {"QN card num", read_cards},
    {"Memory", read_memory},
    {"Callback statistics", read_callbacks},
    {"Event statistics", read_events},
    {"Quillnet message send/receive statistics", read_frames},
    {"API error code", read_results},
    {"API error code detail", read_calls},
    {"Black list ids", read_stopped},
};

void read_section(std::string_view heading, const lines& section, json& dump) {
    for (const section_reader& known : readers) {
        if (known.heading == heading) known.read(section, dump);
    }
}

}  // namespace

json status_dump_json(const std::string& text) {
    constexpr std::string_view mark = "  - ";
    json dump = json::object();
    std::string_view heading;
    lines section;
    for (std::string_view rest = text; !rest.empty();) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(rest.size(), line.size() + 1));
        if (!line.starts_with(mark)) {
            section.push_back(line);
            continue;
        }
        read_section(heading, section, dump);
        heading = line.substr(mark.size());
        section.clear();
    }
    read_section(heading, section, dump);
    return dump;
}

}  // namespace qnmctl
