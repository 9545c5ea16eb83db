// The tables of fields, and how a value is written.
#include "records/fields.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <nlohmann/json.hpp>
#include <type_traits>

#include "output/text.h"

namespace qnmctl {

namespace {

constexpr format decimal{style::decimal};
constexpr format hex8{style::hex, 2};
constexpr format hex16{style::hex, 4};
constexpr format hex24{style::hex, 6};
constexpr format hex32{style::hex, 8};
constexpr format card_id{style::id};
constexpr format mac{style::mac};
constexpr format two_bytes{style::bytes, 2};
constexpr format three_bytes{style::bytes, 3};
constexpr format time_stamp{style::time};
constexpr format path_state{style::two_words, 0, {"disconnected", "connected"}};
constexpr format connection{style::two_words, 0, {"disconnected", "connected"}};
constexpr format off_on{style::two_words, 0, {"off", "on"}};
constexpr format down_up{style::two_words, 0, {"down", "up"}};
constexpr format no_yes{style::two_words, 0, {"no", "yes"}};
constexpr format fault{style::two_words, 0, {"cleared", "raised"}};
constexpr format vlan_mode{style::two_words, 0, {"NORMAL", "CHANGE"}};
constexpr format card_type{style::two_words, 0, {"1/10G", "40G"}};

constexpr std::uint64_t every_bit = ~std::uint64_t{0};
constexpr std::uint64_t no_bit = 0;  // identity and times: they never count as a change
// Bits with a field of their own, which tells the change.
constexpr std::uint64_t connection_bit = 0x0002;
constexpr std::uint64_t without_connection = ~connection_bit;
// The version, the two link bits and the interrupt vector.
constexpr std::uint64_t untold_switch_status = 0xFF9000;

template <class Record>
struct row {
    const char* name;
    const char* key;
    const char* title;
    const format& form;
    std::uint64_t (*get)(const Record&);
    std::uint64_t compared = every_bit;
    aspect about = aspect::general;
    bool (*is_known)(const Record&) = nullptr;  // nullptr: always
};

template <class Record, class Member>
Record record_of(Member Record::*);

// An integer, or a short array of bytes with the first one most significant.
template <class Value>
std::uint64_t number(const Value& value) {
    if constexpr (std::is_integral_v<Value>) {
        return value;
    } else {
        std::uint64_t all = 0;
        for (const std::uint8_t byte : value)
            all = all << 8 | byte;
        return all;
    }
}

template <auto Member>
std::uint64_t get(const decltype(record_of(Member))& record) {
    return number(record.*Member);
}

template <auto Member, int Port, int Path>
std::uint64_t get_path(const decltype(record_of(Member))& record) {
    return (record.*Member)[Port][Path];
}

// A path that was never heard is not known to be disconnected.
template <int Port, int Path>
bool was_heard(const qnm_com_dev_t& record) {
    return record.ecd_state[Port][Path] != 0 || record.ecd_recvtime[Port][Path] != 0;
}

template <auto Member>
std::uint64_t get_connection(const decltype(record_of(Member))& record) {
    return number(record.*Member) & connection_bit;
}

using com = qnm_com_dev_t;

constexpr row<com> common_rows[] = {
    {"id", nullptr, "card ID", card_id, get<&com::ecd_id>, no_bit},
    {"type", nullptr, "type", card_type, get<&com::ecd_type>},
    {"ver", nullptr, "version", decimal, get<&com::ecd_ver>},
    {"macaddr", nullptr, "MAC address", mac, get<&com::ecd_macaddr>, no_bit},
    {"vlan_id", nullptr, "VLAN ID", decimal, get<&com::ecd_vlan_id>},
    {"vlan_mode", nullptr, "VLAN mode", vlan_mode, get<&com::ecd_vlan_mode>},
    {"flowid", nullptr, "flow ID", hex8, get<&com::ecd_flowid>},
    {"state", "P0M0", "path P0M0", path_state, get_path<&com::ecd_state, 0, 0>, every_bit,
     aspect::path, was_heard<0, 0>},
    {"state", "P0M1", "path P0M1", path_state, get_path<&com::ecd_state, 0, 1>, every_bit,
     aspect::path, was_heard<0, 1>},
    {"state", "P1M0", "path P1M0", path_state, get_path<&com::ecd_state, 1, 0>, every_bit,
     aspect::path, was_heard<1, 0>},
    {"state", "P1M1", "path P1M1", path_state, get_path<&com::ecd_state, 1, 1>, every_bit,
     aspect::path, was_heard<1, 1>},
    {"recvtime", "P0M0", "last heard on P0M0", time_stamp, get_path<&com::ecd_recvtime, 0, 0>,
     no_bit},
    {"recvtime", "P0M1", "last heard on P0M1", time_stamp, get_path<&com::ecd_recvtime, 0, 1>,
     no_bit},
    {"recvtime", "P1M0", "last heard on P1M0", time_stamp, get_path<&com::ecd_recvtime, 1, 0>,
     no_bit},
    {"recvtime", "P1M1", "last heard on P1M1", time_stamp, get_path<&com::ecd_recvtime, 1, 1>,
     no_bit},
    {"updatetime", nullptr, "last change", time_stamp, get<&com::ecd_updatetime>, no_bit},
    {"uidsw", nullptr, "UID switch", off_on, get<&com::ecd_uidsw>},
    {"power", nullptr, "power", off_on, get<&com::ecd_power>},
    {"port0_link", nullptr, "card port 0 link", down_up, get<&com::ecd_port0_link>},
    {"port1_link", nullptr, "card port 1 link", down_up, get<&com::ecd_port1_link>},
    {"linkstatus", nullptr, "link status", hex8, get<&com::ecd_linkstatus>},
    {"swstatus", nullptr, "switch status", three_bytes, get<&com::ecd_swstatus>,
     untold_switch_status},
    {"int_vector", nullptr, "interrupt vector", hex8, get<&com::ecd_int_vector>, every_bit,
     aspect::error_vector},
};

using io = qnm_qnio_t;

constexpr row<io> io_rows[] = {
    {"connection", nullptr, "binding to a QNSV card", connection, get_connection<&io::eio_substate>,
     every_bit, aspect::connection},
    {"sermacaddr", nullptr, "QNSV card MAC address", mac, get<&io::eio_sermacaddr>},
    {"substate", nullptr, "substate", two_bytes, get<&io::eio_substate>, without_connection},
    {"link0fault", nullptr, "link 0 fault", fault, get<&io::eio_link0fault>, every_bit,
     aspect::link_fault},
    {"link1fault", nullptr, "link 1 fault", fault, get<&io::eio_link1fault>, every_bit,
     aspect::link_fault},
    {"pcie_presence", nullptr, "PCIe presence", no_yes, get<&io::eio_pcie_presence>},
    {"vendor_id", nullptr, "PCI vendor ID", hex16, get<&io::eio_vendor_id>},
    {"device_id", nullptr, "PCI device ID", hex16, get<&io::eio_device_id>},
    {"class_code", nullptr, "PCI class code", hex24, get<&io::eio_class_code>},
    {"mr_resource_num", nullptr, "resource ID", decimal, get<&io::eio_mr_resource_num>},
};

using bridge = qnm_com_port_t;

constexpr row<bridge> bridge_rows[] = {
    {"pri_bus_num", nullptr, "primary bus", decimal, get<&bridge::ecp_pri_bus_num>},
    {"sec_bus_num", nullptr, "secondary bus", decimal, get<&bridge::ecp_sec_bus_num>},
    {"sub_bus_num", nullptr, "subordinate bus", decimal, get<&bridge::ecp_sub_bus_num>},
    {"command", nullptr, "command", hex8, get<&bridge::ecp_command>},
    {"memory_base", nullptr, "memory base", hex16, get<&bridge::ecp_memory_base>},
    {"memory_limit", nullptr, "memory limit", hex16, get<&bridge::ecp_memory_limit>},
    {"pre_memory_base", nullptr, "prefetchable base", hex16, get<&bridge::ecp_pre_memory_base>},
    {"pre_memory_limit", nullptr, "prefetchable limit", hex16, get<&bridge::ecp_pre_memory_limit>},
    {"pre_base_upper", nullptr, "prefetchable base, upper half", hex32,
     get<&bridge::ecp_pre_base_upper>},
    {"pre_limit_upper", nullptr, "prefetchable limit, upper half", hex32,
     get<&bridge::ecp_pre_limit_upper>},
};

using down = qnm_down_port_t;

constexpr row<down> down_rows[] = {
    {"connection", nullptr, "QNIO card", connection, get_connection<&down::edp_port_status>,
     every_bit, aspect::connection},
    {"port_status", nullptr, "status", two_bytes, get<&down::edp_port_status>, without_connection},
    {"io_mac", nullptr, "QNIO card MAC address", mac, get<&down::edp_io_mac>},
};

template <class Record, std::size_t Count>
void append(std::vector<field>& to, const row<Record> (&rows)[Count], const Record& record) {
    for (const row<Record>& described : rows) {
        to.push_back({described.name, described.key, described.title, &described.form,
                      described.compared, described.about, described.get(record),
                      described.is_known == nullptr || described.is_known(record)});
    }
}

constexpr int down_ports_1_10g = 8;
constexpr int down_ports_40g = 16;

std::vector<section> some_sections(const card& record, int down_ports) {
    std::vector<section> all{{"", -1, {}}};
    append(all.front().fields, common_rows, common(record));
    if (const auto* described = std::get_if<qnm_qnio_t>(&record)) {
        append(all.front().fields, io_rows, *described);
        return all;
    }
    const auto& server = std::get<qnm_qnsv_t>(record);
    append(all.emplace_back(section{"up_port", -1, {}}).fields, bridge_rows, server.esv_up_port);
    for (int port = 0; port < down_ports; ++port) {
        std::vector<field>& fields = all.emplace_back(section{"down_port", port, {}}).fields;
        append(fields, down_rows, server.esv_down_port[port]);
        append(fields, bridge_rows, server.esv_down_port[port].edp_com_port);
    }
    return all;
}

// The first byte is the most significant one.
std::uint64_t byte_at(std::uint64_t value, int bytes, int at) {
    return value >> (8 * (bytes - 1 - at)) & 0xFF;
}

std::string bytes_text(std::uint64_t value, int bytes) {
    std::string text;
    for (int at = 0; at < bytes; ++at) {
        char part[4];
        std::snprintf(part, sizeof part, "%02x", static_cast<unsigned>(byte_at(value, bytes, at)));
        if (!text.empty()) text += ' ';
        text += part;
    }
    return text;
}

json bytes_json(std::uint64_t value, int bytes) {
    json all = json::array();
    for (int at = 0; at < bytes; ++at)
        all.push_back(byte_at(value, bytes, at));
    return all;
}

json section_json(const section& part) {
    json object = json::object();
    for (const field& shown : part.fields) {
        if (shown.key == nullptr) {
            object[shown.name] = value_json(shown);
        } else {
            object[shown.name][shown.key] = value_json(shown);
        }
    }
    return object;
}

}  // namespace

const qnm_com_dev_t& common(const card& record) {
    if (const auto* server = std::get_if<qnm_qnsv_t>(&record)) return server->esv_com_dev;
    return std::get<qnm_qnio_t>(record).eio_com_dev;
}

const char* kind_text(const card& record) {
    return std::holds_alternative<qnm_qnsv_t>(record) ? "QNSV" : "QNIO";
}

path_sight path_of(const card& record, int port, int path) {
    const qnm_com_dev_t& dev = common(record);
    if (dev.ecd_state[port][path] != 0) return path_sight::connected;
    return dev.ecd_recvtime[port][path] != 0 ? path_sight::lost : path_sight::never_heard;
}

const char* sight_text(path_sight sight) {
    constexpr const char* texts[] = {"-", "D", "C"};  // indexed by path_sight
    return texts[static_cast<std::size_t>(sight)];
}

std::string value_text(const field& shown) {
    if (!shown.known) return "never heard";
    const format& form = *shown.form;
    switch (form.how) {
        case style::decimal:
            return std::to_string(shown.value);
        case style::hex:
            return hex_text(shown.value, form.digits);
        case style::id:
            return id_text(shown.value);
        case style::mac:
            return mac_text(shown.value);
        case style::bytes:
            return bytes_text(shown.value, form.digits);
        case style::time:
            return shown.value == 0 ? "never" : time_text(from_milliseconds(shown.value));
        case style::two_words:
            return form.words[shown.value != 0];
    }
    return {};
}

json value_json(const field& shown) {
    if (!shown.known) return {};
    switch (shown.form->how) {
        case style::decimal:
        case style::hex:
            return shown.value;
        case style::time:
            if (shown.value == 0) return {};
            return iso_time_text(from_milliseconds(shown.value));
        case style::bytes:
            return bytes_json(shown.value, shown.form->digits);
        case style::id:
        case style::mac:
        case style::two_words:
            return value_text(shown);
    }
    return {};
}

std::string section_title(const section& part) {
    if (part.name[0] == '\0') return {};
    if (part.index < 0) return "up port ";
    return "down port " + std::to_string(part.index) + " ";
}

std::vector<section> all_sections(const card& record) {
    return some_sections(record, down_ports_40g);
}

std::vector<section> sections(const card& record) {
    return some_sections(record, common(record).ecd_type == 0 ? down_ports_1_10g : down_ports_40g);
}

const field* find_field(const std::vector<field>& in, std::string_view name, std::string_view key) {
    const auto found = std::find_if(in.begin(), in.end(), [&](const field& item) {
        return name == item.name && key == (item.key != nullptr ? item.key : "");
    });
    return found == in.end() ? nullptr : &*found;
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
