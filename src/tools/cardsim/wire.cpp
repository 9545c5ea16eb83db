// Writes the frames that cards send and reads the frames that they receive, from the protocol
// tables.
//
// Header fields are big-endian. Values that a card takes from its own registers (bridge windows,
// PCI IDs, register data) are sent as they are in memory, little-endian.
#include <algorithm>
#include <cstdio>

#include "cardsim.h"
#include "fields.h"

namespace cardsim {

namespace {

constexpr std::uint16_t vlan_tpid = 0x8100;
constexpr std::size_t minimum_frame = 60;

constexpr unsigned protocol_priority = 4;
constexpr std::uint8_t completion_subtype = 0x20;
constexpr std::uint8_t multi_root_version = 1;

// --------------------------------------------------------------------------------------------
// Sending
// --------------------------------------------------------------------------------------------

void put_u8(frame_bytes& out, unsigned value) {
    out.push_back(static_cast<std::uint8_t>(value));
}

template <std::size_t size>
void put_big(frame_bytes& out, std::uint64_t value) {
    for (std::size_t i = size; i-- > 0;)
        put_u8(out, value >> (8 * i) & 0xFF);
}

template <std::size_t size>
void put_little(frame_bytes& out, std::uint64_t value) {
    for (std::size_t i = 0; i < size; ++i)
        put_u8(out, value >> (8 * i) & 0xFF);
}

unsigned bit(bool value, unsigned position) {
    return (value ? 1U : 0U) << position;
}

struct addresses {
    std::uint64_t destination;
    std::uint64_t source;
};

void put_header(frame_bytes& out, const card& sender, const addresses& macs, unsigned priority) {
    put_big<6>(out, macs.destination);
    put_big<6>(out, macs.source);
    if (sender.vlan_change_mode) put_big<2>(out, sender.ether_type);
    put_big<2>(out, vlan_tpid);
    put_big<2>(out, (priority & 7U) << 13 | (sender.vlan_id & 0x0FFFU));
    if (!sender.vlan_change_mode) put_big<2>(out, sender.ether_type);
}

unsigned info_byte(const card& source) {
    // Multi-root cards number their two links the other way round.
    const bool multi_root = source.kind == card_kind::qnio && source.version == multi_root_version;
    const unsigned link0_position = multi_root ? 1 : 0;
    return bit(source.link0_fault, link0_position) | bit(source.link1_fault, 1 - link0_position) |
           bit(source.uid_switch, 2) | bit(source.power, 3);
}

unsigned sw_status1_byte(const card& source) {
    return (source.version & 0x0FU) | bit(source.port0_link, 5) | bit(source.port1_link, 6) |
           bit(source.pcie_presence, 7);
}

unsigned announcement_subtype(const card& source, message kind) {
    return (source.speed == card_speed::g40 ? 0x18U : 0x10U) + (kind == message::notify ? 1U : 0U);
}

void put_common_part(frame_bytes& out, const card& source, message kind) {
    put_u8(out, announcement_subtype(source, kind));
    put_u8(out, source.flow_id_da);
    put_u8(out, source.flow_id);
    put_u8(out, source.ver);
    put_u8(out, info_byte(source));
    put_u8(out, source.kind == card_kind::qnsv ? 0 : 1);
    put_u8(out, source.link_status);
    put_u8(out, source.sw_status0);
    put_u8(out, sw_status1_byte(source));
    put_u8(out, source.int_vector);
}

void put_bridge(frame_bytes& out, const bridge& b) {
    put_u8(out, b.pri_bus_num);
    put_u8(out, b.sec_bus_num);
    put_u8(out, b.sub_bus_num);
    put_u8(out, b.command);
    put_little<2>(out, b.memory_base);
    put_little<2>(out, b.memory_limit);
    put_little<2>(out, b.pre_memory_base);
    put_little<2>(out, b.pre_memory_limit);
    put_little<4>(out, b.pre_base_upper);
    put_little<4>(out, b.pre_limit_upper);
}

void put_server_payload(frame_bytes& out, const card& source) {
    put_bridge(out, source.up_port);
    const std::size_t ports = source.speed == card_speed::g40 ? 16 : 8;
    for (const down_port& port : std::span(source.down_ports).first(ports)) {
        put_u8(out, port.port_status[0]);
        put_u8(out, port.port_status[1]);
        put_big<6>(out, port.io_mac);
        put_bridge(out, port.com_port);
    }
}

void put_io_payload(frame_bytes& out, const card& source) {
    put_u8(out, source.io_substate[0]);
    put_u8(out, source.io_substate[1]);
    put_big<6>(out, source.ser_mac);
    put_little<2>(out, source.device_id);
    put_little<2>(out, source.vendor_id);
    put_u8(out, 0);  // reserved
    put_little<3>(out, source.class_code);
    if (source.version == multi_root_version) put_big<2>(out, source.resource_id);
}

// --------------------------------------------------------------------------------------------
// Receiving
// --------------------------------------------------------------------------------------------

// The readers take offsets from the first byte of the frame; the caller has checked the length.
template <std::size_t size>
std::uint64_t get_big(frame_view frame, std::size_t offset) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i)
        value = value << 8 | frame[offset + i];
    return value;
}

std::uint32_t get_little32(frame_view frame, std::size_t offset) {
    std::uint32_t value = 0;
    for (std::size_t i = 4; i-- > 0;)
        value = value << 8 | frame[offset + i];
    return value;
}

bool all_zero(frame_view bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t b) { return b == 0; });
}

// Address bits 12 to 21 are sent four places higher; bits 12 to 15 and 26 to 31 must be zero.
constexpr std::uint32_t address_mask = 0x03FF0FFF;

std::uint32_t get_address(frame_view frame, request& out) {
    const auto wire = static_cast<std::uint32_t>(get_big<4>(frame, 24));
    if ((wire & ~address_mask) != 0) out.fault = "unused address bits are not zero";
    return (wire >> 4 & 0x003FF000) | (wire & 0x00000FFF);
}

void get_register_read(frame_view frame, request& out) {
    out.body = register_read{.tag = frame[23], .address = get_address(frame, out)};
}

void get_register_write(frame_view frame, request& out) {
    if (frame[23] != 0) out.fault = "the tag of a write is not 0";
    const std::uint32_t address = get_address(frame, out);
    out.body =
        register_write{.tag = frame[23], .address = address, .data = get_little32(frame, 28)};
}

void get_vlan_set(frame_view frame, request& out) {
    if (frame[23] != 0) out.fault = "the set type is not 0";
    if (!all_zero(frame.subspan(26, 2))) out.fault = "reserved bytes are not zero";
    out.body =
        vlan_set{.type = frame[23], .vlan_id = static_cast<std::uint16_t>(get_big<2>(frame, 24))};
}

void get_reset(frame_view frame, request& out) {
    out.body = reset{.status = frame[23]};
}

void get_mms_write(frame_view frame, request& out) {
    if (frame[23] != 0) out.fault = "reserved bytes are not zero";
    mms_write write{.page = static_cast<std::uint32_t>(get_big<4>(frame, 24))};
    for (std::size_t i = 0; i < write.data.size(); ++i) {
        write.data[i] = get_little32(frame, 28 + 4 * i);
    }
    out.body = write;
}

// The messages that a card accepts: the size of the message, and the minimum size of its frame.
struct request_format {
    std::uint8_t subtype;
    std::size_t message_size;
    std::size_t frame_size;
    void (*get)(frame_view, request&);
};

constexpr request_format request_formats[] = {
    {0x30, 24, minimum_frame, get_reset},
    {0x80, 28, minimum_frame, get_vlan_set},
    {0x90, 32, minimum_frame, get_register_write},
    {0x91, 28, minimum_frame, get_register_read},
    {0x92, 156, 156, get_mms_write},
};

// Faults that every message can have; called on frames that hold the whole message.
std::string common_fault(frame_view frame, const request& received, const request_format& format) {
    if (received.tci >> 13 != protocol_priority) return "the priority is not 4";
    if ((received.tci & 0x1000) != 0) return "the CFI bit is set";
    if (frame[19] != 0xFF || frame[20] != 0xFF) return "a flow ID is not 0xFF";
    if (frame[21] != 0 || frame[22] != 0) return "the version or info byte is not 0";
    if (!all_zero(frame.subspan(format.message_size))) return "the padding is not zero";
    return {};
}

// Whether cards send this subtype: announcements and Completions.
bool sent_by_cards(std::uint8_t subtype) {
    constexpr std::uint8_t subtypes[] = {0x10, 0x11, 0x18, 0x19, completion_subtype};
    return std::find(std::begin(subtypes), std::end(subtypes), subtype) != std::end(subtypes);
}

void decode_message(frame_view frame, request& out) {
    const auto* format =
        std::find_if(std::begin(request_formats), std::end(request_formats),
                     [&](const request_format& row) { return row.subtype == out.subtype; });
    if (format == std::end(request_formats)) {
        out.fault = "no card takes this subtype";
        return;
    }
    if (frame.size() < format->frame_size) {
        out.fault = "the frame is too short";
        return;
    }
    format->get(frame, out);
    if (std::string fault = common_fault(frame, out, *format); !fault.empty()) out.fault = fault;
}

template <class... Args>
std::string formatted(const char* format, Args... args) {
    char text[192];
    std::snprintf(text, sizeof text, format, args...);
    return text;
}

struct body_text {
    std::string operator()(std::monostate) const { return "unknown"; }
    std::string operator()(const register_read& r) const {
        return formatted("Register Read tag=%u address=0x%06x", unsigned{r.tag}, r.address);
    }
    std::string operator()(const register_write& w) const {
        return formatted("Register Write address=0x%06x data=0x%08x", w.address, w.data);
    }
    std::string operator()(const vlan_set& v) const {
        return formatted("VLAN set vlan_id=%u", unsigned{v.vlan_id});
    }
    std::string operator()(const reset& r) const {
        return formatted("Reset status=0x%02x", unsigned{r.status});
    }
    std::string operator()(const mms_write& w) const {
        return formatted("MMS write page=0x%08x data[0]=0x%08x", w.page, w.data[0]);
    }
};

}  // namespace

frame_bytes encode(const card& source, message kind, std::size_t path) {
    if (path >= path_count(source.speed)) {
        throw error("card \"" + source.name + "\" has no path " + std::to_string(path));
    }
    frame_bytes out;
    out.reserve(496);
    put_header(out, source, {source.destination, source.id | path}, source.priority);
    put_common_part(out, source, kind);
    if (source.kind == card_kind::qnsv) {
        put_server_payload(out, source);
    } else {
        put_io_payload(out, source);
    }
    if (out.size() < minimum_frame) out.resize(minimum_frame);
    return out;
}

void encode(const card& sender, const completion& sent, frame_bytes& out) {
    out.clear();
    put_header(out, sender, {sent.destination, sent.source}, protocol_priority);
    put_u8(out, completion_subtype);
    put_u8(out, sender.flow_id_da);
    put_u8(out, sender.flow_id);
    put_u8(out, sender.ver);
    put_u8(out, 0);  // info
    put_u8(out, sent.tag);
    put_little<4>(out, sent.value);
    out.resize(minimum_frame);
}

std::optional<request> decode(frame_view frame, std::uint16_t ether_type) {
    constexpr std::size_t first = 12, second = 14, third = 16, subtype = 18;
    if (frame.size() <= subtype) return std::nullopt;
    const bool normal =
        get_big<2>(frame, first) == vlan_tpid && get_big<2>(frame, third) == ether_type;
    const bool change =
        get_big<2>(frame, first) == ether_type && get_big<2>(frame, second) == vlan_tpid;
    if ((!normal && !change) || sent_by_cards(frame[subtype])) return std::nullopt;

    request out;
    out.destination = get_big<6>(frame, 0);
    out.source = get_big<6>(frame, 6);
    out.tci = static_cast<std::uint16_t>(get_big<2>(frame, normal ? second : third));
    out.vlan_change_mode = !normal;
    out.subtype = frame[subtype];
    out.length = frame.size();
    decode_message(frame, out);
    return out;
}

std::string describe(const request& received) {
    std::string text = std::visit(body_text{}, received.body);
    text += formatted(" subtype=0x%02x to=", unsigned{received.subtype}) +
            id_text(received.destination) + " from=" + id_text(received.source);
    text += formatted(" vlan=%u%s length=%zu", received.tci & 0x0FFFU,
                      received.vlan_change_mode ? " (tag change mode)" : "", received.length);
    if (!received.fault.empty()) text += " FAULT: " + received.fault;
    return text;
}

}  // namespace cardsim
