// fake_pcap_handle.h - the handle of the fake libpcap, shared by its two halves only.
//
// A handle stays in memory after it has been closed, until fake_pcap::reset(), so that its late use
// is recognised. What belongs to the interface name (frames sent, ordered failures) lies in the
// port record, which all handles of that name share.
//
// Locks: the registry mutex guards the lists of handles and ports; then a handle's queue mutex or a
// port's send mutex. Taking and sending frames use no common lock, as in the real library.
#pragma once

#include <pcap/pcap.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "fake_pcap.h"

namespace fake_pcap {

struct port_t {
    std::string name;
    std::optional<std::string> next_open_failure;
    std::optional<int> fileno;
    std::optional<int> selectable_fd;

    std::mutex send_mutex;  // guards all below
    std::vector<frame_t> sent;
    std::vector<send_hook_t> send_hooks;
    unsigned sends_until_failure = 0;  // 0: no failure is due
    bool failure_lasts = false;
    int send_error = 0;
};

// A result of pcap_next_ex, with its frame when the result is 1.
struct arrival_t {
    int result;
    frame_t frame;
    std::uint32_t wire_len;
};

// What was captured ends where its heap block does.
struct captured_t {
    struct pcap_pkthdr header;
    std::unique_ptr<u_char[]> block;
    const u_char* data;
};

enum class handle_state { created, open, closed };

// A new handle in the registry. One that is not yet open has no descriptors.
pcap_t* make_handle(const std::string& name);
void activate(pcap_t* handle, int snaplen);

// Null with a test failure that names the caller, unless the handle is in that state.
pcap_t* checked(pcap_t* handle, handle_state state, const char* caller);

}  // namespace fake_pcap

struct pcap {
    fake_pcap::port_t* port = nullptr;
    std::atomic<fake_pcap::handle_state> state{fake_pcap::handle_state::created};
    int snaplen = 0;
    int fileno = -1;
    int selectable_fd = -1;

    std::mutex queue_mutex;  // guards all below
    std::deque<fake_pcap::arrival_t> queue;
    std::unique_ptr<fake_pcap::captured_t> current;
};
