// The inside of the simulator. One mutex guards cards, timers and counters; one thread announces
// the cards and obeys managers. simulator.cpp has what cards do by themselves, obey.cpp what
// managers ask of them, and access.cpp what tests and line commands see and change behind the
// registers.
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <queue>
#include <random>
#include <thread>
#include <unordered_map>

#include "cardsim.h"
#include "common/wake_event.h"
#include "device.h"
#include "faults.h"

namespace cardsim {

using steady = std::chrono::steady_clock;

struct slot {
    card held;
    std::uint64_t generation = 0;  // of its live timer entry
    device state;
    fault_state faults;
};

struct timer {
    steady::time_point due;
    std::uint64_t id;
    std::uint64_t generation;
    bool operator>(const timer& other) const { return due > other.due; }
};

// A delayed answer. Of several that are due at the same time, the one made first leaves first.
struct delayed_reply {
    steady::time_point due;
    std::uint64_t number;
    std::uint64_t id;
    reply late;
    bool operator>(const delayed_reply& other) const {
        return due != other.due ? due > other.due : number > other.number;
    }
};

template <class Entry>
using earliest_first = std::priority_queue<Entry, std::vector<Entry>, std::greater<>>;

struct simulator::impl {
    impl(std::vector<port> given_ports, std::uint16_t type, request_observer given_observer);
    impl(const impl&) = delete;
    impl& operator=(const impl&) = delete;

    const std::vector<port> ports;
    const std::uint16_t ether_type;
    const request_observer observer;
    const tools::wake_event woken;
    std::atomic<bool> stopping = false;
    std::thread thread;

    mutable std::mutex mutex;  // guards everything below, and the order of frames on the ports
    bool running = false;
    std::map<std::uint64_t, slot> slots;
    std::unordered_map<std::string, std::uint64_t> ids;  // by name
    std::unordered_map<std::uint64_t, slot*> by_mac;     // path 0, into `slots`
    earliest_first<timer> timers;
    earliest_first<delayed_reply> delayed;
    std::uint64_t last_generation = 0;
    std::uint64_t last_delayed = 0;
    std::minstd_rand random;  // fixed seed: the same jitter in every run
    frame_bytes answer_frame;
    counters counted;

    // The mutex is held in all of these.
    std::uint64_t find_id(const card_ref& ref) const;
    slot& find(const card_ref& ref) { return slots.at(find_id(ref)); }
    const slot& find(const card_ref& ref) const { return slots.at(find_id(ref)); }
    void arm(slot& armed, steady::time_point due);
    void replace(slot& changed, card next);
    void count_failure(const send_report& report);
    bool send(std::size_t port, frame_view frame, std::uint64_t& sent);
    std::size_t send_everywhere(slot& announced, message kind);
    const port& port_at(std::size_t index) const;
    void set_heard(const card_ref& ref, std::size_t port, std::size_t path, bool heard);

    slot* find_by_mac(std::uint64_t mac);
    void obey(std::size_t port, const request& received);
    void obey_group(std::size_t port, const request& received);
    void obey_as(slot& target, std::size_t port, const request& received);
    void answer_read(slot& target, std::size_t port, const request& received);
    void send_reply(const card& sender, const reply& sent);
    void leave(slot& target, const reply& sent);

    // These lock the mutex.
    void begin();
    void announce_due();
    void answer_due();
    std::optional<steady::time_point> next_due() const;
    void take_frame(std::size_t port, frame_view frame);
    void receive_from(std::size_t index);
    void loop();
};

// What happens behind a card's registers when it comes and goes: its file is loaded and saved.
void start_device(slot& started);
void finish_device(slot& finished);

}  // namespace cardsim
