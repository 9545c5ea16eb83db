// stage.h - what the three processes of the soak share: the list of cards and their contents, and a
// page of memory by which the host asks the cards for calm and learns what they announce.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace soak {

// ---- Cards -------------------------------------------------------------------------------------
// Cards are numbered. The first ones stay, and keep what is written to them; of the others some are
// always away. Even ones are QNSV cards, odd ones QNIO cards; every second pair is 40G.

constexpr size_t k_cards = 1200;    // that ever appear
constexpr size_t k_present = 1000;  // at any time
constexpr size_t k_lasting = 64;

// Of those that stay, one is heard on port 0 alone and one on port 1.
constexpr std::array<size_t, 2> k_heard_on_one_port = {4, 0};

constexpr uint64_t card_id(size_t number) {
    return 0x020000000000 + 0x10 * number;
}

// Every twentieth card, a multi-root QNIO card, is in a group of its own, and only that group gets
// resets: a reset between the steps of an EEPROM access makes a card forget which word is meant.
constexpr uint16_t k_reset_vlan = 4094;
constexpr uint16_t k_first_vlan = 16;
constexpr uint16_t k_vlans = 200;

constexpr bool is_reset_often(size_t number) {
    return number >= k_lasting && number % 20 == 19;
}

// IDs that only forged announcements have; even ones are announced as QNSV cards, odd ones as QNIO
// cards. The library adds strangers to its tables; it must not add nobodies.
constexpr size_t k_strangers = 512;
constexpr size_t k_nobodies = 16;

constexpr uint64_t stranger_id(size_t number) {
    return 0x020000100000 + 0x10 * number;
}

constexpr uint64_t nobody_id(size_t number) {
    return 0x020000200000 + 0x10 * number;
}

// ---- Values ------------------------------------------------------------------------------------
// Registers and words that nobody writes hold values known everywhere.

constexpr uint32_t k_preset_registers = 0x2000;
constexpr uint32_t k_preset_words = 0x100;
constexpr uint32_t k_presets = 16;  // of each

constexpr uint32_t preset_value(uint64_t id, uint32_t address) {
    uint64_t value = (id << 16 ^ address) * 0x9E3779B97F4A7C15;
    value ^= value >> 29;
    return static_cast<uint32_t>(value * 0xBF58476D1CE4E5B9 >> 32);
}

// Each thread has its own register and its own EEPROM word in every lasting card.
constexpr uint32_t k_own_registers = 0x3000;
constexpr uint32_t k_own_words = 0x400;

// Places that are written but never read.
constexpr uint32_t k_scratch_register = 0x4000;
constexpr uint32_t k_scratch_word = 0x600;

constexpr uint8_t k_highest_tag = 239;  // that the host uses

// ---- The shared page ---------------------------------------------------------------------------

// What a card announces: everything that changes while the card is there.
struct announced {
    bool present;
    bool uid_switch;
    uint8_t int_vector;
    uint16_t vlan_id;
    bool power;
    bool link0_fault;                     // QNIO
    uint8_t io_substate1;                 // QNIO
    std::array<uint8_t, 8> port_status1;  // QNSV
    std::array<bool, 4> paths;            // P0M0, P0M1, P1M0, P1M1
};

struct stage {
    std::atomic<bool> host_ready;   // signals are handled from now on
    std::atomic<bool> calm_wanted;  // by the host
    std::atomic<bool> calm;         // the cards rest, the links are up, `cards` holds
    std::atomic<bool> hurry;        // the host is to send as much as it can
    std::array<announced, k_cards> cards;

    std::atomic<uint64_t> frames;  // announcements and answers sent
    std::atomic<uint64_t> faulty;  // frames of the host that break a rule of the protocol
    std::atomic<uint64_t> swaps;   // a card gone, another one come
    std::atomic<uint64_t> changes;
    std::atomic<uint64_t> flaps;
    std::atomic<uint64_t> oddities;
    std::atomic<uint64_t> signals;
    std::atomic<uint64_t> port_flaps;     // of the host's own ports, down and up at once
    std::atomic<uint64_t> crowd_changes;  // each of some hundred interfaces
    std::atomic<uint64_t> foreign;        // frames
    std::atomic<uint64_t> foreign_time;   // in microseconds, that they took

    // Faults done
    std::atomic<uint64_t> lost_announcements;
    std::atomic<uint64_t> repeated_announcements;
    std::atomic<uint64_t> lost_requests;
    std::atomic<uint64_t> lost_answers;
    std::atomic<uint64_t> repeated_answers;
    std::atomic<uint64_t> stray_answers;  // from the wrong port or address
    std::atomic<uint64_t> late_answers;

    // Forgeries; see forgeries.h
    std::atomic<uint64_t> strangers;
    std::atomic<uint64_t> false_records;
    std::atomic<uint64_t> false_kinds;
    std::atomic<uint64_t> broken_announcements;
    std::atomic<uint64_t> long_announcements;
    std::atomic<uint64_t> bad_tags;
    std::atomic<uint64_t> misled_answers;
    std::atomic<uint64_t> reads_seen;

    // The rival. The hold is odd while the host's manager runs and has accessed cards through both
    // ports; it is a different number each time.
    std::atomic<unsigned> hold;
    std::atomic<uint64_t> rival_managers;
    std::atomic<uint64_t> rival_refused;
    std::atomic<uint64_t> rival_reads;
    std::atomic<bool> over;  // for the rival
};

static_assert(std::atomic<uint64_t>::is_always_lock_free);

}  // namespace soak
