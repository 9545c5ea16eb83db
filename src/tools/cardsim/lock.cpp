// Changes the state of the two locks as managers and other holders access them.
#include "lock.h"

namespace cardsim {

namespace {

constexpr std::uint32_t lowest_bit(std::uint32_t bits) {
    return bits & (~bits + 1);
}

void leave_requests(eeprom_lock& lock, std::uint32_t ids) {
    lock.held.requests &= ~ids;
    if ((lock.held.holder & ids) != 0) lock.held.holder = lowest_bit(lock.held.requests);
}

void take_back(eeprom_lock& lock, const device_settings& settings) {
    if (!settings.id_lock) {
        lock.held.bits |= lock.others;
        return;
    }
    lock.held.requests |= lock.others;
    lock.held.holder = lowest_bit(lock.others);
}

// A manager has taken the lock from these other holders.
void taken_away(eeprom_lock& lock, const device_settings& settings, std::uint32_t ids) {
    if (ids == 0) return;
    if (!settings.lock_stubborn) {
        lock.others &= ~ids;
    } else if (settings.lock_retake_reads == 0) {
        take_back(lock, settings);
    } else {
        lock.looks_left = settings.lock_retake_reads;
    }
}

// A manager has looked at the lock; it saw the state before this call.
void looked_at(eeprom_lock& lock, const device_settings& settings) {
    if (lock.looks_left == 0) return;
    if (--lock.looks_left == 0) take_back(lock, settings);
}

}  // namespace

std::uint32_t read_lock_bits(eeprom_lock& lock, const device_settings& settings) {
    const std::uint32_t seen = lock.held.bits;
    looked_at(lock, settings);
    return seen;
}

void write_lock_bits(eeprom_lock& lock, const device_settings& settings, std::uint32_t bits) {
    const std::uint32_t cleared = lock.held.bits & ~bits;
    lock.held.bits = bits;
    taken_away(lock, settings, cleared & lock.others);
}

std::uint32_t read_lock_holder(eeprom_lock& lock, const device_settings& settings) {
    const std::uint32_t seen = lock.held.holder;
    looked_at(lock, settings);
    return seen;
}

std::uint32_t read_lock_requests(eeprom_lock& lock, const device_settings& settings) {
    const std::uint32_t seen = lock.held.requests;
    looked_at(lock, settings);
    return seen;
}

void request_lock(eeprom_lock& lock, std::uint32_t ids) {
    lock.held.requests |= ids & lock_id_mask;
    if (lock.held.holder == 0) lock.held.holder = lowest_bit(ids & lock_id_mask);
}

void release_lock(eeprom_lock& lock, const device_settings& settings, std::uint32_t ids) {
    const std::uint32_t left = lock.held.requests & ids;
    leave_requests(lock, ids);
    taken_away(lock, settings, left & lock.others);
}

void take_lock_by_others(eeprom_lock& lock, const device_settings& settings, std::uint32_t ids) {
    if (ids == 0) throw error("a holder of the lock is a bit; 0 is none");
    if (settings.id_lock && (ids & ~lock_id_mask) != 0) {
        throw error("the ID lock has the bits up to 0x8000 only");
    }
    lock.others |= ids;
    if (settings.id_lock) {
        request_lock(lock, ids);
    } else {
        lock.held.bits |= ids;
    }
}

void drop_lock_of_others(eeprom_lock& lock) {
    lock.held.bits &= ~lock.others;
    leave_requests(lock, lock.others);
    lock.others = 0;
    lock.looks_left = 0;
}

}  // namespace cardsim
