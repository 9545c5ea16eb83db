// Replaces addresses in texts and in captures.
#include "report/mask.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "frames/pcapng.h"
#include "qnm_frame.h"
#include "report/spelling.h"

namespace qnmctl {

namespace {

// ---- Captures -----------------------------------------------------------------------------------

// The parts of all blocks, as offsets in the file. Nothing if it is not a capture or is damaged.
std::optional<std::vector<pcapng::block_parts>> read_blocks(std::string_view file) {
    std::vector<pcapng::block_parts> blocks;
    pcapng::byte_order order;
    for (std::size_t at = 0; at < file.size();) {
        const auto head = pcapng::read_head(file.substr(at), order);
        if (!head || head->length > file.size() - at) return std::nullopt;
        if (at == 0 && head->type != pcapng::block_type::section_header) return std::nullopt;
        const auto parts = pcapng::parts_of(file.substr(at, head->length), order);
        if (!parts) return std::nullopt;
        blocks.push_back({.frame = at + parts->frame,
                          .frame_end = at + parts->frame_end,
                          .rest = at + parts->rest,
                          .rest_end = at + parts->rest_end});
        at += head->length;
    }
    return blocks;
}

// The addresses that a frame is known to contain: in its header, and where a card announces
// another.
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

void known_addresses::learn_from_capture(std::string_view file) {
    for (const pcapng::block_parts& block :
         read_blocks(file).value_or(std::vector<pcapng::block_parts>{})) {
        const std::size_t length = block.frame_end - block.frame;
        for (const std::uint64_t address : addresses_in(file.substr(block.frame, length)))
            learn(address);
        learn_from_text(file.substr(block.rest, block.rest_end - block.rest));
    }
}

// ---- The mask -----------------------------------------------------------------------------------

// Pseudonyms are addresses that look invented; none of them is a known address.
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
    for (const pcapng::block_parts& block : *blocks) {
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
