// Blocks and their options are padded to words of 32 bits.
#include "frames/pcapng.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace qnmctl::pcapng {

namespace {

enum option_code : std::uint16_t {
    end_of_options = 0,
    comment = 1,
    section_system = 3,
    section_application = 4,
    interface_name = 2,
    interface_text = 3,
    interface_resolution = 9,
    packet_flags = 2,
    statistics_start = 2,
    statistics_end = 3,
    statistics_received = 4,
    statistics_interface_dropped = 5,
    statistics_system_dropped = 7,
};

constexpr std::uint32_t byte_order_magic = 0x1A2B3C4D;
constexpr std::size_t longest_option = 0xFFFF;
// Offsets in a block.
constexpr std::size_t length_at = 4;
constexpr std::size_t magic_at = 8;      // of a section header
constexpr std::size_t interface_at = 8;  // of a packet
constexpr std::size_t captured_at = 20;  // likewise, but for a simple one
constexpr std::size_t options_at = 16;   // of an interface description

template <class Number>
void put(std::string& to, Number value) {
    char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    to.append(bytes, sizeof value);
}

void pad(std::string& to) {
    to.resize((to.size() + 3) / 4 * 4);
}

void put_option(std::string& to, option_code code, const std::string& value) {
    const std::size_t length = std::min(value.size(), longest_option);
    put(to, static_cast<std::uint16_t>(code));
    put(to, static_cast<std::uint16_t>(length));
    to.append(value, 0, length);
    pad(to);
}

template <class Number>
void put_number(std::string& to, option_code code, Number value) {
    std::string bytes;
    put(bytes, value);
    put_option(to, code, bytes);
}

// Times are written as two halves, the upper one first.
void put_time(std::string& to, std::uint64_t time) {
    put(to, static_cast<std::uint32_t>(time >> 32));
    put(to, static_cast<std::uint32_t>(time));
}

void put_time(std::string& to, option_code code, std::uint64_t time) {
    std::string bytes;
    put_time(bytes, time);
    put_option(to, code, bytes);
}

std::string block(block_type type, const std::string& body) {
    // Around the body stand its type and, at both ends, the length.
    const auto length = static_cast<std::uint32_t>(body.size() + head_size);
    std::string result;
    result.reserve(length);
    put(result, static_cast<std::uint32_t>(type));
    put(result, length);
    result += body;
    put(result, length);
    return result;
}

}  // namespace

std::string section_block(const std::string& system, const std::string& application) {
    constexpr std::uint16_t major = 1, minor = 0;
    constexpr std::uint64_t unknown_length = UINT64_MAX;
    std::string body;
    put(body, byte_order_magic);
    put(body, major);
    put(body, minor);
    put(body, unknown_length);
    put_option(body, section_system, system);
    put_option(body, section_application, application);
    put_option(body, end_of_options, "");
    return block(block_type::section_header, body);
}

std::string interface_block(const interface& port) {
    constexpr std::uint16_t reserved = 0;
    std::string body;
    put(body, port.link_type);
    put(body, reserved);
    put(body, port.snaplen);
    put_option(body, interface_name, port.name);
    put_option(body, interface_text, port.description);
    // As the power of ten below one.
    put_number(body, interface_resolution, static_cast<std::uint8_t>(port.nanoseconds ? 9 : 6));
    put_option(body, end_of_options, "");
    return block(block_type::interface_description, body);
}

std::string packet_block(const packet& frame) {
    std::string body;
    put(body, frame.interface);
    put_time(body, frame.time);
    put(body, static_cast<std::uint32_t>(frame.captured.size()));
    put(body, frame.length);
    body.append(reinterpret_cast<const char*>(frame.captured.data()), frame.captured.size());
    pad(body);
    if (!frame.comment.empty()) put_option(body, comment, frame.comment);
    put_number(body, packet_flags, static_cast<std::uint32_t>(frame.way));
    put_option(body, end_of_options, "");
    return block(block_type::enhanced_packet, body);
}

std::string statistics_block(const statistics& counts) {
    std::string body;
    put(body, counts.interface);
    put_time(body, counts.time);
    put_time(body, statistics_start, counts.start);
    put_time(body, statistics_end, counts.end);
    put_number(body, statistics_received, counts.received);
    put_number(body, statistics_interface_dropped, counts.interface_dropped);
    put_number(body, statistics_system_dropped, counts.system_dropped);
    put_option(body, end_of_options, "");
    return block(block_type::interface_statistics, body);
}

std::size_t whole_blocks(const std::string& bytes, std::size_t first) {
    std::size_t whole = 0;
    while (whole + length_at + sizeof(std::uint32_t) <= first) {
        std::uint32_t length = 0;
        std::memcpy(&length, bytes.data() + whole + length_at, sizeof length);
        if (whole + length > first) break;
        whole += length;
    }
    return whole;
}

// ---- Reading ------------------------------------------------------------------------------------

namespace {

std::string_view word_at(std::string_view block, std::size_t at) {
    return block.substr(at, sizeof(std::uint32_t));
}

// How many bytes of a block come before what can be text or a frame.
std::size_t fixed_size(block_type type) {
    switch (type) {
        case block_type::section_header:
            return 24;
        case block_type::interface_description:
            return options_at;
        case block_type::simple_packet:
            return 12;
        case block_type::old_packet:
        case block_type::enhanced_packet:
            return 28;
        default:
            return 8;
    }
}

bool has_captured_length(block_type type) {
    return type == block_type::enhanced_packet || type == block_type::old_packet;
}

// False when it begins no section.
bool set_byte_order(std::string_view head, byte_order& order) {
    for (const bool swapped : {false, true}) {
        order.swapped = swapped;
        if (order.number(word_at(head, magic_at)) == byte_order_magic) return true;
    }
    return false;
}

}  // namespace

std::uint32_t byte_order::number(std::string_view bytes) const {
    static_assert(std::endian::native == std::endian::little);
    std::uint32_t value = 0;
    for (std::size_t n = 0; n < bytes.size(); ++n) {
        const std::size_t at = swapped ? n : bytes.size() - 1 - n;
        value = value << 8 | static_cast<unsigned char>(bytes[at]);
    }
    return value;
}

std::optional<block_head> read_head(std::string_view bytes, byte_order& order) {
    if (bytes.size() < head_size) return std::nullopt;
    block_head head{};
    head.type = static_cast<block_type>(order.number(bytes.substr(0, 4)));
    // The type of a section header reads the same in both orders.
    if (head.type == block_type::section_header && !set_byte_order(bytes, order)) {
        return std::nullopt;
    }
    head.length = order.number(word_at(bytes, length_at));
    if (head.length < head_size || head.length % 4 != 0) return std::nullopt;
    if (head.type == block_type::enhanced_packet) {
        head.interface = order.number(word_at(bytes, interface_at));
    }
    if (head.type == block_type::old_packet) {
        head.interface = order.number(bytes.substr(interface_at, 2));
    }
    return head;
}

std::optional<block_parts> parts_of(std::string_view block, const byte_order& order) {
    if (block.size() < head_size) return std::nullopt;
    const auto type = static_cast<block_type>(order.number(block.substr(0, 4)));
    const std::size_t fixed = fixed_size(type);
    const std::size_t end = block.size() - sizeof(std::uint32_t);
    if (fixed > end) return std::nullopt;
    if (type == block_type::simple_packet) {
        return block_parts{.frame = fixed, .frame_end = end, .rest = end, .rest_end = end};
    }
    if (!has_captured_length(type)) return block_parts{.rest = fixed, .rest_end = end};
    const std::size_t captured = order.number(word_at(block, captured_at));
    if (captured > end - fixed) return std::nullopt;
    return block_parts{.frame = fixed,
                       .frame_end = fixed + captured,
                       .rest = std::min(end, fixed + (captured + 3) / 4 * 4),
                       .rest_end = end};
}

std::string interface_name_of(std::string_view block, const byte_order& order) {
    std::string name;
    const std::size_t end = block.size() - std::min(block.size(), sizeof(std::uint32_t));
    for (std::size_t at = options_at; at + 4 <= end;) {
        const std::uint32_t code = order.number(block.substr(at, 2));
        const std::size_t size = order.number(block.substr(at + 2, 2));
        if (at + 4 + size > end) break;
        if (code == interface_name) name = block.substr(at + 4, size);
        at += 4 + (size + 3) / 4 * 4;
    }
    return name;
}

}  // namespace qnmctl::pcapng
