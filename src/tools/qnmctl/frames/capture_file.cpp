// libpcap reads the frames; beside it, the blocks of a pcapng file are gone through once more.
#include "frames/capture_file.h"

#include <fcntl.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/end_signals.h"
#include "output/text.h"

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

constexpr std::size_t buffer_size = std::size_t{64} * 1024;
constexpr char what_it_takes[] = "\nIt has to be a capture, pcap or pcapng.";

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

// Reads on from where it stands; false at the end.
bool frame_interfaces::fill() {
    buffer_.resize(buffer_size);
    begin_ = at_;
    const ssize_t length = pread(fd_, buffer_.data(), buffer_.size(), static_cast<off_t>(at_));
    buffer_.resize(static_cast<std::size_t>(std::max<ssize_t>(0, length)));
    return length > 0;
}

bool frame_interfaces::read(char* bytes, std::size_t size) {
    while (size > 0) {
        const bool inside = at_ >= begin_ && at_ - begin_ < buffer_.size();
        if (!inside && !fill()) return false;
        const std::size_t start = static_cast<std::size_t>(at_ - begin_);
        const std::size_t part = std::min(size, buffer_.size() - start);
        std::memcpy(bytes, buffer_.data() + start, part);
        at_ += part;
        bytes += part;
        size -= part;
    }
    return true;
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
    while (fd_ >= 0 && read(head, sizeof head)) {
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
        at_ += std::uint64_t{length} - taken;
        if (type == interface_description) add_interface(body);
        if (type == enhanced_packet) return name_of(number(index, 4));
        if (type == old_packet) return name_of(number(index, 2));
        if (type == simple_packet) return name_of(0);
    }
    fd_ = -1;  // what follows makes no sense either
    return {};
}

// ---- Frames -------------------------------------------------------------------------------------

capture_descriptor::capture_descriptor(const std::string& name)
    : fd_(name == "-" ? STDIN_FILENO
                      : ::open(name.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)) {
    // Without O_NONBLOCK a FIFO would wait here for somebody who writes.
    if (fd_ < 0) throw error("cannot read " + name + ": " + std::strerror(errno) + what_it_takes);
}

capture_descriptor::~capture_descriptor() {
    if (fd_ != STDIN_FILENO) close(fd_);
}

bool capture_descriptor::is_regular() const {
    struct stat kind {};
    return fstat(fd_, &kind) == 0 && S_ISREG(kind.st_mode);
}

void capture_file::closing::operator()(pcap* handle) const {
    pcap_close(handle);
}

capture_file::capture_file(const std::string& name, int signals)
    : name_(name == "-" ? "standard input" : name),
      file_(name),
      source_{file_.fd(), signals},
      interfaces_(file_.fd() != STDIN_FILENO && file_.is_regular() ? file_.fd() : -1) {
    open();
    if (!handle_) return;
    const int link = pcap_datalink(handle_.get());
    if (link != DLT_EN10MB) {
        const char* const known = pcap_datalink_val_to_name(link);
        throw error(name_ + " has no Ethernet frames, but those of link type " +
                    (known != nullptr ? known : std::to_string(link)) +
                    "\nCapture on the ports themselves, not on \"any\".");
    }
}

// No handle when a signal came while its beginning was awaited.
void capture_file::open() {
    std::FILE* const stream = fopencookie(
        &source_, "r", {.read = read_some, .write = nullptr, .seek = nullptr, .close = nullptr});
    if (stream == nullptr) throw error("cannot read " + name_ + ": " + std::strerror(errno));
    char said[PCAP_ERRBUF_SIZE] = "";
    handle_.reset(
        pcap_fopen_offline_with_tstamp_precision(stream, PCAP_TSTAMP_PRECISION_NANO, said));
    if (handle_) return;  // which closes the stream
    std::fclose(stream);
    if (!is_signalled()) throw error("cannot read " + name_ + ": " + said + what_it_takes);
}

bool capture_file::is_signalled() const {
    return tools::is_end_signalled(source_.signals);
}

// A signal comes first: what never ends, and never has a whole frame, is ready all the time.
long capture_file::read_some(void* from, char* bytes, std::size_t size) {
    const auto& in = *static_cast<const source*>(from);
    while (!tools::is_end_signalled(in.signals) &&
           tools::wait_until_ready(in.fd, POLLIN, in.signals)) {
        const ssize_t length = ::read(in.fd, bytes, size);
        if (length >= 0 || (errno != EAGAIN && errno != EINTR)) return length;
    }
    errno = EINTR;
    return -1;
}

std::optional<captured_frame> capture_file::next() {
    if (!handle_) return std::nullopt;
    pcap_pkthdr* header = nullptr;
    const std::uint8_t* bytes = nullptr;
    const int result = pcap_next_ex(handle_.get(), &header, &bytes);
    if (result == PCAP_ERROR_BREAK) return std::nullopt;
    if (result != 1) {
        if (is_signalled()) return std::nullopt;
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
