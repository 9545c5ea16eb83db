// The blocks of a pcapng file, as bytes, in this host's byte order.
//
// libpcap reads such files but writes none; these are the few blocks that a capture consists of.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string>

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
std::string interface_block(const interface& of);
std::string packet_block(const packet& of);
std::string statistics_block(const statistics& of);

// How many of the first bytes are whole blocks.
std::size_t whole_blocks(const std::string& bytes, std::size_t first);

}  // namespace qnmctl::pcapng
