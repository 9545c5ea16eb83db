// reads.cpp - register reads: the round trip of one thread, and how many a second several threads
// get.
//
// The library and its floors take turns in short rounds, so that a machine that gets slower or
// faster does so for both. The core on which a thread wakes decides most of a round trip, and the
// system chooses it; so there are also cases in which all threads share one core. There no core has
// to be woken, and only the work is left.

#include <sched.h>

#include <optional>
#include <stdexcept>

#include "figures.h"
#include "floors.h"
#include "host.h"
#include "responder.h"

namespace bench {

namespace {

constexpr uint32_t k_register = 0x1000;
constexpr int k_rounds = 20;
constexpr size_t k_warm_up = 500;

struct read_case {
    const char* name;
    qnm_log_level_t level;
    size_t askers;
    size_t cards;
    int share;  // of the wanted reads, one in so many
    bool one_core = false;
};

constexpr read_case k_cases[] = {
    {"read/error", QNM_LOGLVL_ERROR, 1, 1, 1},
    {"read/default", QNM_LOGLVL_NONE, 1, 1, 1},
    {"read/error/one_core", QNM_LOGLVL_ERROR, 1, 1, 2, true},
    {"read/default/one_core", QNM_LOGLVL_NONE, 1, 1, 2, true},
    {"read/error/1x64", QNM_LOGLVL_ERROR, 1, 64, 4},
    {"read/error/4x1", QNM_LOGLVL_ERROR, 4, 1, 4},
    {"read/error/4x64", QNM_LOGLVL_ERROR, 4, 64, 4},
    {"read/error/16x1", QNM_LOGLVL_ERROR, 16, 1, 4},
    {"read/error/16x64", QNM_LOGLVL_ERROR, 16, 64, 4},
    {"read/default/16x64", QNM_LOGLVL_NONE, 16, 64, 4},
};

// The next card of a thread that asks all of them in turn.
class card_rota {
  public:
    explicit card_rota(size_t cards) : cards_(cards) {}
    uint64_t next(size_t asker) { return card_id((asker + asks_[asker].count++) % cards_); }

  private:
    struct alignas(64) own_line {
        size_t count = 0;
    };
    size_t cards_;
    std::array<own_line, 256> asks_;
};

bool read_by_library(uint64_t card) {
    uint32_t data = 0;
    return qnm_read_register(card, k_register, &data, nullptr, 0) == QNM_API_SUCCESS &&
           data == register_value(k_register);
}

// Keeps this thread, and those that it starts meanwhile, on its present core.
class one_core_guard {
  public:
    one_core_guard() {
        cpu_set_t here;
        CPU_ZERO(&here);
        CPU_SET(static_cast<size_t>(sched_getcpu()), &here);
        if (sched_getaffinity(0, sizeof all_, &all_) != 0 ||
            sched_setaffinity(0, sizeof here, &here) != 0) {
            throw std::runtime_error("cannot stay on one core");
        }
    }
    ~one_core_guard() { sched_setaffinity(0, sizeof all_, &all_); }
    one_core_guard(const one_core_guard&) = delete;
    one_core_guard& operator=(const one_core_guard&) = delete;

  private:
    cpu_set_t all_;
};

// A way to ask, and its results.
struct contender {
    std::string prefix;
    ask once;
    samples all;
};

void run_rounds(benchmark::State& state, const read_case& wanted, size_t reads,
                std::vector<contender>& contenders) {
    for (contender& it : contenders) {
        samples unused;
        time_asks(wanted.askers, k_warm_up, it.once, unused);
    }
    for ([[maybe_unused]] auto _ : state) {
        for (contender& it : contenders) {
            if (time_asks(wanted.askers, reads / k_rounds, it.once, it.all)) continue;
            return state.SkipWithError("a read failed or brought a wrong value");
        }
        state.SetIterationTime(contenders[0].all.seconds);
    }
    for (contender& it : contenders)
        publish(state, it.prefix, it.all);
}

void run_case(benchmark::State& state, const read_case& wanted, size_t reads) {
    std::optional<one_core_guard> pinned;
    if (wanted.one_core) pinned.emplace();
    const responder library_cards(k_library_cable.far);
    const responder floor_cards(k_floor_cable.far);
    const host library;
    announcer cards(k_library_cable.far, cardsim::card_speed::g40, wanted.cards);
    learn_cards(cards, wanted.cards);
    host::set_level(wanted.level);

    two_thread_asker two_threads;
    card_rota rota(wanted.cards);
    card_rota floor_rota(wanted.cards);
    std::vector<contender> contenders;
    contenders.push_back({"", [&](size_t asker) { return read_by_library(rota.next(asker)); }, {}});
    contenders.push_back({"floor_",
                          [&](size_t asker) {
                              return two_threads.ask(floor_rota.next(asker),
                                                     static_cast<uint8_t>(asker), k_register);
                          },
                          {}});
    run_rounds(state, wanted, reads, contenders);
}

// The floors of one thread; they would wake the receiver of the two-thread floor if they ran
// together with it.
void run_plain_floors(benchmark::State& state, size_t reads) {
    const responder cards(k_floor_cable.far);
    const auto run = [&](const char* prefix, const ask& once) {
        samples all;
        time_asks(1, k_warm_up, once, all);
        all = {};
        if (!time_asks(1, reads, once, all)) state.SkipWithError("a floor got no answer");
        publish(state, prefix, all);
    };
    for ([[maybe_unused]] auto _ : state) {
        const auto start = stopwatch::now();
        {
            const capture_asker asker;
            run("pcap_", [&](size_t) { return asker.ask(card_id(0), k_register); });
        }
        {
            const socket_asker asker;
            run("socket_", [&](size_t) { return asker.ask(card_id(0), k_register); });
        }
        state.SetIterationTime(seconds_since(start));
    }
}

}  // namespace

void register_reads(const options& wanted) {
    for (const read_case& it : k_cases) {
        const size_t reads = wanted.reads / static_cast<size_t>(it.share);
        benchmark::RegisterBenchmark(
            it.name, [&it, reads](benchmark::State& state) { run_case(state, it, reads); })
            ->Iterations(k_rounds)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    }
    const size_t reads = wanted.reads / 4;
    benchmark::RegisterBenchmark(
        "read/plain_floors", [reads](benchmark::State& state) { run_plain_floors(state, reads); })
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

}  // namespace bench
