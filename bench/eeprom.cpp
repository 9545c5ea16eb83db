// eeprom.cpp - a whole EEPROM dump compared with the waits that its protocol demands.
//
// For each word the host takes the card's bit lock and checks eeprom_verify_count times, with a
// pause before each check, whether it still has it; then it issues the read and pauses before it
// checks whether that is complete. The card of the benchmark is always ready, so no wait is
// repeated. The system sleeps a little longer than asked; that is measured by a few sleeps.

#include <thread>
#include <vector>

#include "figures.h"
#include "host.h"
#include "qnm_config.h"
#include "responder.h"

namespace bench {

namespace {

constexpr double k_ms = 1000;  // of a second

double demanded_ms(size_t words) {
    const uint32_t per_word = qnm_config.eeprom_verify_count * qnm_config.eeprom_verify_interval +
                              qnm_config.eeprom_check_interval;
    return static_cast<double>(words) * per_word;
}

// How long the waits of the dump take when nothing is done between them, measured by those of a few
// words.
double slept_ms(size_t words) {
    constexpr size_t k_slept_words = 32;
    const auto start = stopwatch::now();
    for (size_t n = 0; n < k_slept_words; n++) {
        for (uint32_t look = 0; look < qnm_config.eeprom_verify_count; look++)
            std::this_thread::sleep_for(
                std::chrono::milliseconds(qnm_config.eeprom_verify_interval));
        std::this_thread::sleep_for(std::chrono::milliseconds(qnm_config.eeprom_check_interval));
    }
    return seconds_since(start) * k_ms * static_cast<double>(words) / k_slept_words;
}

bool is_right(const std::vector<uint32_t>& words, size_t length) {
    if (length != words.size() * sizeof words[0]) return false;
    for (uint32_t i = 0; i < words.size(); i++) {
        if (words[i] != eeprom_word(4 * i)) return false;
    }
    return true;
}

void run_dump(benchmark::State& state, uint32_t end) {
    const responder cards(k_library_cable.far);
    const host library;
    announcer far_end(k_library_cable.far, cardsim::card_speed::g40, 1);
    learn_cards(far_end, 1);
    std::vector<uint32_t> words(end / sizeof(uint32_t));
    for ([[maybe_unused]] auto _ : state) {
        size_t length = end;
        const auto start = stopwatch::now();
        const qnm_api_code_t ret =
            qnm_dump_eeprom(card_id(0), 0, end, words.data(), &length, nullptr, 0);
        const double seconds = seconds_since(start);
        state.SetIterationTime(seconds);
        if (ret != QNM_API_SUCCESS || !is_right(words, length)) {
            return state.SkipWithError("the dump failed or brought wrong words");
        }
        state.counters["dump_ms"] = seconds * k_ms;
        state.counters["waits_ms"] = demanded_ms(words.size());
        state.counters["slept_ms"] = slept_ms(words.size());
    }
}

}  // namespace

void register_eeprom(const options& wanted) {
    const uint32_t end = wanted.either<uint32_t>(k_eeprom_size, k_eeprom_size / 8);
    benchmark::RegisterBenchmark("eeprom", [=](benchmark::State& state) { run_dump(state, end); })
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

}  // namespace bench
