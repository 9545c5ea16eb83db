// libpcap reads the frames; beside it, the blocks of a pcapng file are gone through once more.
#include "capture_file.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <cstring>

#include "text.h"

namespace qnmctl {

namespace {

constexpr std::uint32_t section_header = 0x0A0D0D0A;
constexpr std::uint32_t interface_description = 1;
constexpr std::uint32_t old_packet = 2;
constexpr std::uint32_t simple_packet = 3;
constexpr std::uint32_t enhanced_packet = 6;
constexpr std::uint32_t byte_order_magic = 0x1A2B3C4D;

constexpr std::size_t head_size = 8;  // type and length of a block
constexpr std::uint32_t least_block = 12;
constexpr std::uint32_t longest_description = 64 * 1024;
constexpr std::size_t options_at = 8;  // of an interface description
constexpr std::uint32_t name_option = 2;

// Differences of any two of them are in range, too.
constexpr std::int64_t last_second = 4'500'000'000;

}  // namespace

// ---- Interfaces ---------------------------------------------------------------------------------

std::uint32_t frame_interfaces::number(const char* bytes, std::size_t size) const {
    std::uint32_t value = 0;
    for (std::size_t n = 0; n < size; ++n) {
        const std::size_t at = swapped_ ? n : size - 1 - n;
        value = value << 8 | static_cast<unsigned char>(bytes[at]);
    }
    return value;
}

bool frame_interfaces::read(char* bytes, std::size_t size) {
    return static_cast<bool>(file_.read(bytes, static_cast<std::streamsize>(size)));
}

// The byte order is that of the section; so its length is read by it again.
bool frame_interfaces::start_section(std::uint32_t& length) {
    char magic[4];
    char bytes[4];
    std::memcpy(bytes, &length, sizeof bytes);
    if (!read(magic, sizeof magic)) return false;
    swapped_ = false;
    if (number(magic, sizeof magic) != byte_order_magic) swapped_ = true;
    if (number(magic, sizeof magic) != byte_order_magic) return false;
    length = number(bytes, sizeof bytes);
    names_.clear();
    return true;
}

void frame_interfaces::add_interface(const std::string& body) {
    std::string& name = names_.emplace_back();
    for (std::size_t at = options_at; at + 4 <= body.size();) {
        const std::uint32_t code = number(body.data() + at, 2);
        const std::size_t size = number(body.data() + at + 2, 2);
        if (at + 4 + size > body.size()) return;
        if (code == name_option) name = body.substr(at + 4, size);
        at += 4 + (size + 3) / 4 * 4;
    }
}

std::string frame_interfaces::name_of(std::uint32_t index) const {
    return index < names_.size() ? names_[index] : std::string();
}

std::string frame_interfaces::next() {
    char head[head_size];
    while (read(head, sizeof head)) {
        const std::uint32_t type = number(head, 4);
        std::uint32_t length = number(head + 4, 4);
        std::uint32_t taken = head_size;
        if (type == section_header) {
            std::memcpy(&length, head + 4, sizeof length);
            if (!start_section(length)) break;
            taken += 4;
        }
        if (names_.empty() && type != section_header && type != interface_description) break;
        if (length < least_block || length % 4 != 0) break;
        std::string body(type == interface_description ? length - least_block : 0, '\0');
        char index[4] = {};
        if (body.size() > longest_description || !read(body.data(), body.size())) break;
        taken += static_cast<std::uint32_t>(body.size());
        const bool has_index = type == enhanced_packet || type == old_packet;
        if (has_index && length >= least_block + sizeof index) {
            if (!read(index, sizeof index)) break;
            taken += sizeof index;
        }
        file_.seekg(static_cast<std::streamoff>(length) - taken, std::ios::cur);
        if (type == interface_description) add_interface(body);
        if (type == enhanced_packet) return name_of(number(index, 4));
        if (type == old_packet) return name_of(number(index, 2));
        if (type == simple_packet) return name_of(0);
    }
    file_.setstate(std::ios::failbit);  // what follows makes no sense either
    return {};
}

// ---- Frames -------------------------------------------------------------------------------------

void capture_file::closing::operator()(pcap* handle) const {
    pcap_close(handle);
}

capture_file::capture_file(const std::string& name)
    : name_(name == "-" ? "standard input" : name), interfaces_(name == "-" ? "" : name) {
    char said[PCAP_ERRBUF_SIZE] = "";
    handle_.reset(
        pcap_open_offline_with_tstamp_precision(name.c_str(), PCAP_TSTAMP_PRECISION_NANO, said));
    if (!handle_) {
        const std::string text = said;
        const bool named = text.starts_with(name);
        throw error("cannot read " + (named ? text : name_ + ": " + text) +
                    "\nIt has to be a capture, pcap or pcapng.");
    }
    const int link = pcap_datalink(handle_.get());
    if (link != DLT_EN10MB) {
        const char* const known = pcap_datalink_val_to_name(link);
        throw error(name_ + " has no Ethernet frames, but those of link type " +
                    (known != nullptr ? known : std::to_string(link)) +
                    "\nCapture on the ports themselves, not on \"any\".");
    }
}

std::optional<captured_frame> capture_file::next() {
    pcap_pkthdr* header = nullptr;
    const std::uint8_t* bytes = nullptr;
    const int result = pcap_next_ex(handle_.get(), &header, &bytes);
    if (result == PCAP_ERROR_BREAK) return std::nullopt;
    if (result != 1) {
        throw error(name_ + " cannot be read behind frame " + std::to_string(number_) + ": " +
                    pcap_geterr(handle_.get()));
    }
    const std::int64_t seconds =
        std::clamp<std::int64_t>(header->ts.tv_sec, -last_second, last_second);
    const std::int64_t part = std::clamp<std::int64_t>(header->ts.tv_usec, 0, 999'999'999);
    return captured_frame{.number = ++number_,
                          .nanoseconds = seconds * 1'000'000'000 + part,
                          .interface = interfaces_.next(),
                          .bytes = {{bytes, header->caplen}, header->len}};
}

}  // namespace qnmctl
