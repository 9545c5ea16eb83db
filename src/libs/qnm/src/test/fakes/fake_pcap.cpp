// fake_pcap.cpp - a strict stand-in for libpcap; see fake_pcap.h.

#include "fake_pcap.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <stdexcept>

#include "fake_pcap_handle.h"
#include "wait.h"

namespace fake_pcap {
namespace {

struct registry_t {
    std::mutex mutex;  // guards all below and the port fields that send_mutex does not
    std::map<std::string, std::unique_ptr<port_t>> ports;
    std::vector<std::unique_ptr<pcap_t>> handles;
    std::vector<open_call> open_calls;
    std::vector<std::string> close_calls;
};

std::atomic<std::size_t> g_frame_offset = 0;

registry_t& registry() {
    static registry_t the_registry;
    return the_registry;
}

// The functions in this group need the registry mutex.

port_t& port_of(registry_t& reg, const std::string& name) {
    std::unique_ptr<port_t>& port = reg.ports[name];
    if (port == nullptr) {
        port = std::make_unique<port_t>();
        port->name = name;
    }
    return *port;
}

bool is_open(const pcap_t& handle) {
    return handle.state == handle_state::open;
}

pcap_t* newest_open(registry_t& reg, const std::string& name) {
    const auto found = std::find_if(
        reg.handles.rbegin(), reg.handles.rend(),
        [&](const auto& handle) { return handle->port->name == name && is_open(*handle); });
    return found == reg.handles.rend() ? nullptr : found->get();
}

// Needs the handle's queue mutex: makes the selectable descriptor readable or not.
void set_readable(pcap_t& handle, bool readable) {
    std::uint64_t count = 1;
    const ssize_t done = readable ? write(handle.selectable_fd, &count, sizeof count)
                                  : read(handle.selectable_fd, &count, sizeof count);
    if (done != sizeof count) throw std::logic_error("fake_pcap: eventfd out of step");
}

void push(const std::string& name, arrival_t arrival) {
    registry_t& reg = registry();
    const std::lock_guard lock(reg.mutex);
    pcap_t* handle = newest_open(reg, name);
    if (handle == nullptr) throw std::logic_error("fake_pcap: not open: " + name);
    const std::lock_guard queue_lock(handle->queue_mutex);
    if (handle->queue.empty()) set_readable(*handle, true);
    handle->queue.push_back(std::move(arrival));
}

std::unique_ptr<captured_t> capture(const arrival_t& arrival, int snaplen) {
    const std::size_t caplen = std::min(arrival.frame.size(), static_cast<std::size_t>(snaplen));
    auto captured = std::make_unique<captured_t>();
    gettimeofday(&captured->header.ts, nullptr);
    captured->header.caplen = static_cast<bpf_u_int32>(caplen);
    captured->header.len = arrival.wire_len;
    const std::size_t offset = g_frame_offset;
    captured->block.reset(new u_char[offset + caplen]);
    std::copy_n(arrival.frame.begin(), caplen, captured->block.get() + offset);
    captured->data = captured->block.get() + offset;
    return captured;
}

// Needs the send mutex: whether the failure ordered for this send is due.
bool send_fails(port_t& port) {
    if (port.sends_until_failure == 0) return false;
    if (port.sends_until_failure > 1) {
        port.sends_until_failure--;
        return false;
    }
    if (!port.failure_lasts) port.sends_until_failure = 0;
    errno = port.send_error;
    return true;
}

void close_descriptors(const pcap_t& handle) {
    close(handle.fileno);
    close(handle.selectable_fd);
}

}  // namespace

// ---- For both halves of the fake ----------------------------------------------------------------

pcap_t* make_handle(const std::string& name) {
    registry_t& reg = registry();
    const std::lock_guard lock(reg.mutex);
    reg.handles.push_back(std::make_unique<pcap_t>());
    reg.handles.back()->port = &port_of(reg, name);
    return reg.handles.back().get();
}

void activate(pcap_t* handle, int snaplen) {
    const std::lock_guard lock(registry().mutex);
    handle->snaplen = snaplen;
    handle->fileno = eventfd(0, EFD_CLOEXEC);
    handle->selectable_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (handle->fileno < 0 || handle->selectable_fd < 0) {
        throw std::runtime_error("fake_pcap: no eventfd");
    }
    handle->state = handle_state::open;
}

pcap_t* checked(pcap_t* handle, handle_state state, const char* caller) {
    if (handle != nullptr && handle->state == state) return handle;
    ADD_FAILURE() << caller << ": "
                  << (handle == nullptr ? "null handle" : "handle is not in a state for this call");
    return nullptr;
}

// ---- The test's side ----------------------------------------------------------------------------

void reset() {
    registry_t& reg = registry();
    const std::lock_guard lock(reg.mutex);
    for (const auto& handle : reg.handles) {
        if (is_open(*handle)) close_descriptors(*handle);
    }
    reg.handles.clear();
    reg.ports.clear();
    reg.open_calls.clear();
    reg.close_calls.clear();
    g_frame_offset = 0;
}

void set_frame_offset(std::size_t offset) {
    g_frame_offset = offset;
}

void push_frame(const std::string& name, std::span<const std::uint8_t> frame,
                std::optional<std::uint32_t> wire_len) {
    const auto length = static_cast<std::uint32_t>(frame.size());
    if (wire_len.value_or(length) < length) throw std::logic_error("fake_pcap: wire_len too small");
    push(name, {1, frame_t(frame.begin(), frame.end()), wire_len.value_or(length)});
}

void push_result(const std::string& name, int result) {
    if (result == 1) throw std::logic_error("fake_pcap: result 1 needs a frame");
    push(name, {result, {}, 0});
}

std::size_t queued(const std::string& name) {
    registry_t& reg = registry();
    const std::lock_guard lock(reg.mutex);
    pcap_t* handle = newest_open(reg, name);
    if (handle == nullptr) throw std::logic_error("fake_pcap: not open: " + name);
    const std::lock_guard queue_lock(handle->queue_mutex);
    return handle->queue.size();
}

bool wait_drained(const std::string& name, std::chrono::seconds limit) {
    return wait_until([&] { return queued(name) == 0; }, limit);
}

std::vector<frame_t> sent(const std::string& name) {
    registry_t& reg = registry();
    const std::lock_guard lock(reg.mutex);
    port_t& port = port_of(reg, name);
    const std::lock_guard send_lock(port.send_mutex);
    return port.sent;
}

bool wait_sent(const std::string& name, std::size_t count, std::chrono::seconds limit) {
    return wait_until([&] { return sent(name).size() >= count; }, limit);
}

void on_send(const std::string& name, send_hook_t hook) {
    registry_t& reg = registry();
    const std::lock_guard lock(reg.mutex);
    port_t& port = port_of(reg, name);
    const std::lock_guard send_lock(port.send_mutex);
    port.send_hooks.push_back(std::move(hook));
}

std::vector<open_call> open_calls() {
    const std::lock_guard lock(registry().mutex);
    return registry().open_calls;
}

std::vector<std::string> close_calls() {
    const std::lock_guard lock(registry().mutex);
    return registry().close_calls;
}

// A handle that was created but not activated has to be closed too.
std::size_t open_handles() {
    registry_t& reg = registry();
    const std::lock_guard lock(reg.mutex);
    return static_cast<std::size_t>(
        std::count_if(reg.handles.begin(), reg.handles.end(),
                      [](const auto& handle) { return handle->state != handle_state::closed; }));
}

std::size_t open_handles(const std::string& name) {
    registry_t& reg = registry();
    const std::lock_guard lock(reg.mutex);
    return static_cast<std::size_t>(
        std::count_if(reg.handles.begin(), reg.handles.end(), [&](const auto& handle) {
            return handle->state != handle_state::closed && handle->port->name == name;
        }));
}

bool wait_open(const std::string& name, std::chrono::seconds limit) {
    const auto opened = [&] {
        const std::lock_guard lock(registry().mutex);
        return newest_open(registry(), name) != nullptr;
    };
    return wait_until(opened, limit);
}

void set_next_open_failure(const std::string& name, const std::string& text) {
    const std::lock_guard lock(registry().mutex);
    port_of(registry(), name).next_open_failure = text;
}

void set_fileno(const std::string& name, std::optional<int> fd) {
    const std::lock_guard lock(registry().mutex);
    port_of(registry(), name).fileno = fd;
}

void set_selectable_fd(const std::string& name, std::optional<int> fd) {
    const std::lock_guard lock(registry().mutex);
    port_of(registry(), name).selectable_fd = fd;
}

void set_send_failure(const std::string& name, unsigned n, bool lasting, int error) {
    registry_t& reg = registry();
    const std::lock_guard lock(reg.mutex);
    port_t& port = port_of(reg, name);
    const std::lock_guard send_lock(port.send_mutex);
    port.sends_until_failure = n;
    port.failure_lasts = lasting;
    port.send_error = error;
}

std::optional<std::string> owner_of_fileno(int fd) {
    registry_t& reg = registry();
    const std::lock_guard lock(reg.mutex);
    for (const auto& handle : reg.handles) {
        if (is_open(*handle) && handle->port->fileno.value_or(handle->fileno) == fd) {
            return handle->port->name;
        }
    }
    return std::nullopt;
}

}  // namespace fake_pcap

// ---- The library's side -------------------------------------------------------------------------

using fake_pcap::checked;
using fake_pcap::handle_state;

pcap_t* pcap_open_live(const char* device, int snaplen, int promisc, int to_ms, char* errbuf) {
    if (device == nullptr || *device == '\0' || errbuf == nullptr) {
        ADD_FAILURE() << "pcap_open_live: no device name or no error buffer";
        return nullptr;
    }
    std::optional<std::string> failure;
    {
        fake_pcap::registry_t& reg = fake_pcap::registry();
        const std::lock_guard lock(reg.mutex);
        failure.swap(fake_pcap::port_of(reg, device).next_open_failure);
        reg.open_calls.push_back({device, snaplen, promisc, to_ms, !failure.has_value()});
    }
    if (failure.has_value()) {
        errbuf[failure->copy(errbuf, PCAP_ERRBUF_SIZE - 1)] = '\0';
        return nullptr;
    }
    errbuf[0] = '\0';
    pcap_t* handle = fake_pcap::make_handle(device);
    fake_pcap::activate(handle, snaplen);
    return handle;
}

int pcap_fileno(pcap_t* p) {
    if (checked(p, handle_state::open, "pcap_fileno") == nullptr) return -1;
    const std::lock_guard lock(fake_pcap::registry().mutex);
    return p->port->fileno.value_or(p->fileno);
}

int pcap_get_selectable_fd(pcap_t* p) {
    if (checked(p, handle_state::open, "pcap_get_selectable_fd") == nullptr) return -1;
    const std::lock_guard lock(fake_pcap::registry().mutex);
    return p->port->selectable_fd.value_or(p->selectable_fd);
}

int pcap_next_ex(pcap_t* p, struct pcap_pkthdr** header, const u_char** data) {
    if (checked(p, handle_state::open, "pcap_next_ex") == nullptr) return PCAP_ERROR;
    const std::lock_guard lock(p->queue_mutex);
    p->current.reset();
    if (p->queue.empty()) return 0;
    const fake_pcap::arrival_t arrival = std::move(p->queue.front());
    p->queue.pop_front();
    if (p->queue.empty()) fake_pcap::set_readable(*p, false);
    if (arrival.result != 1) return arrival.result;
    p->current = fake_pcap::capture(arrival, p->snaplen);
    *header = &p->current->header;
    *data = p->current->data;
    return 1;
}

int pcap_sendpacket(pcap_t* p, const u_char* buf, int size) {
    if (checked(p, handle_state::open, "pcap_sendpacket") == nullptr) return PCAP_ERROR;
    if (buf == nullptr || size <= 0) {
        ADD_FAILURE() << "pcap_sendpacket: nothing to send";
        return PCAP_ERROR;
    }
    fake_pcap::port_t& port = *p->port;
    const fake_pcap::frame_t frame(buf, buf + size);
    std::vector<fake_pcap::send_hook_t> hooks;
    {
        const std::lock_guard lock(port.send_mutex);
        if (fake_pcap::send_fails(port)) return PCAP_ERROR;
        port.sent.push_back(frame);
        hooks = port.send_hooks;
    }
    for (const fake_pcap::send_hook_t& hook : hooks)
        hook(frame);
    return 0;
}

void pcap_close(pcap_t* p) {
    fake_pcap::registry_t& reg = fake_pcap::registry();
    const bool created = p != nullptr && p->state == handle_state::created;
    if (!created && checked(p, handle_state::open, "pcap_close") == nullptr) return;
    const std::lock_guard lock(reg.mutex);
    if (!created) fake_pcap::close_descriptors(*p);
    const std::lock_guard queue_lock(p->queue_mutex);
    p->queue.clear();
    p->current.reset();
    p->state = handle_state::closed;
    reg.close_calls.push_back(p->port->name);
}
