// floors.cpp - the receiving ends that the library is compared with.

#include "floors.h"

#include <poll.h>

#include <stdexcept>

#include "responder.h"

namespace bench {

namespace {

constexpr int k_snaplen = 1024;
constexpr int k_read_timeout_ms = 1000;
constexpr int k_buffer_size = 16 * 1024 * 1024;
constexpr int k_poll_ms = 100;
constexpr uint8_t k_only_tag = 0;
constexpr unsigned k_most_at_once = 256;
constexpr int k_patience = 20;  // polls without an answer before an asker gives up

bool is_of_protocol(const unsigned char* frame, const pcap_pkthdr& header) {
    return header.caplen >= sizeof(qnw_completion_s) &&
           qnm::be16(qnm::view<quillnet_header_s>(frame).type) == cardsim::default_ether_type;
}

pcap_t* open_immediate(const std::string& interface) {
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_t* const handle = pcap_create(interface.c_str(), error);
    if (handle == nullptr) throw std::runtime_error(error);
    pcap_set_snaplen(handle, k_snaplen);
    pcap_set_promisc(handle, 1);
    pcap_set_timeout(handle, k_read_timeout_ms);
    pcap_set_immediate_mode(handle, 1);
    pcap_set_buffer_size(handle, k_buffer_size);
    if (pcap_activate(handle) >= 0) return handle;
    const std::string reason = pcap_geterr(handle);
    pcap_close(handle);
    throw std::runtime_error(interface + ": " + reason);
}

}  // namespace

// ---- Capture -----------------------------------------------------------------------------------

capture::capture(const std::string& interface) : handle_(open_immediate(interface), pcap_close) {}

bool capture::poll() const {
    pollfd waiting = {pcap_get_selectable_fd(handle_.get()), POLLIN, 0};
    return ::poll(&waiting, 1, k_poll_ms) == 1;
}

const unsigned char* capture::next_frame() const {
    pcap_pkthdr* header = nullptr;
    const unsigned char* frame = nullptr;
    if (pcap_next_ex(handle_.get(), &header, &frame) != 1) return nullptr;
    return is_of_protocol(frame, *header) ? frame : nullptr;
}

const unsigned char* capture::poll_frame(uint8_t subtype) const {
    while (poll()) {
        const unsigned char* const frame = next_frame();
        if (frame != nullptr && qnm::view<quillnet_peb_s>(frame).subtype == subtype) return frame;
    }
    return nullptr;
}

void capture::send(const short_frame& frame) const {
    if (pcap_sendpacket(handle_.get(), frame.data(), frame.size()) != 0) {
        throw std::runtime_error(pcap_geterr(handle_.get()));
    }
}

void capture::set_nonblocking() const {
    char error[PCAP_ERRBUF_SIZE] = "";
    if (pcap_setnonblock(handle_.get(), 1, error) != 0) throw std::runtime_error(error);
}

// ---- Request and answer ------------------------------------------------------------------------

bool socket_asker::ask(uint64_t card, uint32_t address) const {
    std::array<uint8_t, 2048> buffer;
    socket_.send(read_request(card, k_only_tag, address));
    for (int n = 0; n < k_patience; n++) {
        if (socket_.receive(buffer) < static_cast<ssize_t>(sizeof(untagged_completion))) continue;
        const auto& answer = qnm::view<untagged_completion>(buffer.data()).comp;
        return qnm::host32(answer.data) == register_value(address);
    }
    return false;
}

bool capture_asker::ask(uint64_t card, uint32_t address) const {
    capture_.send(read_request(card, k_only_tag, address));
    for (int n = 0; n < k_patience; n++) {
        const unsigned char* const frame = capture_.poll_frame(qnm::k_completion);
        if (frame == nullptr) continue;
        const auto& answer = qnm::view<qnw_completion_s>(frame).comp;
        return qnm::host32(answer.data) == register_value(address);
    }
    return false;
}

two_thread_asker::two_thread_asker() : thread_([this] { run(); }) {}

two_thread_asker::~two_thread_asker() {
    stopped_ = true;
    thread_.join();
}

void two_thread_asker::run() {
    while (!stopped_) {
        const unsigned char* const frame = capture_.poll_frame(qnm::k_completion);
        if (frame != nullptr) take(qnm::view<qnw_completion_s>(frame).comp);
    }
}

void two_thread_asker::take(const qnet_com_comp_s& answer) {
    slot& pending = slots_[answer.tag];
    {
        const std::lock_guard lock(pending.mutex);
        if (!pending.armed) return;
        pending.armed = false;
        pending.has_answer = true;
        pending.data = qnm::host32(answer.data);
    }
    pending.answered.notify_one();
}

void two_thread_asker::arm(uint8_t tag) {
    const std::lock_guard lock(slots_[tag].mutex);
    slots_[tag].armed = true;
    slots_[tag].has_answer = false;
}

bool two_thread_asker::await(uint8_t tag, uint32_t* data) {
    slot& pending = slots_[tag];
    std::unique_lock lock(pending.mutex);
    const auto limit = std::chrono::milliseconds(k_patience * k_poll_ms);
    if (!pending.answered.wait_for(lock, limit, [&] { return pending.has_answer; })) return false;
    *data = pending.data;
    return true;
}

bool two_thread_asker::ask(uint64_t card, uint8_t tag, uint32_t address) {
    uint32_t data = 0;
    arm(tag);
    capture_.send(read_request(card, tag, address));
    return await(tag, &data) && data == register_value(address);
}

// ---- Taking in ---------------------------------------------------------------------------------

intake::intake(taker take)
    : thread_([this, take = std::move(take)] {
          while (!stopped_)
              taken_ += take();
      }) {}

intake::~intake() {
    stopped_ = true;
    thread_.join();
}

std::unique_ptr<intake> take_one_per_poll() {
    auto from = std::make_shared<capture>(k_floor_cable.near);
    return std::make_unique<intake>(
        [from]() -> unsigned { return from->poll() && from->next_frame() != nullptr ? 1 : 0; });
}

std::unique_ptr<intake> take_until_empty() {
    auto from = std::make_shared<capture>(k_floor_cable.near);
    from->set_nonblocking();
    return std::make_unique<intake>([from] {
        unsigned taken = 0;
        if (!from->poll()) return taken;
        while (taken < k_most_at_once && from->next_frame() != nullptr)
            taken++;
        return taken;
    });
}

std::unique_ptr<intake> take_from_socket() {
    auto from = std::make_shared<packet_socket>(k_floor_cable.near);
    return std::make_unique<intake>([from]() -> unsigned {
        std::array<uint8_t, 2048> buffer;
        return from->receive(buffer) > 0 ? 1 : 0;
    });
}

}  // namespace bench
