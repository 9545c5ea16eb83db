// The tables of a card's settable fields, the reading of their values, and the check that a card
// can exist.
#include <algorithm>
#include <charconv>
#include <iterator>
#include <type_traits>

#include "common/nearest.h"
#include "device.h"
#include "fields.h"

namespace cardsim {

namespace {

constexpr std::uint64_t mac_limit = 0xFFFFFFFFFFFF;
constexpr std::uint64_t word_limit = 0xFFFFFFFF;
constexpr std::uint64_t day_ms = 86'400'000;
constexpr std::uint64_t whole = 1000;  // rates are per thousand
constexpr std::uint8_t connected_bit = 0x02;

enum class value_type { number, flag, mac };

// One settable field of a record: how its text is read, its maximum, and where the value goes.
template <class Record>
struct field {
    std::string_view name;
    value_type type;
    std::uint64_t limit;
    void (*store)(Record&, std::uint64_t);
};

template <auto member>
struct slot;

template <class Record, class Value, Value Record::*member>
struct slot<member> {
    static void store(Record& record, std::uint64_t value) {
        record.*member = static_cast<Value>(value);
    }
};

template <auto member>
constexpr auto into = &slot<member>::store;

template <auto part, auto member>
constexpr auto into_part = [](card& target, std::uint64_t value) {
    auto& field = target.*part.*member;
    field = static_cast<std::remove_reference_t<decltype(field)>>(value);
};

template <auto member>
constexpr auto into_device = into_part<&card::device, member>;

template <auto member>
constexpr auto into_faults = into_part<&card::faults, member>;

template <auto member, std::size_t index>
constexpr auto into_byte = [](auto& record, std::uint64_t value) {
    (record.*member)[index] = static_cast<std::uint8_t>(value);
};

template <auto member>
constexpr auto into_connected = [](auto& record, std::uint64_t value) {
    std::uint8_t& status = (record.*member)[1];
    status =
        static_cast<std::uint8_t>(value != 0 ? status | connected_bit : status & ~connected_bit);
};

constexpr auto number = value_type::number;
constexpr auto flag = value_type::flag;
constexpr auto mac = value_type::mac;

constexpr field<bridge> bridge_fields[] = {
    {"pri_bus_num", number, 0xFF, into<&bridge::pri_bus_num>},
    {"sec_bus_num", number, 0xFF, into<&bridge::sec_bus_num>},
    {"sub_bus_num", number, 0xFF, into<&bridge::sub_bus_num>},
    {"command", number, 0xFF, into<&bridge::command>},
    {"memory_base", number, 0xFFFF, into<&bridge::memory_base>},
    {"memory_limit", number, 0xFFFF, into<&bridge::memory_limit>},
    {"pre_memory_base", number, 0xFFFF, into<&bridge::pre_memory_base>},
    {"pre_memory_limit", number, 0xFFFF, into<&bridge::pre_memory_limit>},
    {"pre_base_upper", number, 0xFFFFFFFF, into<&bridge::pre_base_upper>},
    {"pre_limit_upper", number, 0xFFFFFFFF, into<&bridge::pre_limit_upper>},
};

constexpr field<down_port> down_port_fields[] = {
    {"port_status0", number, 0xFF, into_byte<&down_port::port_status, 0>},
    {"port_status1", number, 0xFF, into_byte<&down_port::port_status, 1>},
    {"connected", flag, 1, into_connected<&down_port::port_status>},
    {"io_mac", mac, mac_limit, into<&down_port::io_mac>},
};

constexpr field<card> card_fields[] = {
    {"destination", mac, mac_limit, into<&card::destination>},
    {"ether_type", number, 0xFFFF, into<&card::ether_type>},
    {"priority", number, 7, into<&card::priority>},
    {"vlan_id", number, 0x0FFF, into<&card::vlan_id>},
    {"vlan_change_mode", flag, 1, into<&card::vlan_change_mode>},
    {"flow_id_da", number, 0xFF, into<&card::flow_id_da>},
    {"flow_id", number, 0xFF, into<&card::flow_id>},
    {"ver", number, 0xFF, into<&card::ver>},
    {"uid_switch", flag, 1, into<&card::uid_switch>},
    {"power", flag, 1, into<&card::power>},
    {"link_status", number, 0xFF, into<&card::link_status>},
    {"sw_status0", number, 0xFF, into<&card::sw_status0>},
    {"version", number, 0x0F, into<&card::version>},
    {"port0_link", flag, 1, into<&card::port0_link>},
    {"port1_link", flag, 1, into<&card::port1_link>},
    {"pcie_presence", flag, 1, into<&card::pcie_presence>},
    {"int_vector", number, 0xFF, into<&card::int_vector>},
    {"io_substate0", number, 0xFF, into_byte<&card::io_substate, 0>},
    {"io_substate1", number, 0xFF, into_byte<&card::io_substate, 1>},
    {"connected", flag, 1, into_connected<&card::io_substate>},
    {"ser_mac", mac, mac_limit, into<&card::ser_mac>},
    {"device_id", number, 0xFFFF, into<&card::device_id>},
    {"vendor_id", number, 0xFFFF, into<&card::vendor_id>},
    {"class_code", number, 0xFFFFFF, into<&card::class_code>},
    {"link0_fault", flag, 1, into<&card::link0_fault>},
    {"link1_fault", flag, 1, into<&card::link1_fault>},
    {"resource_id", number, 0xFFFF, into<&card::resource_id>},
    {"interval_ms", number, day_ms, into<&card::interval_ms>},
    {"phase_ms", number, day_ms, into<&card::phase_ms>},
    {"jitter_ms", number, day_ms, into<&card::jitter_ms>},
};

// Properties that show only in answers.
constexpr field<card> answering_fields[] = {
    {"register_default", number, word_limit, into_device<&device_settings::register_default>},
    {"vlan_frozen", flag, 1, into_device<&device_settings::vlan_frozen>},
    {"id_lock", flag, 1, into_device<&device_settings::id_lock>},
    {"lock_stubborn", flag, 1, into_device<&device_settings::lock_stubborn>},
    {"lock_retake_reads", number, word_limit, into_device<&device_settings::lock_retake_reads>},
    {"eeprom_fill", number, 0xFF, into_device<&device_settings::eeprom_fill>},
    {"eeprom_packed", flag, 1, into_device<&device_settings::eeprom_packed>},
    {"eeprom_refusing", flag, 1, into_device<&device_settings::eeprom_refusing>},
    {"eeprom_busy_polls", number, word_limit, into_device<&device_settings::eeprom_busy_polls>},
    {"fault_seed", number, ~std::uint64_t{0}, into_faults<&fault_settings::seed>},
    {"lose_requests", number, whole, into_faults<&fault_settings::lose_requests>},
    {"lose_answers", number, whole, into_faults<&fault_settings::lose_answers>},
    {"duplicate_answers", number, whole, into_faults<&fault_settings::duplicate_answers>},
    {"reorder_answers", number, whole, into_faults<&fault_settings::reorder_answers>},
    {"wrong_port", number, whole, into_faults<&fault_settings::wrong_port>},
    {"wrong_mac", number, whole, into_faults<&fault_settings::wrong_mac>},
    {"wrong_tag", number, whole, into_faults<&fault_settings::wrong_tag>},
    {"lose_announcements", number, whole, into_faults<&fault_settings::lose_announcements>},
    {"duplicate_announcements", number, whole,
     into_faults<&fault_settings::duplicate_announcements>},
    {"delay_min_ms", number, day_ms, into_faults<&fault_settings::delay_min_ms>},
    {"delay_max_ms", number, day_ms, into_faults<&fault_settings::delay_max_ms>},
};

// Properties of the card that `set` refuses to change, and what to do instead.
struct fixed_field {
    std::string_view name;
    std::string_view remedy;
};

constexpr std::string_view another_card = "it tells which card this is; add another card instead";

constexpr fixed_field fixed_fields[] = {
    {"name", another_card},
    {"id", another_card},
    {"kind", another_card},
    {"speed", another_card},
    {"heard", "use silence and wake"},
    {"registers", "use reg"},
    {"eeprom", "use eeprom"},
    {"eeprom_file", "use eeprom with load and save"},
};

template <class Table>
auto find_name(const Table& table, std::string_view name) {
    return std::find_if(std::begin(table), std::end(table),
                        [&](const auto& row) { return row.name == name; });
}

template <class Table>
void append_names(const Table& table, std::vector<std::string_view>& names) {
    for (const auto& row : table)
        names.push_back(row.name);
}

std::uint64_t parse_flag(std::string_view name, std::string_view text) {
    if (text == "true" || text == "1") return 1;
    if (text == "false" || text == "0") return 0;
    throw error(in_quotes(name) + " takes true or false, not " + in_quotes(text));
}

std::uint64_t parse_value(std::string_view name, std::string_view text, value_type type,
                          std::uint64_t limit) {
    switch (type) {
        case value_type::flag:
            return parse_flag(name, text);
        case value_type::mac:
            return parse_mac(name, text);
        case value_type::number:
            break;
    }
    return parse_number(name, text, limit);
}

// Returns false if the table has no such field.
template <class Record, std::size_t size>
bool store_field(const field<Record> (&table)[size], Record& record, std::string_view name,
                 std::string_view text) {
    const auto row = find_name(table, name);
    if (row == std::end(table)) return false;
    row->store(record, parse_value(name, text, row->type, row->limit));
    return true;
}

void set_bridge_field(bridge& target, std::string_view name, std::string_view value) {
    if (store_field(bridge_fields, target, name, value)) return;
    throw error(unknown_name("bridge field", name, bridge_field_names()));
}

// `path` is what follows "down_port.": N.FIELD.
void set_down_port_field(card& target, std::string_view path, std::string_view value) {
    const std::size_t dot = path.find('.');
    if (dot == std::string_view::npos) throw error("a downstream port is set by down_port.N.FIELD");
    const std::uint64_t index = parse_number("down_port", path.substr(0, dot), down_port_limit - 1);
    down_port& port = target.down_ports[index];
    const std::string_view name = path.substr(dot + 1);
    if (store_field(down_port_fields, port, name, value)) return;
    if (store_field(bridge_fields, port.com_port, name, value)) return;
    throw error(unknown_name("downstream port field", name, down_port_field_names()));
}

// "0x10,0x14", or "none".
void set_silent_registers(card& target, std::string_view text) {
    std::vector<std::uint32_t> silent;
    for (std::string_view rest = text; text != "none" && !rest.empty();) {
        const std::size_t length = std::min(rest.find(','), rest.size());
        silent.push_back(static_cast<std::uint32_t>(
            parse_number(silent_registers_name, rest.substr(0, length), register_limit)));
        rest.remove_prefix(std::min(length + 1, rest.size()));
    }
    target.faults.silent_registers = std::move(silent);
}

// The value of `text` in `base`; nothing if it has anything except digits.
std::optional<std::uint64_t> parse_digits(std::string_view text, int base) {
    std::uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stopped, code] = std::from_chars(text.data(), end, value, base);
    if (code != std::errc{} || stopped != end) return std::nullopt;
    return value;
}

std::optional<std::uint64_t> parse_unsigned(std::string_view text) {
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    return hexadecimal ? parse_digits(text.substr(2), 16) : parse_digits(text, 10);
}

std::optional<std::uint64_t> parse_colon_mac(std::string_view text) {
    if (text.size() != 17) return std::nullopt;
    std::uint64_t value = 0;
    for (std::size_t at = 0; at < text.size(); at += 3) {
        const auto byte = parse_digits(text.substr(at, 2), 16);
        if (!byte || (at + 2 < text.size() && text[at + 2] != ':')) return std::nullopt;
        value = value << 8 | *byte;
    }
    return value;
}

}  // namespace

std::vector<std::string_view> card_field_names() {
    std::vector<std::string_view> names;
    append_names(card_fields, names);
    return names;
}

std::vector<std::string_view> answering_field_names() {
    std::vector<std::string_view> names;
    append_names(answering_fields, names);
    names.push_back(silent_registers_name);
    return names;
}

std::vector<std::string_view> settable_field_names() {
    std::vector<std::string_view> names = card_field_names();
    const std::vector<std::string_view> answering = answering_field_names();
    names.insert(names.end(), answering.begin(), answering.end());
    return names;
}

std::vector<std::string_view> bridge_field_names() {
    std::vector<std::string_view> names;
    append_names(bridge_fields, names);
    return names;
}

std::vector<std::string_view> down_port_field_names() {
    std::vector<std::string_view> names;
    append_names(down_port_fields, names);
    append_names(bridge_fields, names);
    return names;
}

std::string in_quotes(std::string_view text) {
    return std::string("\"").append(text).append("\"");
}

std::string path_text(std::size_t port, std::size_t path) {
    return std::string("P").append(std::to_string(port)).append("M").append(std::to_string(path));
}

std::string unknown_name(std::string_view what, std::string_view name,
                         std::span<const std::string_view> known) {
    const auto nearest =
        std::min_element(known.begin(), known.end(), [&](std::string_view a, std::string_view b) {
            return tools::spelling_distance(name, a) < tools::spelling_distance(name, b);
        });
    return "no " + std::string(what) + " " + in_quotes(name) + "; the nearest is " +
           in_quotes(*nearest);
}

std::uint64_t parse_number(std::string_view field, std::string_view text, std::uint64_t limit) {
    const std::optional<std::uint64_t> value = parse_unsigned(text);
    if (value && *value <= limit) return *value;
    throw error(in_quotes(field) + " takes a number from 0 to " + std::to_string(limit) + ", not " +
                in_quotes(text));
}

std::uint64_t parse_mac(std::string_view field, std::string_view text) {
    const bool colons = text.find(':') != std::string_view::npos;
    const std::optional<std::uint64_t> value =
        colons ? parse_colon_mac(text) : parse_unsigned(text);
    if (value && *value <= mac_limit) return *value;
    throw error(in_quotes(field) + " takes a 48-bit address such as 0x020000000010 or " +
                "02:00:00:00:00:10, not " + in_quotes(text));
}

card_kind parse_kind(std::string_view text) {
    if (text == "qnsv") return card_kind::qnsv;
    if (text == "qnio") return card_kind::qnio;
    throw error("\"kind\" takes \"qnsv\" or \"qnio\", not " + in_quotes(text));
}

card_speed parse_speed(std::string_view text) {
    if (text == "1g10g") return card_speed::g1_10;
    if (text == "40g") return card_speed::g40;
    throw error("\"speed\" takes \"1g10g\" or \"40g\", not " + in_quotes(text));
}

std::string_view kind_name(card_kind kind) {
    return kind == card_kind::qnsv ? "qnsv" : "qnio";
}

std::string_view speed_name(card_speed speed) {
    return speed == card_speed::g40 ? "40g" : "1g10g";
}

std::string id_text(std::uint64_t id) {
    std::string text(14, '0');
    std::snprintf(text.data(), text.size() + 1, "0x%012llx", static_cast<unsigned long long>(id));
    return text;
}

std::string address_text(std::uint32_t address) {
    char text[11];
    std::snprintf(text, sizeof text, "0x%06x", unsigned{address});
    return text;
}

void check_card(const card& checked, std::size_t ports) {
    if (checked.name.empty()) throw error("a card needs a name");
    if (checked.name.starts_with("0x") ||
        checked.name.find_first_of(" \t\r\n") != std::string::npos) {
        throw error("card " + in_quotes(checked.name) +
                    ": a name has no blanks and does not begin with 0x");
    }
    const std::string who = "card " + in_quotes(checked.name) + ": ";
    if (checked.id > mac_limit) throw error(who + "the ID has at most 48 bits");
    if (checked.speed == card_speed::g40 && (checked.id & 1) != 0) {
        throw error(who + "the ID of a 40G card is even; the odd address is its path 1");
    }
    try {
        check_device(checked);
    } catch (const error& e) {
        throw error(who + e.what());
    }
    for (std::size_t p = 0; p < port_limit; ++p) {
        for (std::size_t m = 0; m < path_limit; ++m) {
            if (!checked.heard[p][m]) continue;
            const std::string where = path_text(p, m);
            if (m >= path_count(checked.speed)) {
                throw error(who + "heard on " + where + ", but a 1G/10G card has path 0 only");
            }
            if (p >= ports) throw error(who + "heard on " + where + ", but there is no such port");
        }
    }
}

card make_card(std::string name, card_kind kind, card_speed speed, std::uint64_t id) {
    card result;
    result.name = std::move(name);
    result.kind = kind;
    result.speed = speed;
    result.id = id;
    result.ver = speed == card_speed::g40 ? 1 : 0;
    result.pcie_presence = kind == card_kind::qnio;
    result.heard[0][0] = true;
    return result;
}

std::size_t path_count(card_speed speed) {
    return speed == card_speed::g40 ? 2 : 1;
}

void set_field(card& target, std::string_view field, std::string_view value) {
    constexpr std::string_view up = "up_port.";
    constexpr std::string_view down = "down_port.";
    if (field.starts_with(up))
        return set_bridge_field(target.up_port, field.substr(up.size()), value);
    if (field.starts_with(down))
        return set_down_port_field(target, field.substr(down.size()), value);
    if (store_field(card_fields, target, field, value)) return;
    if (store_field(answering_fields, target, field, value)) return;
    if (field == silent_registers_name) return set_silent_registers(target, value);
    const auto fixed = find_name(fixed_fields, field);
    if (fixed != std::end(fixed_fields)) {
        throw error(in_quotes(field) + " cannot be set: " + std::string(fixed->remedy));
    }
    throw error(unknown_name("field", field, settable_field_names()));
}

}  // namespace cardsim
