// host.h - the host program of the benchmarks: a running manager on the library's cable, with the
// sample log properties, and what the far end sends to make it know cards.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "qnm.h"
#include "rig.h"
#include "wire.h"

namespace bench {

class host {
  public:
    host();
    ~host();
    host(const host&) = delete;
    host& operator=(const host&) = delete;

    static void set_level(qnm_log_level_t level);
    static void on(qnm_evt_type_t type, qnm_cbfunc_t function, void* arg);

    // Announcements that have passed the receive path, read from the statistics.
    static uint64_t frames_taken();

    // Processor time of the thread that runs the manager, which includes the keepalive check.
    uint64_t manager_cpu_ns() const;

  private:
    e2e::installation installation_;
    std::atomic<bool> ended_ = false;
    std::thread thread_;  // the last one: it uses the others
};

// The far end as a sender of announcements. Frames leave in batches; each is from the next of
// `cards` cards in turn.
class announcer {
  public:
    announcer(const std::string& interface, cardsim::card_speed speed, size_t cards);

    void send(size_t count);  // as fast as it goes
    void send_paced(size_t count, double per_second);

  private:
    static constexpr size_t k_batch = 64;

    packet_socket socket_;
    size_t cards_;
    size_t next_ = 0;
    std::vector<cardsim::frame_bytes> frames_;
    std::vector<iovec> parts_;
    std::vector<mmsghdr> messages_;
};

// Sends this many, with no more frames on the way than the reader's buffer holds, and waits until
// it has received all. Throws if it does not.
void send_ahead(announcer& far_end, size_t count, const std::function<uint64_t()>& taken);

// Makes the library know the cards.
void learn_cards(announcer& far_end, size_t cards);

}  // namespace bench
