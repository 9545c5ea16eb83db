// The blocks of a pcapng file.
//
// libpcap reads frames from such files, but writes none and tells nothing else of them. Here are
// the few blocks that a capture consists of, written in this host's byte order, and what there is
// to know of a block that any program has written, in either byte order.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace qnmctl::pcapng {

enum class direction : std::uint32_t { unknown = 0, inbound = 1, outbound = 2 };

struct interface {
    std::string name;
    std::string description;
    std::uint16_t link_type;
    std::uint32_t snaplen;
    bool nanoseconds;  // the resolution of its times, otherwise microseconds
};

struct packet {
    std::uint32_t interface;
    std::uint64_t time;  // since the epoch, in the interface's resolution
    std::span<const std::uint8_t> captured;
    std::uint32_t length;  // on the wire
    direction way;
    std::string comment;  // empty: none
};

struct statistics {
    std::uint32_t interface;
    std::uint64_t time;
    std::uint64_t start;
    std::uint64_t end;
    std::uint64_t received;
    std::uint64_t interface_dropped;
    std::uint64_t system_dropped;
};

std::string section_block(const std::string& system, const std::string& application);
std::string interface_block(const interface& port);
std::string packet_block(const packet& frame);
std::string statistics_block(const statistics& counts);

// How many of the first bytes are whole blocks.
std::size_t whole_blocks(const std::string& bytes, std::size_t first);

// ---- Reading ------------------------------------------------------------------------------------

enum class block_type : std::uint32_t {
    interface_description = 1,
    old_packet = 2,
    simple_packet = 3,
    interface_statistics = 5,
    enhanced_packet = 6,
    section_header = 0x0A0D0D0A,
};

// The byte order of a section.
struct byte_order {
    bool swapped = false;  // not this host's

    std::uint32_t number(std::string_view bytes) const;  // of at most four bytes
};

// Every block is at least this long, and its head can be told by as much of it.
inline constexpr std::size_t head_size = 12;

struct block_head {
    block_type type;  // may be any other
    std::uint32_t length;
    std::uint32_t interface = 0;  // of a packet: its number in the section
};

// Reads the first bytes of a block. A section header sets the byte order for itself and all that
// follows. Nothing when the bytes begin no block.
std::optional<block_head> read_head(std::string_view bytes, byte_order& order);

// What of a block is a frame, and what else can be text or numbers of any kind: offsets.
struct block_parts {
    std::size_t frame = 0;
    std::size_t frame_end = 0;
    std::size_t rest = 0;
    std::size_t rest_end = 0;
};

// Of a whole block; nothing when its numbers contradict its length.
std::optional<block_parts> parts_of(std::string_view block, const byte_order& order);

// The name in an interface description; empty when it has none.
std::string interface_name_of(std::string_view block, const byte_order& order);

}  // namespace qnmctl::pcapng
