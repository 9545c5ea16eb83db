// Reads scenarios: makes ports and cards from a TOML text.
//
// Every value goes through set_field() in text form, so that a scenario and a `set` command know
// the same fields, ranges and words. Errors carry the file, the line and the key.
#include <algorithm>
#include <cstdio>
#include <iterator>
#include <map>

#include <toml++/toml.h>

#include "common/regular_file.h"
#include "device.h"
#include "fields.h"
#include "nesting.h"

namespace cardsim {

namespace {

constexpr std::size_t size_limit = std::size_t{16} * 1024 * 1024;
constexpr std::uint64_t count_limit = 1'000'000;
// Even, so that the second address of a 40G card is never the first of the next card.
constexpr std::uint64_t default_step = 2;

// Keys of a [[card]] that set_field() does not know, because they make cards rather than change
// one.
constexpr std::string_view making_keys[] = {
    "name",  "kind",    "speed",     "id",        "heard",  "count",      "step",
    "burst", "up_port", "down_port", "registers", "eeprom", "eeprom_file"};

// The file that errors are reported for.
struct source {
    std::string_view file;

    [[noreturn]] void fail(const toml::source_region& at, const std::string& what) const {
        throw error(std::string(file) + ":" + std::to_string(at.begin.line) + ": " + what);
    }

    // Runs `work` and adds the place to errors that it throws.
    template <class Work>
    auto placed(const toml::source_region& at, Work work) const {
        try {
            return work();
        } catch (const error& e) {
            fail(at, e.what());
        }
    }
};

std::string value_text(const source& from, std::string_view key, const toml::node& node) {
    if (const auto* text = node.as_string()) return text->get();
    if (const auto* truth = node.as_boolean()) return truth->get() ? "true" : "false";
    if (const auto* number = node.as_integer()) return std::to_string(number->get());
    from.fail(node.source(), in_quotes(key) + " takes a single value");
}

std::uint64_t number_of(const source& from, std::string_view key, const toml::node& node,
                        std::uint64_t least, std::uint64_t greatest) {
    return from.placed(node.source(), [&] {
        const std::uint64_t value = parse_number(key, value_text(from, key, node), greatest);
        if (value < least) {
            throw error(in_quotes(key) + " takes at least " + std::to_string(least));
        }
        return value;
    });
}

bool flag_of(const source& from, std::string_view key, const toml::node& node) {
    const auto* truth = node.as_boolean();
    if (truth == nullptr) {
        from.fail(node.source(), in_quotes(key) + " takes true or false");
    }
    return truth->get();
}

const toml::array& array_of(const source& from, std::string_view key, const toml::node& node) {
    const toml::array* values = node.as_array();
    if (values == nullptr) from.fail(node.source(), in_quotes(key) + " takes a list");
    return *values;
}

const toml::table& table_of(const source& from, std::string_view key, const toml::node& node) {
    const toml::table* table = node.as_table();
    if (table == nullptr) {
        from.fail(node.source(), in_quotes(key) + " is a table, written with [ ]");
    }
    return *table;
}

// Sets the fields of a sub-table of the card; `prefix` is what set_field() expects before the key.
// The key `apart` is left out.
void set_fields(const source& from, card& target, const std::string& prefix,
                const toml::table& table, std::string_view apart = {}) {
    for (const auto& [key, node] : table) {
        if (key.str() == apart) continue;
        const std::string text = value_text(from, key.str(), node);
        from.placed(key.source(),
                    [&, name = std::string(key.str())] { set_field(target, prefix + name, text); });
    }
}

void set_down_ports(const source& from, card& target, const toml::node& node) {
    for (const toml::node& entry : array_of(from, "down_port", node)) {
        const toml::table& fields = table_of(from, "down_port", entry);
        const toml::node* index = fields.get("index");
        if (index == nullptr) from.fail(entry.source(), "a [[card.down_port]] needs \"index\"");
        const std::uint64_t at = number_of(from, "index", *index, 0, down_port_limit - 1);
        set_fields(from, target, "down_port." + std::to_string(at) + ".", fields, "index");
    }
}

// A list as text for set_field().
std::string list_text(const source& from, std::string_view key, const toml::array& values) {
    std::string text;
    for (const toml::node& entry : values) {
        if (!text.empty()) text += ',';
        text += value_text(from, key, entry);
    }
    return text.empty() ? "none" : text;
}

// The key of a table as an address: 0x1000 or "0x1000".
std::uint32_t address_of(const source& from, const toml::key& key, std::uint64_t limit) {
    return from.placed(key.source(), [&] {
        return static_cast<std::uint32_t>(parse_number("address", key.str(), limit));
    });
}

void set_registers(const source& from, card& target, const toml::node& node) {
    for (const auto& [key, value] : table_of(from, "registers", node)) {
        const std::uint32_t address = address_of(from, key, register_limit);
        target.device.registers[address] =
            static_cast<std::uint32_t>(number_of(from, key.str(), value, 0, 0xFFFFFFFF));
    }
}

// The bytes of a value: those of a text, or a number as a word.
std::string preset_bytes(const source& from, std::string_view key, const toml::node& value) {
    if (const auto* text = value.as_string()) return text->get();
    const std::uint64_t word = number_of(from, key, value, 0, 0xFFFFFFFF);
    std::string bytes;
    for (unsigned shift = 0; shift < 32; shift += 8)
        bytes += static_cast<char>(word >> shift & 0xFF);
    return bytes;
}

void set_eeprom(const source& from, card& target, const toml::node& node) {
    for (const auto& [key, value] : table_of(from, "eeprom", node)) {
        const std::uint32_t address = address_of(from, key, eeprom_size - 1);
        target.device.eeprom[address] = preset_bytes(from, key.str(), value);
    }
}

void set_eeprom_file(const source& from, card& target, const toml::node& node) {
    target.device.eeprom_file = value_text(from, "eeprom_file", node);
}

// "P0M1": port 0, path 1.
void set_heard(const source& from, card& target, const toml::node& node) {
    target.heard = {};
    for (const toml::node& entry : array_of(from, "heard", node)) {
        const std::string text = value_text(from, "heard", entry);
        const bool good = text.size() == 4 && text[0] == 'P' &&
                          (text[1] == '0' || text[1] == '1') && text[2] == 'M' &&
                          (text[3] == '0' || text[3] == '1');
        if (!good) {
            from.fail(entry.source(),
                      "\"heard\" lists P0M0, P0M1, P1M0, P1M1 (port, path), not \"" + text + "\"");
        }
        target.heard[text[1] == '1'][text[3] == '1'] = true;
    }
}

void hear_everywhere(card& target, std::size_t ports) {
    for (std::size_t p = 0; p < ports; ++p) {
        std::fill_n(target.heard[p].begin(), path_count(target.speed), true);
    }
}

// The value of a key that the table must have.
template <class Parse>
auto required(const source& from, const toml::table& table, std::string_view key, Parse parse) {
    const toml::node* node = table.get(key);
    if (node == nullptr) {
        from.fail(table.source(), "a [[card]] needs " + in_quotes(key));
    }
    return from.placed(node->source(), [&] { return parse(value_text(from, key, *node)); });
}

void check_card_keys(const source& from, const toml::table& table) {
    std::vector<std::string_view> known = settable_field_names();
    const std::vector<std::string_view> making = making_key_names();
    known.insert(known.end(), making.begin(), making.end());
    for (const auto& [key, node] : table) {
        if (std::find(known.begin(), known.end(), key.str()) == known.end()) {
            from.fail(key.source(), unknown_name("key", key.str(), known));
        }
    }
}

bool is_making_key(std::string_view key) {
    return std::find(std::begin(making_keys), std::end(making_keys), key) != std::end(making_keys);
}

void set_up_port(const source& from, card& target, const toml::node& node) {
    set_fields(from, target, "up_port.", table_of(from, "up_port", node));
}

// Keys that set parts of a card without set_field().
struct part_key {
    std::string_view key;
    void (*set)(const source&, card&, const toml::node&);
};

constexpr part_key part_keys[] = {{"up_port", set_up_port},
                                  {"down_port", set_down_ports},
                                  {"registers", set_registers},
                                  {"eeprom", set_eeprom},
                                  {"eeprom_file", set_eeprom_file}};

// The card of a [[card]] table, before `count` multiplies it.
card read_card(const source& from, const toml::table& table, const scenario& read) {
    check_card_keys(from, table);
    card result = make_card(
        required(from, table, "name", [](std::string text) { return text; }),
        required(from, table, "kind", parse_kind), required(from, table, "speed", parse_speed),
        required(from, table, "id", [](std::string_view text) { return parse_mac("id", text); }));
    result.ether_type = read.ether_type;
    for (const auto& [key, node] : table) {
        if (is_making_key(key.str())) continue;
        const toml::array* values = node.as_array();
        const std::string text = key.str() == silent_registers_name && values != nullptr
                                     ? list_text(from, key.str(), *values)
                                     : value_text(from, key.str(), node);
        from.placed(key.source(), [&, name = key.str()] { set_field(result, name, text); });
    }
    for (const auto& [key, set] : part_keys) {
        if (const toml::node* part = table.get(key)) set(from, result, *part);
    }
    if (const toml::node* heard = table.get("heard")) {
        set_heard(from, result, *heard);
    } else {
        hear_everywhere(result, std::max<std::size_t>(1, read.ports.size()));
    }
    return result;
}

std::uint64_t number_or(const source& from, const toml::table& table, std::string_view key,
                        std::uint64_t least, std::uint64_t greatest, std::uint64_t fallback) {
    const toml::node* node = table.get(key);
    return node == nullptr ? fallback : number_of(from, key, *node, least, greatest);
}

// One card, or `count` of them with IDs ascending by `step`, their announcements spread evenly over
// the interval unless `burst` asks for all at once.
std::vector<card> unfold(const source& from, const toml::table& table, const card& first) {
    const std::uint64_t count = number_or(from, table, "count", 1, count_limit, 1);
    const std::uint64_t step = number_or(from, table, "step", 1, 0xFFFFFF, default_step);
    const toml::node* burst = table.get("burst");
    const bool at_once = burst != nullptr && flag_of(from, "burst", *burst);
    std::vector<card> cards(count, first);
    for (std::uint64_t k = 0; table.contains("count") && k < count; ++k) {
        cards[k].name.append("-").append(std::to_string(k));
        cards[k].id += k * step;
        if (!at_once)
            cards[k].phase_ms += static_cast<std::uint32_t>(first.interval_ms * k / count);
    }
    return cards;
}

// The cards so far, to find conflicts with the next one.
struct card_index {
    std::map<std::string, std::uint64_t> ids;
    std::map<std::uint64_t, std::string> names;
    std::map<std::string, std::string> eeprom_files;  // to the card's name
};

// Refuses two cards with one file: each would overwrite what the other saved.
void claim_file(const source& from, const toml::table& table, const card& added,
                card_index& index) {
    const std::string& file = added.device.eeprom_file;
    if (file.empty()) return;
    const auto [taken, fresh] = index.eeprom_files.emplace(file, added.name);
    if (fresh) return;
    from.fail(table.source(), "card \"" + added.name + "\": the EEPROM file \"" + file +
                                  "\" is that of card \"" + taken->second + "\" already");
}

void append_cards(const source& from, const toml::table& table, scenario& read, card_index& index) {
    const std::size_t ports = read.ports.empty() ? port_limit : read.ports.size();
    for (card& added : unfold(from, table, read_card(from, table, read))) {
        from.placed(table.source(), [&] { check_card(added, ports); });
        if (!index.ids.emplace(added.name, added.id).second) {
            from.fail(table.source(), "the name \"" + added.name + "\" is there already");
        }
        const auto [taken, fresh] = index.names.emplace(added.id, added.name);
        if (!fresh) {
            from.fail(table.source(), "card \"" + added.name + "\": the ID " + id_text(added.id) +
                                          " is card \"" + taken->second + "\" already");
        }
        claim_file(from, table, added, index);
        read.cards.push_back(std::move(added));
    }
}

void read_ports(const source& from, const toml::node& node, scenario& read) {
    for (const toml::node& entry : array_of(from, "ports", node)) {
        read.ports.push_back(value_text(from, "ports", entry));
    }
    if (read.ports.empty() || read.ports.size() > port_limit) {
        from.fail(node.source(), "\"ports\" lists one or two interfaces");
    }
}

scenario read_scenario(const source& from, const toml::table& table,
                       const std::vector<std::string>& ports) {
    static constexpr std::string_view known[] = {"ports", "ether_type", "card"};
    for (const auto& [key, node] : table) {
        if (std::find(std::begin(known), std::end(known), key.str()) == std::end(known)) {
            from.fail(key.source(), unknown_name("key", key.str(), known));
        }
    }
    scenario read;
    if (const toml::node* named = table.get("ports")) read_ports(from, *named, read);
    if (!ports.empty()) read.ports = ports;
    read.ether_type = static_cast<std::uint16_t>(
        number_or(from, table, "ether_type", 0, 0xFFFF, default_ether_type));
    const toml::node* cards = table.get("card");
    if (cards == nullptr) throw error(std::string(from.file) + ": no [[card]] in this scenario");
    card_index index;
    for (const toml::node& entry : array_of(from, "card", *cards)) {
        append_cards(from, table_of(from, "card", entry), read, index);
    }
    return read;
}

}  // namespace

std::vector<std::string_view> making_key_names() {
    return {std::begin(making_keys), std::end(making_keys)};
}

scenario parse_scenario(std::string_view text, std::string_view file_name,
                        const std::vector<std::string>& ports) {
    const source from{file_name};
    if (const auto line = line_nested_too_deep(text)) {
        throw error(std::string(file_name) + ":" + std::to_string(*line) +
                    ": tables lie within each other more than " + std::to_string(nesting_limit) +
                    " deep");
    }
    try {
        return read_scenario(from, toml::parse(text, file_name), ports);
    } catch (const toml::parse_error& e) {
        from.fail(e.source(), std::string(e.description()));
    }
}

scenario load_scenario(const std::filesystem::path& file, const std::vector<std::string>& ports) {
    const auto read = tools::read_regular_file(file, size_limit);
    if (const auto* problem = std::get_if<tools::file_problem>(&read)) {
        throw error("cannot read the scenario " + in_quotes(file.string()) + ": " + problem->text);
    }
    return parse_scenario(std::get<std::string>(read), file.string(), ports);
}

}  // namespace cardsim
