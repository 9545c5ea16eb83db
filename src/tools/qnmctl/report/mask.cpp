// Replaces addresses in texts and in captures.
#include "report/mask.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <utility>

#include "qnm_frame.h"
#include "report/spelling.h"

namespace qnmctl {

namespace {

// ---- Captures -----------------------------------------------------------------------------------

// A block of pcapng: what of it is a frame, and the rest, which is names, comments and numbers.
struct capture_block {
    std::size_t frame = 0;  // offsets in the file
    std::size_t frame_end = 0;
    std::size_t rest = 0;
    std::size_t rest_end = 0;
};

enum block_type : std::uint32_t {
    interface_block = 1,
    simple_packet_block = 3,
    packet_block = 6,
    section_block = 0x0A0D0D0A,
};

constexpr std::size_t block_frame_size = 12;  // type, length, length once more
constexpr std::uint32_t byte_order_mark = 0x1A2B3C4D;

// Numbers in a file of this machine's byte order; a capture of another one is not of this program.
std::uint32_t number_at(std::string_view file, std::size_t at) {
    std::uint32_t value = 0;
    std::memcpy(&value, file.data() + at, sizeof value);
    return value;
}

// How many bytes a block has in front of what could hold an address.
std::size_t fixed_size(std::uint32_t type) {
    switch (type) {
        case section_block:
            return 24;
        case interface_block:
            return 16;
        case simple_packet_block:
            return 12;
        case packet_block:
            return 28;
        default:
            return 8;
    }
}

std::optional<capture_block> read_block(std::string_view file, std::size_t at, std::size_t length) {
    const std::uint32_t type = number_at(file, at);
    const std::size_t fixed = fixed_size(type);
    const std::size_t end = at + length - sizeof(std::uint32_t);
    if (at + fixed > end) return std::nullopt;
    if (type == section_block && number_at(file, at + 8) != byte_order_mark) return std::nullopt;
    capture_block block{.rest = at + fixed, .rest_end = end};
    if (type == simple_packet_block) {
        block = {.frame = at + fixed, .frame_end = end, .rest = end, .rest_end = end};
    }
    if (type == packet_block) {
        const std::size_t captured = number_at(file, at + 20);
        if (captured > end - block.rest) return std::nullopt;
        block.frame = block.rest;
        block.frame_end = block.frame + captured;
        block.rest = std::min(end, block.frame + (captured + 3) / 4 * 4);
    }
    return block;
}

// Nothing when it is no capture, or a damaged one.
std::optional<std::vector<capture_block>> read_blocks(std::string_view file) {
    std::vector<capture_block> blocks;
    for (std::size_t at = 0; at < file.size();) {
        if (file.size() - at < block_frame_size) return std::nullopt;
        if (at == 0 && number_at(file, at) != section_block) return std::nullopt;
        const std::size_t length = number_at(file, at + 4);
        if (length < block_frame_size || length % 4 != 0 || length > file.size() - at)
            return std::nullopt;
        const auto block = read_block(file, at, length);
        if (!block) return std::nullopt;
        blocks.push_back(*block);
        at += length;
    }
    return blocks;
}

// The addresses that a frame is known to have: in its header, and where a card announces another.
std::vector<std::uint64_t> addresses_in(std::string_view frame) {
    std::vector<std::uint64_t> found;
    const auto add = [&](std::size_t at) {
        if (at + address_bytes <= frame.size()) found.push_back(address_of(frame.substr(at)));
    };
    add(0);
    add(address_bytes);
    if (frame.size() < qnm::k_min_recv_size) return found;
    const auto subtype = static_cast<std::uint8_t>(frame[offsetof(qnw_devinfo_com_s, com.subtype)]);
    const bool announces = subtype == qnm::k_devinfo || subtype == qnm::k_notify ||
                           subtype == qnm::k_devinfo_40g || subtype == qnm::k_notify_40g;
    if (!announces) return found;
    if (frame[offsetof(qnw_devinfo_com_s, com.host)] == qnm::k_host_qnio) {
        add(offsetof(qnw_devinfo_io_s, devinfo_srv.ser_mac));
        return found;
    }
    for (std::size_t at = offsetof(qnw_devinfo_server_s, down_port); at < frame.size();
         at += sizeof(qnet_down_port_s))
        add(at + offsetof(qnet_down_port_s, io_mac));
    return found;
}

}  // namespace

// ---- What is known ------------------------------------------------------------------------------

void known_addresses::learn(std::uint64_t address) {
    if (is_single_address(address) && pairs_.insert(address >> 1).second) {
        order_.push_back(address & ~std::uint64_t{1});
    }
}

void known_addresses::learn_from_text(std::string_view text) {
    const is_known none = [](std::uint64_t) { return false; };
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (const auto found = spelling_at(text, at, none)) learn(found->address);
    }
}

void known_addresses::learn_from_capture(std::string_view pcapng) {
    for (const capture_block& block : read_blocks(pcapng).value_or(std::vector<capture_block>{})) {
        const std::size_t length = block.frame_end - block.frame;
        for (const std::uint64_t address : addresses_in(pcapng.substr(block.frame, length)))
            learn(address);
        learn_from_text(pcapng.substr(block.rest, block.rest_end - block.rest));
    }
}

// ---- The mask -----------------------------------------------------------------------------------

// The pseudonyms are addresses that look made up, none of which is a known one.
id_mask::id_mask(known_addresses known) : known_(std::move(known)) {
    constexpr std::uint64_t first = 0xFAFAFA000002;
    std::uint64_t next = first;
    for (const std::uint64_t address : known_.in_order()) {
        while (known_.has(next))
            next += 2;
        pseudonyms_[address >> 1] = next;
        next += 2;
    }
}

std::uint64_t id_mask::pseudonym(std::uint64_t address) const {
    return pseudonyms_.at(address >> 1) | (address & 1);
}

std::string id_mask::text(std::string_view clear) const {
    const is_known known = [this](std::uint64_t address) { return known_.has(address); };
    std::string masked;
    for (std::size_t at = 0; at < clear.size();) {
        const auto found = spelling_at(clear, at, known);
        if (!found || !known_.has(found->address)) {
            masked += clear[at++];
            continue;
        }
        masked += respelt(*found, clear.substr(at, found->length), pseudonym(found->address));
        at += found->length;
    }
    return masked;
}

void id_mask::replace_bytes(std::string& in, std::size_t from, std::size_t to) const {
    for (std::size_t at = from; at + address_bytes <= to;) {
        const std::uint64_t there = address_of(std::string_view(in).substr(at));
        const bool forwards = known_.has(there);
        if (!forwards && !known_.has(reversed_bytes(there))) {
            ++at;
            continue;
        }
        const std::uint64_t other =
            forwards ? pseudonym(there) : reversed_bytes(pseudonym(reversed_bytes(there)));
        for (std::size_t i = 0; i < address_bytes; ++i)
            in[at + i] = static_cast<char>(other >> (8 * (address_bytes - 1 - i)));
        at += address_bytes;
    }
}

std::optional<std::string> id_mask::capture(std::string_view clear) const {
    const auto blocks = read_blocks(clear);
    if (!blocks) return std::nullopt;
    std::string masked(clear);
    for (const capture_block& block : *blocks) {
        replace_bytes(masked, block.frame, block.frame_end);
        replace_bytes(masked, block.rest, block.rest_end);
        const std::size_t length = block.rest_end - block.rest;
        const std::string rest = text(std::string_view(masked).substr(block.rest, length));
        if (rest.size() != length) return std::nullopt;
        masked.replace(block.rest, length, rest);
    }
    return masked;
}

bool id_mask::shows_in(std::string_view bytes) const {
    const is_known known = [this](std::uint64_t address) { return known_.has(address); };
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        const auto found = spelling_at(bytes, at, known);
        if (found && known_.has(found->address)) return true;
        if (at + address_bytes > bytes.size()) continue;
        const std::uint64_t there = address_of(bytes.substr(at));
        if (known_.has(there) || known_.has(reversed_bytes(there))) return true;
    }
    return false;
}

}  // namespace qnmctl
