// worker.cpp - the operations: how often each is chosen, and which results are documented for it.

#include "worker.h"

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <span>
#include <string>

namespace soak {

namespace {

using clock = std::chrono::steady_clock;

constexpr qnm_retry_t k_register_retry = {30, 20};
constexpr qnm_retry_t k_eeprom_retry = {8, 20};

constexpr codes k_plain = any_of({QNM_API_SUCCESS, QNM_API_ENOSYS});
constexpr codes k_query = k_plain | any_of({QNM_API_ENOENT});
constexpr codes k_send = k_query | any_of({QNM_API_ENOLINK, QNM_API_EPROTO});
constexpr codes k_answered = k_send | any_of({QNM_API_ETIMEDOUT});
constexpr codes k_eeprom = k_answered | any_of({QNM_API_EBUSY});

void ignore_event(uint64_t, qnm_evt_type_t, void*) {}

}  // namespace

// ---- What a place may hold ---------------------------------------------------------------------

bool contents::may_be(uint32_t value) const {
    const auto end = possible_.begin() + count_;
    return std::find(possible_.begin(), end, value) != end;
}

void contents::written(uint32_t value, bool surely) {
    if (surely) count_ = 0;
    if (!may_be(value)) possible_.at(count_++) = value;
}

bool contents::read(uint32_t value) {
    if (!may_be(value)) return false;
    written(value, true);
    return true;
}

// ---- The operations ----------------------------------------------------------------------------

struct worker::operation {
    unsigned weight;
    void (worker::*run)();
};

const worker::operation worker::k_operations[] = {
    {300, &worker::read_preset_register},
    {40, &worker::dump_preset_registers},
    {300, &worker::use_own_register},
    {24, &worker::read_preset_word},
    {6, &worker::force_preset_word},
    {8, &worker::dump_preset_words},
    {30, &worker::use_own_word},
    {4, &worker::unlock_eeprom},
    {10, &worker::set_vlan},
    {5, &worker::reset},
    {5, &worker::write_page},
    {200, &worker::query},
    {40, &worker::list},
    {10, &worker::forget},
    {10, &worker::stop_monitor},
    {30, &worker::restart_monitor},
    {40, &worker::register_callback},
    {4, &worker::change_level},
    {1, &worker::dump_status},
};

worker::worker(unsigned number, uint64_t seed, const std::atomic<unsigned>& life,
               const std::atomic<unsigned>& hold, tally& counted)
    : number_(number), random_(seed), life_(life), hold_(hold), counted_(counted) {}

void worker::step() {
    static const unsigned total =
        std::accumulate(std::begin(k_operations), std::end(k_operations), 0U,
                        [](unsigned sum, const operation& it) { return sum + it.weight; });
    unsigned drawn = draw(total);
    const operation* it = k_operations;
    for (; drawn >= it->weight; it++)
        drawn -= it->weight;
    (this->*it->run)();
}

template <typename Call>
qnm_api_code_t worker::call(const char* name, codes documented, Call call) {
    const auto start = clock::now();
    since_ = start;
    name_ = name;
    const unsigned life = life_;
    const unsigned hold = hold_;
    const qnm_api_code_t ret = call();
    if (life % 2 == 1 && life == life_) documented &= ~any_of({QNM_API_ENOSYS});
    // A call that may find no link sends frames, and the rival may have the port by then.
    const bool sends = (documented & any_of({QNM_API_ENOLINK})) != 0;
    if (sends && (hold % 2 == 0 || hold != hold_)) documented |= any_of({QNM_API_EBUSY});
    name_ = nullptr;
    counted_.count(name, ret, documented, clock::now() - start);
    return ret;
}

slow_call worker::under_way() const {
    const char* const name = name_;
    if (name == nullptr) return {};
    return {name, clock::now() - since_.load()};
}

void worker::check(bool right, const char* what, uint64_t id) {
    if (right) return;
    char text[96];
    snprintf(text, sizeof text, "wrong %s of card 0x%012lx", what, id);
    counted_.fail(text);
}

uint64_t worker::steady_card() {
    if (draw(4) == 0) return own_card();
    return card_id(draw(k_lasting));
}

uint64_t worker::own_card() {
    size_t number = 0;
    do {
        number = k_lasting + number_ + k_workers * draw((k_cards - k_lasting) / k_workers);
    } while (is_reset_often(number));
    return card_id(number);
}

// ---- Registers ---------------------------------------------------------------------------------

void worker::read_preset_register() {
    const uint64_t id = any_card();
    const uint32_t address = k_preset_registers + 4 * draw(k_presets);
    uint32_t value = 0;
    const auto ret = call("qnm_read_register", k_answered, [&] {
        return qnm_read_register(id, address, &value, &k_register_retry, any_flags());
    });
    if (ret == QNM_API_SUCCESS) check(value == preset_value(id, address), "register", id);
}

void worker::check_dump(uint64_t id, uint32_t start, size_t words, size_t length,
                        const std::array<uint32_t, k_presets>& data, bool success) {
    check(length % 4 == 0 && length <= 4 * words && (!success || length == 4 * words),
          "length of a dump", id);
    for (size_t n = 0; n < length / 4 && n < words; n++)
        check(data[n] == preset_value(id, start + static_cast<uint32_t>(4 * n)), "dump", id);
}

void worker::dump_preset_registers() {
    const uint64_t id = any_card();
    std::array<uint32_t, k_presets> data{};
    size_t length = sizeof data;
    const auto ret = call("qnm_dump_register", k_answered, [&] {
        return qnm_dump_register(id, k_preset_registers, k_preset_registers + 4 * k_presets,
                                 data.data(), &length, &k_register_retry, any_flags());
    });
    check_dump(id, k_preset_registers, k_presets, length, data, ret == QNM_API_SUCCESS);
}

void worker::use_own_register() {
    const size_t number = draw(k_lasting);
    const uint64_t id = card_id(number);
    const uint32_t address = k_own_registers + 4 * number_;
    const auto value = static_cast<uint32_t>(random_());
    const auto mask = static_cast<uint32_t>(random_());
    contents& held = registers_[number];
    const uint32_t flags = any_flags() | (draw(2) == 0 ? QNM_FLAG_VERIFY : 0);
    const bool verified = (flags & QNM_FLAG_VERIFY) != 0;
    const uint32_t kind = draw(3);
    if (kind == 0 && !held.is_full()) {
        const auto ret = call("qnm_write_register", k_answered, [&] {
            return qnm_write_register(id, address, value, &k_register_retry, flags);
        });
        held.written(value, verified && ret == QNM_API_SUCCESS);
    } else if (kind == 1 && held.is_known()) {
        const auto ret = call("qnm_modify_register", k_answered, [&] {
            return qnm_modify_register(id, address, value, mask, &k_register_retry, flags);
        });
        held.written((held.value() & ~mask) | (value & mask), verified && ret == QNM_API_SUCCESS);
    } else {
        uint32_t found = 0;
        const auto ret = call("qnm_read_register", k_answered, [&] {
            return qnm_read_register(id, address, &found, &k_register_retry, flags);
        });
        if (ret == QNM_API_SUCCESS) check(held.read(found), "register written", id);
    }
}

// A write does not wait for an answer; a read goes on as soon as the receiver has it. Neither waits
// long for a port that is down.
void worker::hurry() {
    const uint64_t id = card_id(draw(k_lasting));
    constexpr qnm_retry_t k_short = {5, 4};
    uint32_t value = 0;
    if (number_ % 4 != 0) {
        call("qnm_write_register", k_answered,
             [&] { return qnm_write_register(id, k_scratch_register, 1, &k_short, 0); });
        return;
    }
    const auto ret = call("qnm_read_register", k_answered, [&] {
        return qnm_read_register(id, k_preset_registers, &value, &k_short, 0);
    });
    if (ret == QNM_API_SUCCESS)
        check(value == preset_value(id, k_preset_registers), "register", id);
}

// ---- EEPROM ------------------------------------------------------------------------------------

void worker::read_preset_word() {
    const uint64_t id = steady_card();
    const uint32_t address = k_preset_words + 4 * draw(k_presets);
    uint32_t value = 0;
    const auto ret = call("qnm_read_eeprom", k_eeprom, [&] {
        return qnm_read_eeprom(id, address, &value, &k_eeprom_retry, any_flags());
    });
    if (ret == QNM_API_SUCCESS) check(value == preset_value(id, address), "EEPROM word", id);
}

// By force, the lock is also taken from a call that timed out while it had it. It is never taken
// from another worker, who would then read words that it did not ask for.
void worker::force_preset_word() {
    const uint64_t id = own_card();
    const uint32_t address = k_preset_words + 4 * draw(k_presets);
    uint32_t value = 0;
    const auto ret = call("qnm_read_eeprom", k_eeprom, [&] {
        return qnm_read_eeprom(id, address, &value, &k_eeprom_retry,
                               any_flags() | QNM_FLAG_FORCELOCK);
    });
    if (ret == QNM_API_SUCCESS) check(value == preset_value(id, address), "EEPROM word", id);
}

void worker::dump_preset_words() {
    const uint64_t id = steady_card();
    const size_t words = 1 + draw(k_presets);
    std::array<uint32_t, k_presets> data{};
    size_t length = sizeof data;
    const auto ret = call("qnm_dump_eeprom", k_eeprom, [&] {
        return qnm_dump_eeprom(id, k_preset_words,
                               k_preset_words + static_cast<uint32_t>(4 * words), data.data(),
                               &length, &k_eeprom_retry, any_flags());
    });
    check_dump(id, k_preset_words, words, length, data, ret == QNM_API_SUCCESS);
}

void worker::use_own_word() {
    const size_t number = draw(k_lasting);
    const uint64_t id = card_id(number);
    const uint32_t address = k_own_words + 4 * number_;
    contents& held = words_[number];
    if (draw(2) == 0 && !held.is_full()) {
        const auto value = static_cast<uint32_t>(random_());
        const uint32_t flags = draw(2) == 0 ? QNM_FLAG_VERIFY : 0;
        const auto ret = call("qnm_write_eeprom", k_eeprom, [&] {
            return qnm_write_eeprom(id, address, value, &k_eeprom_retry, flags);
        });
        held.written(value, ret == QNM_API_SUCCESS);
        return;
    }
    uint32_t found = 0;
    const auto ret = call("qnm_read_eeprom", k_eeprom,
                          [&] { return qnm_read_eeprom(id, address, &found, &k_eeprom_retry, 0); });
    if (ret == QNM_API_SUCCESS) check(held.read(found), "EEPROM word written", id);
}

void worker::unlock_eeprom() {
    const uint64_t id = steady_card();
    call("qnm_unlock_eeprom", k_answered, [&] { return qnm_unlock_eeprom(id); });
}

// ---- Commands to cards -------------------------------------------------------------------------

// Only one thread gives each lasting card its VLAN ID, and never one that the card had lately: an
// ID that is still in the record would seem confirmed.
void worker::set_vlan() {
    const size_t number = number_ + k_workers * draw(k_lasting / k_workers);
    const auto vlan = static_cast<uint16_t>(k_first_vlan + vlans_set_++ % k_vlans);
    const uint32_t flags = draw(4) == 0 ? 0 : QNM_FLAG_VERIFY;
    constexpr qnm_retry_t k_retry = {10, 200};
    const auto ret = call("qnm_set_vlanid", k_answered,
                          [&] { return qnm_set_vlanid(card_id(number), vlan, &k_retry, flags); });
    vlans_[number] = ret == QNM_API_SUCCESS && flags != 0 ? vlan : 0;
}

void worker::reset() {
    const uint64_t id = card_id(k_lasting + 15 + 20 * draw(50));
    call("qnm_send_resetframe", k_send, [&] {
        return qnm_send_resetframe(id, static_cast<unsigned char>(draw(256)), nullptr, 0);
    });
}

void worker::write_page() {
    const uint64_t id = card_id(k_lasting + 15 + 20 * draw(50));
    uint32_t page[32];
    std::iota(std::begin(page), std::end(page), static_cast<uint32_t>(random_()));
    call("qnm_write_mmspage", k_send,
         [&] { return qnm_write_mmspage(id, draw(1024), page, any_flags()); });
}

// ---- The tables --------------------------------------------------------------------------------

void worker::query() {
    const size_t number = draw(k_cards);
    const uint64_t id = card_id(number);
    qnm_com_dev_t found{};
    qnm_api_code_t ret;
    if (number % 2 == 0) {
        qnm_qnsv_t record;
        ret = call("qnm_get_qnsv", k_query, [&] { return qnm_get_qnsv(id, &record); });
        if (ret == QNM_API_SUCCESS) found = record.esv_com_dev;
    } else {
        qnm_qnio_t record;
        ret = call("qnm_get_qnio", k_query, [&] { return qnm_get_qnio(id, &record); });
        if (ret == QNM_API_SUCCESS) found = record.eio_com_dev;
    }
    if (ret != QNM_API_SUCCESS) return;
    check(found.ecd_id == id && (found.ecd_type != 0) == (number / 2 % 2 != 0), "record", id);
    check(is_reset_often(number)
              ? found.ecd_vlan_id == k_reset_vlan
              : found.ecd_vlan_id >= k_first_vlan && found.ecd_vlan_id < k_first_vlan + k_vlans,
          "group", id);
}

void worker::list() {
    struct any_list {
        const char* name;
        qnm_api_code_t (*get)(uint16_t group, uint64_t** ids, uint32_t* count);
    };
    static constexpr any_list k_lists[] = {
        {"qnm_get_qnsvids",
         [](uint16_t, uint64_t** ids, uint32_t* count) { return qnm_get_qnsvids(ids, count); }},
        {"qnm_get_qnioids",
         [](uint16_t, uint64_t** ids, uint32_t* count) { return qnm_get_qnioids(ids, count); }},
        {"qnm_get_update_qnsvids",
         [](uint16_t, uint64_t** ids, uint32_t* count) {
             return qnm_get_update_qnsvids(0, ids, count);
         }},
        {"qnm_get_update_qnioids",
         [](uint16_t, uint64_t** ids, uint32_t* count) {
             return qnm_get_update_qnioids(0, ids, count);
         }},
        {"qnm_get_group_qnsvids", qnm_get_group_qnsvids},
        {"qnm_get_group_qnioids", qnm_get_group_qnioids},
    };
    const any_list& drawn = k_lists[draw(std::size(k_lists))];
    const auto group = static_cast<uint16_t>(k_first_vlan + draw(k_vlans));
    uint64_t* ids = nullptr;
    uint32_t count = 0;
    const auto ret = call(drawn.name, k_plain, [&] { return drawn.get(group, &ids, &count); });
    if (ret != QNM_API_SUCCESS) return;
    const std::span<const uint64_t> all(ids, count);
    constexpr size_t k_most = (k_cards + k_lasting + k_strangers) / 2;
    const bool right = count <= k_most && (ids == nullptr) == (count == 0) &&
                       std::is_sorted(all.begin(), all.end());
    if (!right) counted_.fail("wrong list of " + std::to_string(count) + " cards");
    call("qnm_free_idlist", any_of({QNM_API_SUCCESS}), [&] { return qnm_free_idlist(ids); });
}

void worker::forget() {
    const bool stranger = draw(4) == 0;
    const size_t number = draw(stranger ? k_strangers : k_cards);
    const uint64_t id = stranger ? stranger_id(number) : card_id(number);
    const auto forget = number % 2 == 0 ? qnm_delete_qnsv : qnm_delete_qnio;
    call(number % 2 == 0 ? "qnm_delete_qnsv" : "qnm_delete_qnio", k_query,
         [&] { return forget(id); });
}

void worker::stop_monitor() {
    const uint64_t id = passing_card();
    call("qnm_stop_monitor", k_plain, [&] { return qnm_stop_monitor(id); });
}

void worker::restart_monitor() {
    const uint64_t id = passing_card();
    call("qnm_restart_monitor", k_plain, [&] { return qnm_restart_monitor(id); });
}

// ---- Callbacks, log and statistics -------------------------------------------------------------

void worker::register_callback() {
    qnm_cbid_t handle = nullptr;
    const auto type = static_cast<qnm_evt_type_t>(draw(QNM_EVT_MAX));
    const auto ret = call("qnm_register_callback", k_plain, [&] {
        return qnm_register_callback(type, ignore_event, nullptr, &handle);
    });
    if (ret != QNM_API_SUCCESS) return;
    call("qnm_unregister_callback", k_plain, [&] { return qnm_unregister_callback(handle); });
}

void worker::change_level() {
    const auto level = static_cast<qnm_log_level_t>(draw(QNM_LOGLVL_TRACE + 2) + QNM_LOGLVL_NONE);
    call("qnm_set_loglevel", k_plain, [&] { return qnm_set_loglevel(level); });
}

void worker::dump_status() {
    call("qnm_stdump", k_plain, [&] { return qnm_stdump(draw(8) == 0 ? 1 : 0); });
}

}  // namespace soak
