// libpcap reads the frames; the blocks of a pcapng file are read a second time for interface names.
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

constexpr std::size_t longest_description = std::size_t{64} * 1024;
constexpr std::size_t buffer_size = std::size_t{64} * 1024;
constexpr char what_it_takes[] = "\nIt has to be a capture, pcap or pcapng.";

// Differences of any two of them are in range, too.
constexpr std::int64_t last_second = 4'500'000'000;

// Without O_NONBLOCK a FIFO would wait here for somebody who writes.
tools::descriptor open_to_read(const std::string& name) {
    tools::descriptor file(open(name.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (file.fd < 0) {
        throw error("cannot read " + name + ": " + std::strerror(errno) + what_it_takes);
    }
    return file;
}

bool is_regular(const tools::descriptor& file) {
    struct stat kind {};
    return fstat(file.fd, &kind) == 0 && S_ISREG(kind.st_mode);
}

}  // namespace

// ---- Interfaces ---------------------------------------------------------------------------------

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

// Reads the rest of an interface description; false where it makes no sense.
bool frame_interfaces::add_interface(const char* head, std::size_t length) {
    if (length > longest_description) return false;
    std::string block(length, '\0');
    std::memcpy(block.data(), head, pcapng::head_size);
    if (!read(block.data() + pcapng::head_size, length - pcapng::head_size)) return false;
    names_.push_back(pcapng::interface_name_of(block, order_));
    return true;
}

std::string frame_interfaces::name_of(std::uint32_t index) const {
    return index < names_.size() ? names_[index] : std::string();
}

std::string frame_interfaces::next() {
    using pcapng::block_type;
    char bytes[pcapng::head_size];
    while (fd_ >= 0 && read(bytes, sizeof bytes)) {
        const auto head = pcapng::read_head({bytes, sizeof bytes}, order_);
        if (!head) break;
        const std::uint64_t begin = at_ - sizeof bytes;
        const std::uint64_t end = begin + head->length;
        if (begin == 0 && head->type != block_type::section_header) break;
        if (head->type == block_type::section_header) {
            names_.clear();
        } else if (head->type == block_type::interface_description) {
            if (!add_interface(bytes, head->length)) break;
        }
        at_ = end;
        const bool is_packet = head->type == block_type::enhanced_packet ||
                               head->type == block_type::old_packet ||
                               head->type == block_type::simple_packet;
        if (is_packet) return name_of(head->interface);
    }
    fd_ = -1;  // what follows makes no sense either
    return {};
}

// ---- Frames -------------------------------------------------------------------------------------

void capture_file::closing::operator()(pcap* handle) const {
    pcap_close(handle);
}

capture_file::capture_file(const std::string& name, int signals)
    : name_(name == "-" ? "standard input" : name),
      file_(name == "-" ? tools::descriptor() : open_to_read(name)),
      source_{name == "-" ? STDIN_FILENO : file_.fd, signals},
      interfaces_(is_regular(file_) ? file_.fd : -1) {
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

// No handle if a signal came before the file's header.
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

// Signals are checked first: an endless input without a complete frame would always be ready.
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
