// fake_pcap.h - a strict stand-in for libpcap, linked in its place.
//
// It defines pcap_open_live, pcap_fileno, pcap_get_selectable_fd, pcap_next_ex, pcap_sendpacket and
// pcap_close and nothing else, so code that reaches for another entry point does not link. (The
// optional ones live in fake_pcap_create.h and are linked on request.)
//
// A test plays the network: it pushes frames or results into the open handle of an interface, and
// reads back what was sent there. Interfaces are named; when one name is open more than once, the
// handle opened last is meant. Two descriptors belong to a handle:
//   - the selectable one is readable exactly while something is queued;
//   - the one of pcap_fileno is never readable and no packet socket; only the faked ioctl and
//     getsockopt (fake_netif.h) have answers for it.
//
// Misuse is a test failure at once, reported on the spot and never fatal: a null or closed handle,
// an open without a name, an empty buffer to send. Misuse by the test itself (an interface that
// is not open) throws std::logic_error.
//
// A received frame lies at the end of a heap block of its own, which is freed by the next
// pcap_next_ex on that handle, so that AddressSanitizer sees every read that is too long or too
// late. It begins where the block does, at an address that suits every type, unless a test says
// otherwise.
//
// All functions may be called from any thread, except reset(), which needs all handles idle.
#pragma once

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace fake_pcap {

using frame_t = std::vector<std::uint8_t>;

struct open_call {
    std::string name;
    int snaplen;
    int promisc;
    int timeout_ms;
    bool opened;  // false when the call was made to fail
};

// Back to the state before the first call; handles that are still open become invalid.
void reset();

// ---- What happens on the wire -------------------------------------------------------------------

// Queues a frame for the interface. wire_len is the length on the wire, when it differs from the
// bytes given; no more than the snapshot length is captured, as in the real library.
void push_frame(const std::string& name, std::span<const std::uint8_t> frame,
                std::optional<std::uint32_t> wire_len = std::nullopt);

// Queues a result of pcap_next_ex without a frame: 0 (time-out), -1 (error), -2 (end) and so on.
void push_result(const std::string& name, int result);

// From the next pcap_next_ex on, every frame begins this many bytes after such an address.
void set_frame_offset(std::size_t offset);

// Frames and results that have not been taken yet.
std::size_t queued(const std::string& name);

// Waits until everything queued has been taken; false when the limit passes first. The last frame
// may still be in progress then.
bool wait_drained(const std::string& name, std::chrono::seconds limit = std::chrono::seconds(60));

// Frames sent through handles of this name since reset(), in order.
std::vector<frame_t> sent(const std::string& name);

// Waits until at least count frames have been sent.
bool wait_sent(const std::string& name, std::size_t count,
               std::chrono::seconds limit = std::chrono::seconds(60));

// Called after every frame sent through handles of this name from now on, on the sender's thread
// and with no lock held, so that a test can answer before the send has returned. Several add up.
using send_hook_t = std::function<void(const frame_t& frame)>;
void on_send(const std::string& name, send_hook_t hook);

// ---- Opening and closing ------------------------------------------------------------------------

std::vector<open_call> open_calls();
std::vector<std::string> close_calls();  // the name of each handle, in the order of closing

std::size_t open_handles();                         // 0 when nothing leaked
std::size_t open_handles(const std::string& name);  // of one interface

// Waits until the interface is open, for a test that runs the whole manager.
bool wait_open(const std::string& name, std::chrono::seconds limit = std::chrono::seconds(60));

// ---- Failures on demand -------------------------------------------------------------------------

// The next pcap_open_live of this name returns null with the text as its error.
void set_next_open_failure(const std::string& name, const std::string& text);

// Result of pcap_fileno and of pcap_get_selectable_fd for this name from now on, in place of the
// handle's own descriptor; it stays the test's to close. nullopt ends it.
void set_fileno(const std::string& name, std::optional<int> fd);
void set_selectable_fd(const std::string& name, std::optional<int> fd);

// The n-th pcap_sendpacket of this name from now (1 = the next) returns -1; so does every one from
// then on when `lasting` is set, and leaves the error in errno. 0 ends it.
void set_send_failure(const std::string& name, unsigned n, bool lasting = false,
                      int error = ENOBUFS);

// The name of the open handle whose pcap_fileno is fd.
std::optional<std::string> owner_of_fileno(int fd);

}  // namespace fake_pcap
