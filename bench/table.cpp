// table.cpp - 100,000 cards: adding them, listing them, checking whether they are still there, and
// how much memory they take.

#include <malloc.h>

#include <algorithm>
#include <stdexcept>
#include <thread>
#include <vector>

#include "figures.h"
#include "floors.h"
#include "host.h"

namespace bench {

namespace {

constexpr size_t k_cards = 100'000;
constexpr int k_lists = 11;

// Bytes in use on all heaps, the allocator's own headers included.
size_t heap_in_use() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// Sends each card's announcement to a bare reader, with as many frames on the way as to the
// library.
double floor_seconds() {
    announcer far_end(k_floor_cable.far, cardsim::card_speed::g40, k_cards);
    const auto reader = take_one_per_poll();
    const auto start = stopwatch::now();
    send_ahead(far_end, k_cards, [&] { return reader->taken(); });
    return seconds_since(start);
}

double list_ms() {
    std::vector<double> ms;
    for (int n = 0; n < k_lists; n++) {
        uint64_t* ids = nullptr;
        uint32_t count = 0;
        const auto start = stopwatch::now();
        const qnm_api_code_t ret = qnm_get_qnsvids(&ids, &count);
        ms.push_back(seconds_since(start) * 1000);
        qnm_free_idlist(ids);
        if (ret != QNM_API_SUCCESS || count != k_cards) throw std::runtime_error("cards missing");
    }
    std::nth_element(ms.begin(), ms.begin() + k_lists / 2, ms.end());
    return ms[k_lists / 2];
}

// Waits until the manager's thread has used processor time and rests again: that was one keepalive
// check, because between two checks the thread only sleeps. Returns the time that it used.
uint64_t await_pass(const host& library) {
    constexpr auto k_look = std::chrono::milliseconds(1);
    constexpr int k_rest = 50;
    const uint64_t before = library.manager_cpu_ns();
    uint64_t last = before;
    for (int resting = 0; last == before || resting < k_rest; resting++) {
        std::this_thread::sleep_for(k_look);
        const uint64_t now = library.manager_cpu_ns();
        if (now != last) resting = 0;
        last = now;
    }
    return last - before;
}

// The mean of several checks; the first may have begun before it was watched.
double keepalive_ms(const host& library, int passes) {
    constexpr double k_ns_per_ms = 1e6;
    await_pass(library);
    uint64_t total = 0;
    for (int n = 0; n < passes; n++)
        total += await_pass(library);
    return static_cast<double>(total) / k_ns_per_ms / passes;
}

void count_event(uint64_t, qnm_evt_type_t, void* counter) {
    (*static_cast<std::atomic<size_t>*>(counter))++;
}

// The results of one round.
struct round {
    double learning_seconds;
    double floor_seconds;
    double bytes_per_card;
};

// A fresh manager adds all cards and calls its callback for each; then the floor reads as many.
template <typename Then>
round learn_once(Then then) {
    std::atomic<size_t> told = 0;
    const host library;
    host::on(QNM_EVT_NEWDEVINFO, count_event, &told);
    announcer far_end(k_library_cable.far, cardsim::card_speed::g40, k_cards);
    const size_t heap_before = heap_in_use();
    const auto start = stopwatch::now();
    learn_cards(far_end, k_cards);
    e2e::wait_for([&] { return told == k_cards; });
    const double seconds = seconds_since(start);
    const double per_card = static_cast<double>(heap_in_use() - heap_before) / k_cards;
    then(library);
    return {seconds, floor_seconds(), per_card};
}

double median(const std::vector<round>& rounds, double round::*figure) {
    std::vector<double> all;
    for (const round& it : rounds)
        all.push_back(it.*figure);
    std::nth_element(all.begin(), all.begin() + std::ssize(all) / 2, all.end());
    return all[all.size() / 2];
}

// A round takes a second, and the machine may be slow in it, so there are several, and the median
// counts.
void run_table(benchmark::State& state, int passes, int count) {
    for ([[maybe_unused]] auto _ : state) {
        std::vector<round> rounds;
        for (int n = 1; n < count; n++)
            rounds.push_back(learn_once([](const host&) {}));
        rounds.push_back(learn_once([&](const host& library) {
            state.counters["get_ids_ms"] = list_ms();
            state.counters["keepalive_ms"] = keepalive_ms(library, passes);
        }));
        const double seconds = median(rounds, &round::learning_seconds);
        state.SetIterationTime(seconds);
        state.counters["learnt_per_second"] = k_cards / seconds;
        state.counters["floor_per_second"] = k_cards / median(rounds, &round::floor_seconds);
        state.counters["bytes_beyond_record"] =
            median(rounds, &round::bytes_per_card) - sizeof(qnm_qnsv_t);
    }
}

}  // namespace

void register_table(const options& wanted) {
    const int passes = wanted.either(20, 5);
    const int rounds = wanted.either(9, 3);
    benchmark::RegisterBenchmark("table/100000",
                                 [=](benchmark::State& state) { run_table(state, passes, rounds); })
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

}  // namespace bench
