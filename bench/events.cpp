// events.cpp - the time from a frame on the wire to the host's callback.
//
// A known card changes its interrupt vector, with a rest after each change, so that every thread on
// the way sleeps when the frame comes. The floor has the minimum of threads on the way: one that
// receives and one that is told.

#include <unistd.h>

#include <array>
#include <condition_variable>
#include <mutex>

#include "figures.h"
#include "floors.h"
#include "host.h"

namespace bench {

namespace {

constexpr useconds_t k_rest_us = 1000;
constexpr auto k_limit = std::chrono::seconds(30);

// Where the callback stores the time of its call.
class mailbox {
  public:
    static void on_event(uint64_t, qnm_evt_type_t, void* self) {
        auto* const it = static_cast<mailbox*>(self);
        const auto now = stopwatch::now();
        const std::lock_guard lock(it->mutex_);
        it->called_ = now;
        it->full_ = true;
        it->filled_.notify_one();
    }

    bool await(stopwatch::time_point* called) {
        std::unique_lock lock(mutex_);
        if (!filled_.wait_for(lock, k_limit, [this] { return full_; })) return false;
        *called = called_;
        full_ = false;
        return true;
    }

  private:
    std::mutex mutex_;
    std::condition_variable filled_;
    stopwatch::time_point called_;
    bool full_ = false;
};

void record(samples& into, stopwatch::time_point from, stopwatch::time_point to) {
    const std::chrono::nanoseconds took = to - from;
    into.ns.push_back(static_cast<uint32_t>(std::min<int64_t>(took.count(), UINT32_MAX)));
    into.seconds += std::chrono::duration<double>(took).count();
}

bool time_callback(const packet_socket& far_end, std::span<uint8_t> frame, uint8_t vector,
                   mailbox& told, samples& into) {
    set_interrupt_vector(frame, vector);
    const auto start = stopwatch::now();
    far_end.send(frame);
    stopwatch::time_point called;
    if (!told.await(&called)) return false;
    record(into, start, called);
    return true;
}

bool time_wake_up(const packet_socket& far_end, two_thread_asker& near_end, samples& into) {
    constexpr uint8_t k_tag = 0;
    near_end.arm(k_tag);
    const auto frame = completion(card_id(0), k_manager_mac, k_tag, 0);
    const auto start = stopwatch::now();
    far_end.send(frame);
    uint32_t unused = 0;
    if (!near_end.await(k_tag, &unused)) return false;
    record(into, start, stopwatch::now());
    return true;
}

void run_events(benchmark::State& state, size_t count) {
    mailbox told;
    samples library_took;
    samples floor_took;
    const host library;
    host::on(QNM_EVT_UPDATEDEVINFO, mailbox::on_event, &told);
    announcer card(k_library_cable.far, cardsim::card_speed::g40, 1);
    learn_cards(card, 1);
    const packet_socket far_end(k_library_cable.far);
    const packet_socket floor_far_end(k_floor_cable.far);
    two_thread_asker floor_near_end;
    auto frame = announcement(cardsim::card_speed::g40);
    set_source(frame, card_id(0));
    for ([[maybe_unused]] auto _ : state) {
        const auto start = stopwatch::now();
        for (size_t n = 1; n <= count; n++) {
            usleep(k_rest_us);
            const auto vector = static_cast<uint8_t>(n & 1);
            if (time_callback(far_end, frame, vector, told, library_took)) {
                usleep(k_rest_us);
                if (time_wake_up(floor_far_end, floor_near_end, floor_took)) continue;
            }
            return state.SkipWithError("a change was not reported");
        }
        state.SetIterationTime(seconds_since(start));
    }
    publish(state, "", library_took);
    publish(state, "floor_", floor_took);
}

}  // namespace

void register_events(const options& wanted) {
    const size_t count = wanted.either(20'000, 2'000);
    benchmark::RegisterBenchmark("event",
                                 [=](benchmark::State& state) { run_events(state, count); })
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

}  // namespace bench
