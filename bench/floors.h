// floors.h - the least work that a receiving end can do with the same frames, to which each figure
// of the library is compared. Each floor is defined once and serves all benchmarks that need it.
#pragma once

#include <pcap/pcap.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "wire.h"

namespace bench {

// A capture in immediate mode, with the buffer that the library asks for.
class capture {
  public:
    explicit capture(const std::string& interface);

    // Blocks; the next frame of the protocol that is of this kind. Null when nothing came for a
    // tenth of a second.
    const unsigned char* poll_frame(uint8_t subtype) const;
    // The next frame that has come already; null when there is none.
    const unsigned char* next_frame() const;
    bool poll() const;

    void send(const short_frame& frame) const;
    void set_nonblocking() const;

  private:
    std::unique_ptr<pcap_t, void (*)(pcap_t*)> handle_;
};

// ---- Request and answer ------------------------------------------------------------------------

// All ask a card for a register and return whether the right value came.

// A bare packet socket, which blocks in the receive.
class socket_asker {
  public:
    bool ask(uint64_t card, uint32_t address) const;

  private:
    packet_socket socket_{k_floor_cable.near};
};

// libpcap, one thread: send, poll, take.
class capture_asker {
  public:
    bool ask(uint64_t card, uint32_t address) const;

  private:
    capture capture_{k_floor_cable.near};
};

// libpcap, two threads: a receive thread takes each answer and wakes the thread that asked. A tag
// is armed before the request is sent, and the wait checks for the answer before it sleeps. Up to
// 256 threads ask, told apart by their tags.
class two_thread_asker {
  public:
    two_thread_asker();
    ~two_thread_asker();
    two_thread_asker(const two_thread_asker&) = delete;
    two_thread_asker& operator=(const two_thread_asker&) = delete;

    bool ask(uint64_t card, uint8_t tag, uint32_t address);

    // The two halves of it, for frames that arrive unasked.
    void arm(uint8_t tag);
    bool await(uint8_t tag, uint32_t* data);

  private:
    struct slot {
        std::mutex mutex;
        std::condition_variable answered;
        bool armed = false;
        bool has_answer = false;
        uint32_t data = 0;
    };

    void run();
    void take(const qnet_com_comp_s& answer);

    capture capture_{k_floor_cable.near};
    std::array<slot, 256> slots_;
    std::atomic<bool> stopped_ = false;
    std::thread thread_;
};

// ---- Taking in ---------------------------------------------------------------------------------

// A thread that receives announcements and counts them.
class intake {
  public:
    using taker = std::function<unsigned()>;  // blocks for a while; how many it has taken

    explicit intake(taker take);
    ~intake();
    intake(const intake&) = delete;
    intake& operator=(const intake&) = delete;

    uint64_t taken() const { return taken_; }

  private:
    std::atomic<uint64_t> taken_ = 0;
    std::atomic<bool> stopped_ = false;
    std::thread thread_;
};

std::unique_ptr<intake> take_one_per_poll();
std::unique_ptr<intake> take_until_empty();
std::unique_ptr<intake> take_from_socket();

}  // namespace bench
