// Tables of messages and fields, laid over the bytes of a frame by the library's own layout of
// them.
#include "frames/frame_reading.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <iterator>

#include "installation/config_file.h"
#include "output/text.h"
#include "qnm_frame.h"
#include "qnm_frame_check.h"

namespace qnmctl {

namespace {

// ---- Bytes --------------------------------------------------------------------------------------

std::optional<std::uint64_t> big_number(const frame_bytes& frame, std::size_t at,
                                        std::size_t size) {
    if (at + size > frame.captured.size()) return std::nullopt;
    std::uint64_t value = 0;
    for (const std::uint8_t byte : frame.captured.subspan(at, size))
        value = value << 8 | byte;
    return value;
}

// The least significant byte comes first.
std::optional<std::uint64_t> little_number(const frame_bytes& frame, std::size_t at,
                                           std::size_t size) {
    if (at + size > frame.captured.size()) return std::nullopt;
    std::uint64_t value = 0;
    for (std::size_t n = size; n > 0; --n)
        value = value << 8 | frame.captured[at + n - 1];
    return value;
}

std::optional<std::uint8_t> byte_at(const frame_bytes& frame, std::size_t at) {
    if (at >= frame.captured.size()) return std::nullopt;
    return frame.captured[at];
}

// ---- Tables of fields ---------------------------------------------------------------------------

enum class shape { decimal, hex, little_hex, flag, mac, bytes };

struct row {
    const char* name;
    const char* title;
    std::size_t at;
    std::size_t size;
    shape how;
    std::uint64_t mask = ~std::uint64_t{0};  // the bits that are the field
};

constexpr std::size_t message_at = sizeof(quillnet_header_s);
constexpr std::size_t mac_size = 6;

constexpr row address_rows[] = {
    {"dmac", "destination MAC address", offsetof(quillnet_header_s, dmac), mac_size, shape::mac},
    {"smac", "source MAC address", offsetof(quillnet_header_s, smac), mac_size, shape::mac},
};

constexpr std::uint64_t priority_bits = 0xE000;
constexpr std::uint64_t cfi_bit = 0x1000;

constexpr row com_rows[] = {
    {"subtype", "message", offsetof(qnw_devinfo_com_s, com.subtype), 1, shape::hex},
    {"flowid_da", "destination flow ID", offsetof(qnw_devinfo_com_s, com.flowid_da), 1, shape::hex},
    {"flowid_sa", "source flow ID", offsetof(qnw_devinfo_com_s, com.flowid_sa), 1, shape::hex},
};
constexpr row ver_rows[] = {
    {"ver", "format version", offsetof(qnw_devinfo_com_s, com.ver), 1, shape::decimal},
    {"info", "information", offsetof(qnw_devinfo_com_s, com.info), 1, shape::hex},
};

constexpr std::size_t info_at = offsetof(qnw_devinfo_com_s, com.info);
constexpr std::size_t host_at = offsetof(qnw_devinfo_com_s, com.host);
constexpr std::size_t ver_at = offsetof(qnw_devinfo_com_s, com.ver);
constexpr std::size_t status_at = offsetof(qnw_devinfo_com_s, com.sw_status);

constexpr row announcement_rows[] = {
    {"uid_switch", "UID switch", info_at, 1, shape::flag, 0x04},
    {"power", "power", info_at, 1, shape::flag, 0x08},
    {"host", "kind of card", host_at, 1, shape::decimal},
    {"link_status", "link status", offsetof(qnw_devinfo_com_s, com.link_status), 1, shape::hex},
    {"sw_status", "switch status", status_at, 3, shape::bytes},
    {"version", "card version", status_at + 1, 1, shape::decimal, qnm::k_version_mask},
    {"port0_link", "link of port 0", status_at + 1, 1, shape::flag, 0x20},
    {"port1_link", "link of port 1", status_at + 1, 1, shape::flag, 0x40},
    {"int_vector", "interrupt vector", status_at + 2, 1, shape::hex},
};

constexpr row bridge_rows[] = {
    {"pri_bus_num", "primary bus", offsetof(qnet_com_port_s, pri_bus_num), 1, shape::decimal},
    {"sec_bus_num", "secondary bus", offsetof(qnet_com_port_s, sec_bus_num), 1, shape::decimal},
    {"sub_bus_num", "subordinate bus", offsetof(qnet_com_port_s, sub_bus_num), 1, shape::decimal},
    {"command", "command", offsetof(qnet_com_port_s, command), 1, shape::hex},
    {"memory_base", "memory base", offsetof(qnet_com_port_s, memory_base), 2, shape::little_hex},
    {"memory_limit", "memory limit", offsetof(qnet_com_port_s, memory_limit), 2, shape::little_hex},
    {"pre_memory_base", "prefetchable base", offsetof(qnet_com_port_s, pre_memory_base), 2,
     shape::little_hex},
    {"pre_memory_limit", "prefetchable limit", offsetof(qnet_com_port_s, pre_memory_limit), 2,
     shape::little_hex},
    {"pre_base_upper", "prefetchable base, upper half", offsetof(qnet_com_port_s, pre_base_upper),
     4, shape::little_hex},
    {"pre_limit_upper", "prefetchable limit, upper half",
     offsetof(qnet_com_port_s, pre_limit_upper), 4, shape::little_hex},
};

constexpr row down_port_rows[] = {
    {"port_status", "status", offsetof(qnet_down_port_s, port_status), 2, shape::bytes},
    {"connected", "QNIO card connected", offsetof(qnet_down_port_s, port_status) + 1, 1,
     shape::flag, 0x02},
    {"io_mac", "QNIO card MAC address", offsetof(qnet_down_port_s, io_mac), mac_size, shape::mac},
};

constexpr std::size_t srv_at = offsetof(qnw_devinfo_io_s, devinfo_srv);

constexpr row io_rows[] = {
    {"pcie_presence", "PCIe presence", status_at + 1, 1, shape::flag, 0x80},
    {"io_substate", "I/O state", srv_at + offsetof(qnet_devinfo_srv_s, io_substate), 2,
     shape::bytes},
    {"connected", "connected", srv_at + offsetof(qnet_devinfo_srv_s, io_substate) + 1, 1,
     shape::flag, 0x02},
    {"ser_mac", "QNSV card MAC address", srv_at + offsetof(qnet_devinfo_srv_s, ser_mac), mac_size,
     shape::mac},
    {"device_id", "PCI device ID", srv_at + offsetof(qnet_devinfo_srv_s, device_id), 2,
     shape::little_hex},
    {"vendor_id", "PCI vendor ID", srv_at + offsetof(qnet_devinfo_srv_s, vendor_id), 2,
     shape::little_hex},
    {"reserved", "reserved", srv_at + offsetof(qnet_devinfo_srv_s, reserved), 1, shape::bytes},
    {"class_code", "PCI class code", srv_at + offsetof(qnet_devinfo_srv_s, class_code), 3,
     shape::little_hex},
};
constexpr row fault_rows[] = {
    {"link0_fault", "link 0 fault", info_at, 1, shape::flag, 0x01},
    {"link1_fault", "link 1 fault", info_at, 1, shape::flag, 0x02},
};
// As multi-root cards number them.
constexpr row multi_root_rows[] = {
    {"link0_fault", "link 0 fault", info_at, 1, shape::flag, 0x02},
    {"link1_fault", "link 1 fault", info_at, 1, shape::flag, 0x01},
    {"resource_id", "resource ID", offsetof(qnw_devinfo_mrio_s, resource_id), 2, shape::decimal},
};

constexpr std::size_t tag_at = offsetof(qnw_completion_s, comp.tag);
constexpr std::size_t wire_address_at = offsetof(qnw_register_read_s, regr.com.address);

constexpr row completion_rows[] = {
    {"tag", "tag", tag_at, 1, shape::decimal},
    {"data", "register value", offsetof(qnw_completion_s, comp.data), 4, shape::little_hex},
};
constexpr row register_rows[] = {
    {"tag", "tag", tag_at, 1, shape::decimal},
    {"wire_address", "encoded address", wire_address_at, 4, shape::hex},
};
constexpr row written_rows[] = {
    {"data", "register value", offsetof(qnw_register_write_s, regw.data), 4, shape::little_hex},
};
constexpr row vlan_set_rows[] = {
    {"set_type", "set type", offsetof(qnw_vlanset_type0_s, vlanset.type), 1, shape::decimal},
    {"new_vlan_id", "new VLAN ID", offsetof(qnw_vlanset_type0_s, vlanset.vlan_id), 2,
     shape::decimal},
    {"reserved", "reserved", offsetof(qnw_vlanset_type0_s, vlanset.reserved1), 2, shape::bytes},
};
constexpr row reset_rows[] = {
    {"status", "reset status", offsetof(qnw_reset_s, reset.status), 1, shape::hex},
};
constexpr row mms_rows[] = {
    {"reserved", "reserved", offsetof(qnw_mms_write_s, reserved), 3, shape::bytes},
    {"page", "MMS page", offsetof(qnw_mms_write_s, address), 4, shape::decimal},
};

std::string bytes_text(std::span<const std::uint8_t> bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        char part[4];
        std::snprintf(part, sizeof part, text.empty() ? "%02x" : " %02x", byte);
        text += part;
    }
    return text;
}

frame_field make_field(const row& described, std::uint64_t value,
                       std::span<const std::uint8_t> bytes) {
    const int digits = static_cast<int>(2 * described.size);
    switch (described.how) {
        case shape::decimal:
            return {described.name, described.title, std::to_string(value), value};
        case shape::flag:
            return {described.name, described.title, value != 0 ? "yes" : "no", value != 0};
        case shape::hex:
        case shape::little_hex:
            return {described.name, described.title, hex_text(value, digits), value};
        case shape::mac:
            return {described.name, described.title, mac_text(value), mac_text(value)};
        case shape::bytes:
            break;
    }
    return {described.name, described.title, bytes_text(bytes), bytes_text(bytes)};
}

// ---- A frame being read -------------------------------------------------------------------------

struct reading_frame {
    const frame_bytes& frame;
    const frame_rules& rules;
    const qnm_header_layout_t& header;
    frame_reading& result;

    std::vector<frame_field>& fields() const { return result.sections.back().fields; }
    std::optional<std::uint16_t> word(std::size_t at) const {
        const auto value = big_number(frame, at, 2);
        return value ? std::optional(static_cast<std::uint16_t>(*value)) : std::nullopt;
    }
};

void add_row(const reading_frame& at, const row& described, std::size_t start = 0) {
    const auto value = described.how == shape::little_hex
                           ? little_number(at.frame, start + described.at, described.size)
                           : big_number(at.frame, start + described.at, described.size);
    if (!value) {
        at.result.cut = at.result.cut || start + described.at + described.size <= at.frame.length;
        return;
    }
    const std::uint64_t bits = (*value & described.mask) >> std::countr_zero(described.mask);
    at.fields().push_back(make_field(
        described, bits, at.frame.captured.subspan(start + described.at, described.size)));
}

void add_rows(const reading_frame& at, std::span<const row> rows, std::size_t start = 0) {
    for (const row& described : rows)
        add_row(at, described, start);
}

// What is left of the frame from an offset on.
void add_rest(const reading_frame& at, const char* name, const char* title, std::size_t start) {
    at.result.cut = at.result.cut || at.frame.captured.size() < at.frame.length;
    if (start >= at.frame.captured.size()) return;
    const auto rest = at.frame.captured.subspan(start);
    const bool zero = std::all_of(rest.begin(), rest.end(), [](std::uint8_t b) { return b == 0; });
    at.fields().push_back({name, title,
                           zero ? std::to_string(rest.size()) + " bytes of zero" : bytes_text(rest),
                           bytes_text(rest)});
}

void start_section(const reading_frame& at, const char* name, int index = -1) {
    at.result.sections.push_back({name, index, {}});
}

// ---- Messages -----------------------------------------------------------------------------------

// Each function reads what follows the bytes that all messages have.
struct message {
    message_kind kind;
    void (*read)(const reading_frame&, const message&);
    std::size_t size;  // of an announcement by a QNSV card, or of the message
    int down_ports = 0;
};

bool is_multi_root(const frame_bytes& frame) {
    const auto status = byte_at(frame, status_at + 1);
    return status && (*status & qnm::k_version_mask) == qnm::k_version_mr;
}

void read_server(const reading_frame& at, const message& kind) {
    start_section(at, "up_port");
    add_rows(at, bridge_rows, offsetof(qnw_devinfo_server_s, up_port));
    for (int port = 0; port < kind.down_ports; ++port) {
        const std::size_t start = offsetof(qnw_devinfo_server_s, down_port) +
                                  static_cast<std::size_t>(port) * sizeof(qnet_down_port_s);
        start_section(at, "down_port", port);
        add_rows(at, down_port_rows, start);
        add_rows(at, bridge_rows, start + offsetof(qnet_down_port_s, com_port));
    }
    // Empty if it was not captured or does not exist.
    std::erase_if(at.result.sections, [](const frame_section& s) { return s.fields.empty(); });
    start_section(at, "");
    add_rest(at, "padding", "padding", kind.size);
}

void read_io(const reading_frame& at) {
    add_rows(at, io_rows);
    const bool multi_root = is_multi_root(at.frame);
    add_rows(at, multi_root ? std::span<const row>(multi_root_rows) : fault_rows);
    add_rest(at, "padding", "padding",
             multi_root ? sizeof(qnw_devinfo_mrio_s) : sizeof(qnw_devinfo_io_s));
}

// A 40G card's two addresses differ in the lowest bit, which is the path and no part of the ID.
void add_identity(const reading_frame& at) {
    const auto ver = byte_at(at.frame, ver_at);
    if (!ver) return;
    const std::uint64_t path = *ver != 0 ? *at.result.source & 1 : 0;
    at.result.card = *at.result.source - path;
    at.fields().push_back(
        {"card_id", "card ID", id_text(*at.result.card), id_text(*at.result.card)});
    at.fields().push_back({"path", "path of the card", std::to_string(path), path});
    at.result.words = "path " + std::to_string(path);
}

void read_announcement(const reading_frame& at, const message& kind) {
    add_identity(at);
    add_rows(at, announcement_rows);
    const auto host = byte_at(at.frame, host_at);
    if (!host) return;
    if (*host == qnm::k_host_qnsv) {
        at.result.words = "QNSV " + at.result.words;
        read_server(at, kind);
    } else if (*host == qnm::k_host_qnio) {
        at.result.words = "QNIO " + at.result.words;
        read_io(at);
    } else {
        at.result.words = "of unknown kind " + at.result.words;
        add_rest(at, "unread", "not read", qnm::k_min_recv_size);
    }
}

std::string tag_words(const frame_reading& reading) {
    return reading.tag ? "tag " + std::to_string(*reading.tag) : std::string();
}

std::string value_words(const reading_frame& at, std::size_t value_at) {
    const auto value = little_number(at.frame, value_at, 4);
    return value ? " value " + hex_text(*value, 8) : std::string();
}

void read_completion(const reading_frame& at, const message& kind) {
    at.result.card = at.result.source;
    at.result.tag = byte_at(at.frame, tag_at);
    add_rows(at, completion_rows);
    add_rest(at, "padding", "padding", kind.size);
    at.result.words = tag_words(at.result) + value_words(at, offsetof(qnw_completion_s, comp.data));
}

// Registers that the library itself uses. Those of the EEPROM lie at one of two places.
struct register_name {
    std::uint32_t address;
    const char* name;
};

constexpr register_name register_names[] = {
    {0x5010, "EEPROM control and status (1G/10G)"},
    {0x5014, "EEPROM address (1G/10G)"},
    {0x5018, "EEPROM data read (1G/10G)"},
    {0x501C, "EEPROM data to write (1G/10G)"},
    {0x0040, "EEPROM control and status (40G)"},
    {0x0044, "EEPROM address (40G)"},
    {0x0048, "EEPROM data read (40G)"},
    {0x004C, "EEPROM data to write (40G)"},
    {0x50F0, "EEPROM bit lock"},
    {0x5200, "EEPROM ID lock, request and holder"},
    {0x5204, "EEPROM ID lock, release"},
    {0x5208, "EEPROM ID lock, noted requests"},
    {0x520C, "EEPROM lock type"},
};

const char* find_register(std::uint32_t address) {
    const auto found =
        std::find_if(std::begin(register_names), std::end(register_names),
                     [&](const register_name& named) { return named.address == address; });
    return found == std::end(register_names) ? nullptr : found->name;
}

// The inverse of qnm::encode_register_address().
std::uint32_t decode_register_address(std::uint64_t wire) {
    return static_cast<std::uint32_t>((wire >> 4 & 0x003FF000) | (wire & 0x00000FFF));
}

void add_register(const reading_frame& at) {
    add_rows(at, register_rows);
    const auto wire = big_number(at.frame, wire_address_at, 4);
    if (!wire) return;
    const std::uint32_t address = decode_register_address(*wire);
    at.result.address = address;
    at.fields().push_back({"address", "register address", hex_text(address, 6), address});
    const char* const name = find_register(address);
    if (name != nullptr) at.fields().push_back({"register", "register", name, name});
}

std::string address_words(const frame_reading& reading) {
    return reading.address ? register_text(*reading.address) : std::string();
}

void read_register_read(const reading_frame& at, const message& kind) {
    at.result.tag = byte_at(at.frame, tag_at);
    add_register(at);
    add_rest(at, "padding", "padding", kind.size);
    at.result.words = tag_words(at.result) + ' ' + address_words(at.result);
}

void read_register_write(const reading_frame& at, const message& kind) {
    add_register(at);
    add_rows(at, written_rows);
    add_rest(at, "padding", "padding", kind.size);
    at.result.words =
        address_words(at.result) + value_words(at, offsetof(qnw_register_write_s, regw.data));
}

void read_vlan_set(const reading_frame& at, const message& kind) {
    add_rows(at, vlan_set_rows);
    add_rest(at, "padding", "padding", kind.size);
    const auto id = at.word(offsetof(qnw_vlanset_type0_s, vlanset.vlan_id));
    if (id) at.result.words = "to " + std::to_string(*id);
}

void read_reset(const reading_frame& at, const message& kind) {
    at.result.card.reset();  // the frame is for all
    add_rows(at, reset_rows);
    add_rest(at, "padding", "padding", kind.size);
    const auto status = byte_at(at.frame, offsetof(qnw_reset_s, reset.status));
    if (status) at.result.words = "status " + hex_text(*status, 2);
}

void read_mms_write(const reading_frame& at, const message& kind) {
    constexpr std::size_t words = sizeof(qnw_mms_write_s::data) / 4;
    add_rows(at, mms_rows);
    std::vector<std::string> texts;
    json values = json::array();
    for (std::size_t n = 0; n < words; ++n) {
        const auto word = little_number(at.frame, offsetof(qnw_mms_write_s, data) + 4 * n, 4);
        if (!word) continue;
        texts.push_back(hex_text(*word, 8));
        values.push_back(*word);
    }
    if (!texts.empty()) at.fields().push_back({"word", "words", join(texts, " "), values});
    add_rest(at, "padding", "padding", kind.size);
    const auto page = big_number(at.frame, offsetof(qnw_mms_write_s, address), 4);
    if (page) at.result.words = "page " + std::to_string(*page);
}

constexpr message messages[] = {
    {{qnm::k_devinfo, "1G/10G DEVINFO", "devinfo", way::to_manager},
     read_announcement,
     sizeof(qnw_devinfo_server_s),
     8},
    {{qnm::k_notify, "1G/10G NOTIFY", "notify", way::to_manager},
     read_announcement,
     sizeof(qnw_devinfo_server_s),
     8},
    {{qnm::k_devinfo_40g, "40G DEVINFO", "devinfo", way::to_manager},
     read_announcement,
     sizeof(qnw_devinfo_server_40g_s),
     16},
    {{qnm::k_notify_40g, "40G NOTIFY", "notify", way::to_manager},
     read_announcement,
     sizeof(qnw_devinfo_server_40g_s),
     16},
    {{qnm::k_completion, "Completion", "completion", way::to_manager},
     read_completion,
     sizeof(qnw_completion_s)},
    {{qnm::k_reset, "Reset", "reset", way::to_card}, read_reset, sizeof(qnw_reset_s)},
    {{qnm::k_vlanset_type0, "VLAN set", "vlan-set", way::to_card},
     read_vlan_set,
     sizeof(qnw_vlanset_type0_s)},
    {{qnm::k_register_write, "Register Write", "register-write", way::to_card},
     read_register_write,
     sizeof(qnw_register_write_s)},
    {{qnm::k_register_read, "Register Read", "register-read", way::to_card},
     read_register_read,
     sizeof(qnw_register_read_s)},
    {{qnm::k_mms_write, "MMS write", "mms-write", way::to_card},
     read_mms_write,
     sizeof(qnw_mms_write_s)},
};

const message* find_message(std::uint8_t subtype) {
    const auto found =
        std::find_if(std::begin(messages), std::end(messages),
                     [&](const message& known) { return known.kind.subtype == subtype; });
    return found == std::end(messages) ? nullptr : &*found;
}

// ---- What the receive path drops ----------------------------------------------------------------

// A request is for cards; it is not wrong because managers ignore it.
bool is_request(const frame_bytes& frame, const qnm_frame_verdict_t& verdict) {
    if (verdict.reason != QNM_FRAME_SUBTYPE) return false;
    const message* const found = find_message(frame.captured[message_at]);
    return found != nullptr && found->kind.goes == way::to_card;
}

std::optional<drop_reason> drop_reason_of(const frame_bytes& frame,
                                          const qnm_frame_verdict_t& verdict) {
    if (verdict.reason == QNM_FRAME_TAKEN || is_request(frame, verdict)) return std::nullopt;
    char text[QNM_FRAME_TEXT_SIZE];
    _qnm_frame_reason_text(&verdict, text);
    const auto rows = qnm::frame_reasons();
    const auto row = std::ranges::find(rows, verdict.reason, &qnm_frame_reason_row_t::reason);
    return drop_reason{row->name, text};
}

// ---- Reading ------------------------------------------------------------------------------------

void read_header(const reading_frame& at) {
    const std::size_t tci = at.header.tci;
    const json mode = at.header.vlan_mode;
    const row rows[] = {
        {"type", "Ethernet type", at.header.type, 2, shape::hex},
        {"tpid", "TPID", at.header.tpid, 2, shape::hex},
        {"tci", "TCI", tci, 2, shape::hex},
        {"priority", "priority", tci, 2, shape::decimal, priority_bits},
        {"cfi", "CFI", tci, 2, shape::flag, cfi_bit},
        {"vlan_id", "VLAN ID (group)", tci, 2, shape::decimal, qnm::k_vlan_id_mask},
    };
    add_rows(at, address_rows);
    at.fields().push_back({"vlan_mode", "header arrangement",
                           at.header.vlan_mode == 0 ? "ordinary" : "VLAN-tag change mode", mode});
    add_rows(at, rows);
}

// Whether it is one of our frames, so that a message follows the header.
bool has_message(const reading_frame& at) {
    return at.word(at.header.tpid) == qnm::k_vlan_tpid &&
           at.word(at.header.type) == at.rules.ether_type;
}

void read_message(const reading_frame& at) {
    add_rows(at, com_rows);
    const auto subtype = byte_at(at.frame, message_at);
    const message* const read_as = subtype ? find_message(*subtype) : nullptr;
    if (read_as == nullptr || read_as->kind.subtype != qnm::k_mms_write) add_rows(at, ver_rows);
    if (read_as == nullptr) {
        add_rest(at, "unread", "not read", info_at + 1);
        return;
    }
    at.result.kind = &read_as->kind;
    if (read_as->kind.goes == way::to_card) at.result.card = at.result.destination;
    read_as->read(at, *read_as);
}

struct titled_reason {
    const char* name;
    const char* title;
};

// Reasons to drop a Completion that depend on the requests sent before.
constexpr titled_reason completion_titles[] = {
    {"tag", "No manager uses the tag"},
    {"mac", "Another card was asked"},
    {"repeated", "The Register Read has its answer"},
};

}  // namespace

frame_rules configured_rules(const std::string& config) {
    return {static_cast<std::uint16_t>(configured_number(config, "ether_type")),
            static_cast<std::uint8_t>(configured_number(config, "tag_min")),
            static_cast<std::uint8_t>(configured_number(config, "tag_max"))};
}

std::span<const message_kind> message_kinds() {
    static const auto kinds = [] {
        std::vector<message_kind> all;
        for (const message& known : messages)
            all.push_back(known.kind);
        return all;
    }();
    return kinds;
}

frame_reading read_frame(const frame_bytes& frame, const frame_rules& rules) {
    const qnm_frame_bytes_t bytes = {frame.captured.data(), frame.captured.size(), frame.length};
    qnm_frame_verdict_t verdict = _qnm_check_frame(&bytes, rules.ether_type);
    _qnm_check_frame_host(&bytes, &verdict);
    frame_reading result;
    const reading_frame at = {frame, rules, *verdict.layout, result};
    result.destination = big_number(frame, offsetof(quillnet_header_s, dmac), mac_size);
    result.source = big_number(frame, offsetof(quillnet_header_s, smac), mac_size);
    result.dropped = drop_reason_of(frame, verdict);
    start_section(at, "");
    read_header(at);
    if (has_message(at)) {
        read_message(at);
    } else {
        add_rest(at, "unread", "not read", message_at);
    }
    return result;
}

const char* drop_title(const std::string& name) {
    for (const qnm_frame_reason_row_t& row : qnm::frame_reasons()) {
        if (name == row.name) return row.title;
    }
    for (const titled_reason& row : completion_titles) {
        if (name == row.name) return row.title;
    }
    return "";
}

std::string register_text(std::uint32_t address) {
    const char* const name = find_register(address);
    return hex_text(address, 6) + (name == nullptr ? "" : " (" + std::string(name) + ')');
}

json fields_json(const frame_reading& reading) {
    json all = json::object();
    for (const frame_section& within : reading.sections) {
        json fields = json::object();
        for (const frame_field& item : within.fields)
            fields[item.name] = item.value;
        if (within.index >= 0) {
            all[within.name].push_back(fields);
        } else if (within.name[0] != '\0') {
            all[within.name] = fields;
        } else {
            all.update(fields);
        }
    }
    return all;
}

}  // namespace qnmctl
