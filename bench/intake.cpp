// intake.cpp - announcements: how many a second of known cards are received without loss, and how
// many at once.
//
// The sender is paced on one core while the reader works on another. A rate is loss-free when all
// frames of a stretch are received; the highest is found by bisection. A stretch lasts until the
// last frame is received, so that a slow reader gains nothing from the capture's buffer.
//
// A burst is sent as fast as possible: once to a reader that sleeps when it starts, and once to a
// reader that is held up until it is over, so that the buffer has to take all of it.

#include <algorithm>
#include <cmath>
#include <map>
#include <thread>

#include "figures.h"
#include "floors.h"
#include "host.h"
#include "qnm_counters.h"

namespace bench {

namespace {

constexpr size_t k_few_cards = 100;
constexpr size_t k_many_cards = 100'000;
constexpr double k_slowest = 20'000;
constexpr double k_fastest = 800'000;
constexpr size_t k_largest_burst = 500'000;
constexpr auto k_look = std::chrono::microseconds(200);
constexpr double k_idle_seconds = 0.2;  // without progress: what is missing is lost
constexpr int k_tries = 2;  // a stretch that lost is tried again: it may have been bad luck

// The reader of the frames, and their sender.
struct lane {
    announcer& far_end;
    std::function<uint64_t()> taken;
    bool has_large_buffer = true;
};

// Whether the reader has received this many in the end.
bool arrive(const lane& at, uint64_t wanted) {
    uint64_t taken = at.taken();
    auto progress = stopwatch::now();
    while (taken < wanted && seconds_since(progress) < k_idle_seconds) {
        std::this_thread::sleep_for(k_look);
        const uint64_t now = at.taken();
        if (now != taken) progress = stopwatch::now();
        taken = now;
    }
    return taken >= wanted;
}

// The rate that was reached if nothing was lost at the wanted one, otherwise 0.
double try_rate(const lane& at, double rate, double seconds) {
    const auto count = static_cast<size_t>(rate * seconds);
    for (int n = 0; n < k_tries; n++) {
        const uint64_t before = at.taken();
        const auto start = stopwatch::now();
        at.far_end.send_paced(count, rate);
        if (arrive(at, before + count)) return static_cast<double>(count) / seconds_since(start);
    }
    return 0;
}

// Bisects the logarithm of the rate.
double loss_free_rate(const lane& at, double seconds, int steps) {
    constexpr double k_reached = 0.97;
    double low = k_slowest;
    double high = k_fastest;
    double best = 0;
    for (int n = 0; n < steps; n++) {
        const double rate = std::sqrt(low * high);
        const double reached = try_rate(at, rate, seconds);
        best = std::max(best, reached);
        if (reached == 0) {
            high = rate;
        } else if (reached < rate * k_reached) {
            high = std::max(low, reached);
        } else {
            low = rate;
        }
    }
    return best;
}

// ---- Rates -------------------------------------------------------------------------------------

struct search {
    double seconds;
    int rate_steps;
    int rounds;
    int burst_steps;
};

// How many frames a reader receives, and with how much processor time of its own.
struct intake_figures {
    double rate;
    double ns_per_frame;
};

// 0 for a reader that would lose the frames sent ahead of it. Any other reader always has frames
// waiting, so it hardly sleeps; the sender, this thread, sleeps while the reader is behind.
double reader_ns_per_frame(const lane& at) {
    if (!at.has_large_buffer) return 0;
    constexpr size_t k_frames = 200'000;
    constexpr double k_ns_per_second = 1e9;
    const double before = cpu_seconds() - thread_cpu_seconds();
    send_ahead(at.far_end, k_frames, at.taken);
    const double used = cpu_seconds() - thread_cpu_seconds() - before;
    return used / k_frames * k_ns_per_second;
}

intake_figures measure(const lane& at, const search& how) {
    return {loss_free_rate(at, how.seconds, how.rate_steps), reader_ns_per_frame(at)};
}

intake_figures of_library(cardsim::card_speed speed, size_t cards, const search& how) {
    const host library;
    announcer far_end(k_library_cable.far, speed, cards);
    learn_cards(far_end, cards);
    return measure({far_end, host::frames_taken}, how);
}

intake_figures of_floor(cardsim::card_speed speed, std::unique_ptr<intake> (*open)(),
                        const search& how) {
    announcer far_end(k_floor_cable.far, speed, k_few_cards);
    const auto reader = open();
    return measure({far_end, [&] { return reader->taken(); }, open != take_from_socket}, how);
}

struct contender {
    const char* name;
    size_t cards;                       // known to the library
    std::unique_ptr<intake> (*open)();  // of a floor; null: the library
};

constexpr contender k_contenders[] = {
    {"cards_100", k_few_cards, nullptr},     {"one_per_poll", 0, take_one_per_poll},
    {"cards_100000", k_many_cards, nullptr}, {"until_empty", 0, take_until_empty},
    {"socket", 0, take_from_socket},
};

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// All take turns, round by round; the median of the rounds counts.
void run_rates(benchmark::State& state, cardsim::card_speed speed, const search& how) {
    std::map<std::string, std::vector<double>> figures;
    for ([[maybe_unused]] auto _ : state) {
        const auto start = stopwatch::now();
        for (const contender& it : k_contenders) {
            const intake_figures found = it.open != nullptr ? of_floor(speed, it.open, how)
                                                            : of_library(speed, it.cards, how);
            figures[it.name].push_back(found.rate);
            figures[it.name + std::string("_cpu_ns")].push_back(found.ns_per_frame);
        }
        state.SetIterationTime(seconds_since(start));
    }
    for (const auto& [name, of_rounds] : figures)
        state.counters[name] = median(of_rounds);
}

// ---- Bursts ------------------------------------------------------------------------------------

// Whether a burst of this size loses nothing.
using burst = std::function<bool(size_t frames)>;

size_t largest_burst(int steps, const burst& survives) {
    size_t low = 1;
    size_t high = k_largest_burst;
    for (int n = 0; n < steps && high - low > 1; n++) {
        const auto frames =
            static_cast<size_t>(std::sqrt(static_cast<double>(low) * static_cast<double>(high)));
        (survives(frames) ? low : high) = frames;
    }
    return low;
}

bool survives(const lane& at, size_t frames) {
    const uint64_t before = at.taken();
    at.far_end.send(frames);
    return arrive(at, before + frames);
}

// The receive thread cannot count its first frame, so it stands still until the burst is over.
bool survives_held_up(const lane& at, size_t frames) {
    const uint64_t before = at.taken();
    pthread_mutex_lock(&qnm_stats_mutex.em_mutex);
    at.far_end.send(frames);
    pthread_mutex_unlock(&qnm_stats_mutex.em_mutex);
    return arrive(at, before + frames);
}

bool survives_unread(announcer& far_end, size_t frames) {
    const capture unread(k_floor_cable.near);
    unread.set_nonblocking();
    far_end.send(frames);
    size_t found = 0;
    while (found < frames && unread.poll()) {
        while (unread.next_frame() != nullptr)
            found++;
    }
    return found == frames;
}

void run_bursts(benchmark::State& state, const search& how) {
    constexpr auto k_speed = cardsim::card_speed::g40;
    const host library;
    announcer far_end(k_library_cable.far, k_speed, k_few_cards);
    learn_cards(far_end, k_few_cards);
    announcer floor_far_end(k_floor_cable.far, k_speed, k_few_cards);
    const auto reader = take_one_per_poll();
    const lane at = {far_end, host::frames_taken};
    const lane floor_at = {floor_far_end, [&] { return reader->taken(); }};
    const auto find = [&](const char* name, const burst& survives_it) {
        state.counters[name] = static_cast<double>(largest_burst(how.burst_steps, survives_it));
    };
    for ([[maybe_unused]] auto _ : state) {
        const auto start = stopwatch::now();
        find("held_up", [&](size_t frames) { return survives_held_up(at, frames); });
        find("floor_held_up",
             [&](size_t frames) { return survives_unread(floor_far_end, frames); });
        find("reading", [&](size_t frames) { return survives(at, frames); });
        find("floor_reading", [&](size_t frames) { return survives(floor_at, frames); });
        state.SetIterationTime(seconds_since(start));
    }
}

void add(const std::string& name, int rounds, const std::function<void(benchmark::State&)>& run) {
    benchmark::RegisterBenchmark(name.c_str(), run)
        ->Iterations(rounds)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

}  // namespace

void register_intake(const options& wanted) {
    const search how = {wanted.either(0.7, 0.2), wanted.either(8, 6), wanted.either(3, 1),
                        wanted.either(20, 14)};
    for (const auto speed : {cardsim::card_speed::g1_10, cardsim::card_speed::g40}) {
        add("intake/" + std::to_string(announcement(speed).size()) + "B", how.rounds,
            [=](benchmark::State& state) { run_rates(state, speed, how); });
    }
    add("intake/burst", 1, [=](benchmark::State& state) { run_bursts(state, how); });
}

}  // namespace bench
