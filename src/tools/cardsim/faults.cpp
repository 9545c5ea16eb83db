// Changes answers and announcements by faults that happen at a rate. One table has a row for each
// fault.
#include "faults.h"

#include <algorithm>
#include <iterator>

namespace cardsim {

namespace {

// SplitMix64: it has eight bytes of state and gives good numbers from the first one on.
std::uint64_t mix(std::uint64_t value) {
    value = (value ^ value >> 30) * 0xBF58476D1CE4E5B9;
    value = (value ^ value >> 27) * 0x94D049BB133111EB;
    return value ^ value >> 31;
}

std::uint64_t draw(std::uint64_t& sequence) {
    sequence += 0x9E3779B97F4A7C15;
    return mix(sequence);
}

bool hits(std::uint64_t& sequence, std::uint16_t rate) {
    return rate != 0 && draw(sequence) % 1000 < rate;
}

void send_twice(reply& outgoing) {
    outgoing.copies = 2;
}

void change_port(reply& outgoing) {
    outgoing.port = 1 - outgoing.port;
}

// The address of the other path, which only a check of the whole address notices.
void change_mac(reply& outgoing) {
    outgoing.body.source ^= 1;
}

// As far as possible from the tags in use, which are consecutive.
void change_tag(reply& outgoing) {
    outgoing.body.tag ^= 0x80;
}

struct spoiling {
    std::uint16_t fault_settings::*rate;
    std::uint64_t counters::*counter;
    void (*apply)(reply&);
};

constexpr spoiling spoilings[] = {
    {&fault_settings::duplicate_answers, &counters::duplicated, send_twice},
    {&fault_settings::wrong_port, &counters::wrong_port, change_port},
    {&fault_settings::wrong_mac, &counters::wrong_mac, change_mac},
    {&fault_settings::wrong_tag, &counters::wrong_tag, change_tag},
};

std::chrono::milliseconds draw_delay(fault_state& state, const fault_settings& faults) {
    const std::uint32_t least = faults.delay_min_ms;
    const std::uint64_t span = std::max(least, faults.delay_max_ms) - least + std::uint64_t{1};
    return std::chrono::milliseconds(least + (span > 1 ? draw(state.random) % span : 0));
}

}  // namespace

void seed_faults(fault_state& state, const card& owner) {
    state.random = mix(owner.faults.seed) ^ owner.id;
    state.announcing_random = ~state.random;
}

bool request_lost(fault_state& state, const fault_settings& faults, counters& counted) {
    if (!hits(state.random, faults.lose_requests)) return false;
    ++counted.lost_requests;
    return true;
}

bool read_silenced(const fault_settings& faults, std::uint32_t address, counters& counted) {
    const auto& silent = faults.silent_registers;
    if (std::find(silent.begin(), silent.end(), address) == silent.end()) return false;
    ++counted.silent;
    return true;
}

unsigned announcement_copies(fault_state& state, const fault_settings& faults, counters& counted) {
    if (hits(state.announcing_random, faults.lose_announcements)) {
        ++counted.lost_announcements;
        return 0;
    }
    if (!hits(state.announcing_random, faults.duplicate_announcements)) return 1;
    ++counted.duplicated_announcements;
    return 2;
}

fate decide(fault_state& state, const fault_settings& faults, reply& outgoing, counters& counted) {
    if (hits(state.random, faults.lose_answers)) {
        ++counted.lost_answers;
        return {.what = verdict::lost};
    }
    for (const spoiling& row : spoilings) {
        if (!hits(state.random, faults.*row.rate)) continue;
        row.apply(outgoing);
        ++(counted.*row.counter);
    }
    if (!state.held && hits(state.random, faults.reorder_answers)) {
        state.held = std::make_unique<reply>(outgoing);
        ++counted.reordered;
        return {.what = verdict::held};
    }
    const std::chrono::milliseconds delay = draw_delay(state, faults);
    if (delay.count() == 0) return {};
    ++counted.delayed;
    return {.what = verdict::wait, .delay = delay};
}

}  // namespace cardsim
