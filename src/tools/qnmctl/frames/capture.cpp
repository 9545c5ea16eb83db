// Writes frames from two libpcap handles into one file, block by block.
#include "frames/capture.h"

#include <fcntl.h>
#include <net/if.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>

#include "common/deadline.h"
#include "common/descriptor.h"
#include "common/descriptor_writer.h"
#include "frames/answers.h"
#include "frames/pcapng.h"
#include "manager/explain.h"
#include "output/text.h"
#include "system/interfaces.h"

namespace qnmctl {

namespace {

using clock = std::chrono::steady_clock;

constexpr int buffer_size = 16 * 1024 * 1024;
constexpr std::size_t frames_at_once = 256;  // of one port, then the other port is read
constexpr std::size_t bytes_at_once = std::size_t{64} * 1024;

// ---- The file -----------------------------------------------------------------------------------

// Writes blocks to a descriptor. When the disk is full, the file is cut back to whole blocks.
class block_file {
  public:
    block_file(std::string name, int signals) : signals_(signals), name_(std::move(name)) {}

    // What has been added before waits for it.
    void write_to(int fd) {
        fd_ = fd;
        to_.emplace(fd, signals_);
    }

    void add(const std::string& block) {
        waiting_ += block;
        size_ += block.size();
        if (waiting_.size() >= bytes_at_once) flush();
    }
    void flush();
    std::uint64_t size() const { return size_; }
    bool ended() const { return to_ && to_->ended() != tools::output_end::none; }
    bool signalled() const { return to_ && to_->ended() == tools::output_end::signalled; }
    std::string problem() const { return to_ ? tools::output_problem(*to_, name_) : ""; }

  private:
    void fail(std::size_t written, int code);

    int fd_ = -1;
    int signals_;
    std::string name_;
    std::optional<tools::descriptor_writer> to_ = std::nullopt;
    std::string waiting_ = {};
    std::uint64_t size_ = 0;
};

void block_file::fail(std::size_t written, int code) {
    const auto half = static_cast<off_t>(written - pcapng::whole_blocks(waiting_, written));
    const off_t end = lseek(fd_, 0, SEEK_CUR);
    // This may fail: readers recognise an incomplete last block.
    if (end >= half) [[maybe_unused]]
        const int ignored = ftruncate(fd_, end - half);
    if (fd_ == STDOUT_FILENO) return;  // told by its problem
    throw error("cannot write " + name_ + ": " + strerror(code) +
                (end > half ? "\nThe frames written before are there and can be read."
                            : "\nThe file is empty."));
}

void block_file::flush() {
    if (!to_) return;
    const std::size_t written = to_->write(waiting_);
    if (to_->ended() == tools::output_end::failed) fail(written, to_->code());
    waiting_.clear();
}

// ---- Ports --------------------------------------------------------------------------------------

struct closing_pcap {
    void operator()(pcap_t* handle) const { pcap_close(handle); }
};

struct port {
    std::unique_ptr<pcap_t, closing_pcap> handle = nullptr;
    std::uint64_t mac = 0;
    bool nanoseconds = false;
    std::uint32_t index = 0;  // in the file

    std::int64_t nanoseconds_of(const timeval& time) const {
        const std::int64_t unit = nanoseconds ? 1 : 1000;
        return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_usec * unit;
    }
    std::uint64_t file_time(std::int64_t time) const {
        return static_cast<std::uint64_t>(nanoseconds ? time : time / 1000);
    }
};

// Why it cannot be opened: an obstacle that can be seen from outside, else libpcap's message.
std::string open_problem(const std::string& interface, const char* said) {
    if (const auto known = port_problem(interface)) return *known;
    return "cannot open " + interface + ": " + said;
}

// The text says why it was not opened.
std::string open_port(const std::string& interface, int snaplen, port& result) {
    char said[PCAP_ERRBUF_SIZE] = "";
    result.handle.reset(pcap_create(interface.c_str(), said));
    pcap_t* const handle = result.handle.get();
    if (handle == nullptr) return open_problem(interface, said);
    pcap_set_snaplen(handle, snaplen);
    pcap_set_promisc(handle, 1);
    pcap_set_timeout(handle, 1);
    pcap_set_immediate_mode(handle, 1);
    pcap_set_buffer_size(handle, buffer_size);
    pcap_set_tstamp_precision(handle, PCAP_TSTAMP_PRECISION_NANO);  // else microseconds
    const int status = pcap_activate(handle);
    if (status < 0) {
        const std::string text = pcap_geterr(handle);
        result.handle.reset();
        return open_problem(interface, text.empty() ? pcap_statustostr(status) : text.c_str());
    }
    if (pcap_datalink(handle) != DLT_EN10MB) {
        result.handle.reset();
        return interface + " is no Ethernet interface";
    }
    pcap_setnonblock(handle, 1, said);
    result.nanoseconds = pcap_get_tstamp_precision(handle) == PCAP_TSTAMP_PRECISION_NANO;
    result.mac = read_interface(interface).mac.value_or(0);
    return {};
}

// ---- Capturing ----------------------------------------------------------------------------------

class capturing {
  public:
    capturing(const capture_options& how, block_file& to)
        : how_(how), to_(to), matched_(how.rules) {}

    void open();
    void run();
    void finish();
    const captured& counts() const { return counts_; }

  private:
    bool full() const;
    void warn(const std::string& problem) const {
        if (how_.warn) how_.warn(problem);
    }
    void take_frames(std::size_t number);
    void take(std::size_t number, const pcap_pkthdr& header, const std::uint8_t* bytes);
    void end_port(std::size_t number, const std::string& why);
    void finish_port(std::size_t number);

    const capture_options& how_;
    block_file& to_;
    answers matched_;
    std::vector<port> ports_ = {};
    captured counts_ = {};
    std::uint64_t frames_ = 0;
    std::int64_t started_ = 0;
};

std::int64_t now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string system_text() {
    utsname host{};
    if (uname(&host) != 0) return "Linux";
    return std::string(host.sysname) + ' ' + host.release;
}

void capturing::open() {
    to_.add(pcapng::section_block(system_text(), "qnmctl " QNMCTL_VERSION));
    std::vector<std::string> problems;
    std::uint32_t index = 0;
    for (const std::string& interface : how_.ports) {
        port& opened = ports_.emplace_back();
        captured_port& counts = counts_.ports.emplace_back(captured_port{.interface = interface});
        counts.problem = open_port(interface, how_.snaplen, opened);
        if (!counts.problem.empty()) {
            problems.push_back(counts.problem);
            continue;
        }
        opened.index = index++;
        to_.add(pcapng::interface_block({interface, "port " + std::to_string(ports_.size() - 1),
                                         DLT_EN10MB, static_cast<std::uint32_t>(how_.snaplen),
                                         opened.nanoseconds}));
    }
    if (index == 0) throw error(join(problems, "\n"));
    for (const std::string& problem : problems)
        warn(problem);
    started_ = now();
}

bool capturing::full() const {
    return (how_.count != 0 && frames_ >= how_.count) ||
           (how_.bytes != 0 && to_.size() >= how_.bytes) || to_.ended();
}

void capturing::take(std::size_t number, const pcap_pkthdr& header, const std::uint8_t* bytes) {
    const port& from = ports_[number];
    captured_port& counts = counts_.ports[number];
    const frame_bytes frame = {{bytes, header.caplen}, header.len};
    frame_reading read = read_frame(frame, how_.rules);
    const std::int64_t time = from.nanoseconds_of(header.ts);
    matched_.take(read, ++frames_, time);
    ++counts.frames;
    if (read.dropped) {
        ++counts.dropped;
        ++counts_.reasons[read.dropped->name];
    }
    const bool own = read.source == from.mac;
    to_.add(pcapng::packet_block({from.index, from.file_time(time), frame.captured, header.len,
                                  own ? pcapng::direction::outbound : pcapng::direction::inbound,
                                  read.dropped ? read.dropped->text : std::string()}));
}

// What it has counted goes with its handle.
void capturing::end_port(std::size_t number, const std::string& why) {
    finish_port(number);
    counts_.ports[number].problem = why;
    warn(why);
    ports_[number].handle.reset();
}

void capturing::take_frames(std::size_t number) {
    pcap_t* const handle = ports_[number].handle.get();
    for (std::size_t n = 0; n < frames_at_once && !full(); ++n) {
        pcap_pkthdr* header = nullptr;
        const std::uint8_t* bytes = nullptr;
        const int result = pcap_next_ex(handle, &header, &bytes);
        if (result == 0) return;
        if (result < 0) {
            return end_port(number, how_.ports[number] + " has ended: " + pcap_geterr(handle));
        }
        take(number, *header, bytes);
    }
}

void capturing::run() {
    to_.flush();
    const clock::time_point deadline = tools::deadline_after(how_.seconds);
    std::vector<pollfd> waited = {{how_.signals, POLLIN, 0}};
    for (const port& capture_port : ports_)
        waited.push_back(
            {capture_port.handle ? pcap_get_selectable_fd(capture_port.handle.get()) : -1, POLLIN,
             0});
    while (!full() && clock::now() < deadline) {
        if (poll(waited.data(), waited.size(), tools::milliseconds_until(deadline)) < 0) {
            if (errno == EINTR) continue;
            throw error(std::string("cannot wait: ") + strerror(errno));
        }
        if (waited.front().revents != 0) return;
        for (std::size_t number = 0; number < ports_.size(); ++number) {
            if (waited[number + 1].revents == 0) continue;
            take_frames(number);
            if (!ports_[number].handle) waited[number + 1].fd = -1;
        }
        to_.flush();
        const auto is_open = [](const port& capture_port) {
            return capture_port.handle != nullptr;
        };
        if (std::none_of(ports_.begin(), ports_.end(), is_open)) return;
    }
}

void capturing::finish_port(std::size_t number) {
    const port& capture_port = ports_[number];
    pcap_stat counted{};
    if (!capture_port.handle || pcap_stats(capture_port.handle.get(), &counted) != 0) return;
    counts_.ports[number].kernel_dropped = counted.ps_drop;
    to_.add(pcapng::statistics_block(
        {capture_port.index, capture_port.file_time(now()), capture_port.file_time(started_),
         capture_port.file_time(now()), counted.ps_recv, counted.ps_ifdrop, counted.ps_drop}));
}

void capturing::finish() {
    for (std::size_t number = 0; number < ports_.size(); ++number)
        finish_port(number);
    to_.flush();
    counts_.lost = to_.problem();
    counts_.signalled = to_.signalled();
}

// A FIFO can be opened only while it has a reader, so this tries from time to time. On failure
// nothing is open and errno is set, to EINTR if a signal came first.
tools::descriptor open_file(const std::string& name, int signals) {
    constexpr int pause_milliseconds = 50;
    constexpr int how = O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    std::error_code ignored;
    while (true) {
        tools::descriptor file(open(name.c_str(), how, 0666));
        if (file.fd >= 0 || errno != ENXIO || !std::filesystem::is_fifo(name, ignored)) return file;
        pollfd waited{signals, POLLIN, 0};
        if (poll(&waited, 1, pause_milliseconds) <= 0) continue;
        errno = EINTR;
        return {};
    }
}

// The result if a FIFO had no reader until a signal came.
captured unread(captured counts, const std::string& name) {
    counts.lost = "cannot write to " + name + ": ended by a signal before it had a reader";
    counts.signalled = true;
    return counts;
}

}  // namespace

captured capture_ports(const capture_options& how, int fd, const std::string& name) {
    block_file to(name, how.signals);
    capturing under_way(how, to);
    under_way.open();
    to.write_to(fd);
    under_way.run();
    under_way.finish();
    return under_way.counts();
}

captured capture_to_file(const capture_options& how, const std::string& name) {
    if (name == "-") return capture_ports(how, STDOUT_FILENO, "standard output");
    block_file to(name, how.signals);
    capturing under_way(how, to);
    under_way.open();  // an older file stays as it is where no port can be opened
    const tools::descriptor file = open_file(name, how.signals);
    const int code = file.fd < 0 ? errno : 0;
    if (code == EINTR) return unread(under_way.counts(), name);
    if (code != 0) throw error("cannot write " + name + ": " + strerror(code));
    to.write_to(file.fd);
    under_way.run();
    under_way.finish();
    // Some file systems tell only here that there was no room.
    if (fsync(file.fd) != 0 && errno != EINVAL && errno != EROFS) {
        throw error("cannot write " + name + ": " + strerror(errno));
    }
    return under_way.counts();
}

}  // namespace qnmctl
