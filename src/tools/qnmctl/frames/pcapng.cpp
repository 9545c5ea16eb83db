// Blocks and their options, padded to words of 32 bits.
#include "frames/pcapng.h"

#include <algorithm>
#include <cstring>

namespace qnmctl::pcapng {

namespace {

enum block_type : std::uint32_t {
    section_header = 0x0A0D0D0A,
    interface_description = 1,
    interface_statistics = 5,
    enhanced_packet = 6,
};

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
constexpr std::size_t length_at = 4;  // of a block

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
    constexpr std::size_t frame = 12;  // type and, at both ends, length
    const auto length = static_cast<std::uint32_t>(body.size() + frame);
    std::string made;
    made.reserve(length);
    put(made, static_cast<std::uint32_t>(type));
    put(made, length);
    made += body;
    put(made, length);
    return made;
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
    return block(section_header, body);
}

std::string interface_block(const interface& of) {
    constexpr std::uint16_t reserved = 0;
    std::string body;
    put(body, of.link_type);
    put(body, reserved);
    put(body, of.snaplen);
    put_option(body, interface_name, of.name);
    put_option(body, interface_text, of.description);
    // As the power of ten below one.
    put_number(body, interface_resolution, static_cast<std::uint8_t>(of.nanoseconds ? 9 : 6));
    put_option(body, end_of_options, "");
    return block(interface_description, body);
}

std::string packet_block(const packet& of) {
    std::string body;
    put(body, of.interface);
    put_time(body, of.time);
    put(body, static_cast<std::uint32_t>(of.captured.size()));
    put(body, of.length);
    body.append(reinterpret_cast<const char*>(of.captured.data()), of.captured.size());
    pad(body);
    if (!of.comment.empty()) put_option(body, comment, of.comment);
    put_number(body, packet_flags, static_cast<std::uint32_t>(of.way));
    put_option(body, end_of_options, "");
    return block(enhanced_packet, body);
}

std::string statistics_block(const statistics& of) {
    std::string body;
    put(body, of.interface);
    put_time(body, of.time);
    put_time(body, statistics_start, of.start);
    put_time(body, statistics_end, of.end);
    put_number(body, statistics_received, of.received);
    put_number(body, statistics_interface_dropped, of.interface_dropped);
    put_number(body, statistics_system_dropped, of.system_dropped);
    put_option(body, end_of_options, "");
    return block(interface_statistics, body);
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

}  // namespace qnmctl::pcapng
