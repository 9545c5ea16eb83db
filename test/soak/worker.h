// worker.h - one of the threads that use the library at random and know what results are right.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <random>
#include <vector>

#include "checks/tally.h"
#include "stage.h"

namespace soak {

constexpr unsigned k_workers = 8;
constexpr unsigned k_hurried = 8;  // more of them, for times of hurry

// All functions that the workers call.
constexpr const char* k_called[] = {"qnm_read_register",      "qnm_dump_register",
                                    "qnm_write_register",     "qnm_modify_register",
                                    "qnm_read_eeprom",        "qnm_dump_eeprom",
                                    "qnm_write_eeprom",       "qnm_unlock_eeprom",
                                    "qnm_set_vlanid",         "qnm_send_resetframe",
                                    "qnm_write_mmspage",      "qnm_get_qnsv",
                                    "qnm_get_qnio",           "qnm_get_qnsvids",
                                    "qnm_get_qnioids",        "qnm_get_update_qnsvids",
                                    "qnm_get_update_qnioids", "qnm_get_group_qnsvids",
                                    "qnm_get_group_qnioids",  "qnm_free_idlist",
                                    "qnm_delete_qnsv",        "qnm_delete_qnio",
                                    "qnm_stop_monitor",       "qnm_restart_monitor",
                                    "qnm_register_callback",  "qnm_unregister_callback",
                                    "qnm_set_loglevel",       "qnm_stdump"};

// The possible contents of a place that only one thread writes: one value, or, after a write that
// may have failed, both the old and the new one. Its own memory does not grow, so any growth is the
// library's.
class contents {
  public:
    explicit contents(uint32_t initial) : possible_{initial} {}

    bool is_known() const { return count_ == 1; }
    bool is_full() const { return count_ == possible_.size(); }  // to be read before it is written
    uint32_t value() const { return possible_.front(); }
    void written(uint32_t value, bool surely);
    bool read(uint32_t value);  // whether it may be this one

  private:
    bool may_be(uint32_t value) const;

    std::array<uint32_t, 32> possible_;
    size_t count_ = 1;
};

class worker {
  public:
    // `life` is odd while a manager runs, and different for each manager; so is `hold` while no
    // other process can access cards.
    worker(unsigned number, uint64_t seed, const std::atomic<unsigned>& life,
           const std::atomic<unsigned>& hold, tally& counted);

    void step();   // one operation, drawn at random
    void hurry();  // one that sends a frame soon
    std::chrono::microseconds rest() { return std::chrono::microseconds(draw(4000)); }

    // The VLAN ID that this worker has given to one of its cards, or 0 when it is not known.
    uint16_t vlan_of(size_t lasting) const { return vlans_[lasting]; }

    // The call under way, if any, and for how long.
    slow_call under_way() const;

  private:
    struct operation;
    static const operation k_operations[];

    template <typename Call>
    qnm_api_code_t call(const char* name, codes documented, Call call);
    void check(bool right, const char* what, uint64_t id);

    uint32_t draw(uint32_t below) { return static_cast<uint32_t>(random_() % below); }
    uint64_t any_card() { return card_id(draw(k_cards)); }
    uint64_t passing_card() { return card_id(k_lasting + draw(k_cards - k_lasting)); }
    uint64_t steady_card();  // gets no resets
    uint64_t own_card();     // a steady one whose EEPROM no other worker uses
    uint32_t any_flags() { return draw(8) == 0 ? QNM_FLAG_LIVECHECK : 0; }

    void read_preset_register();
    void dump_preset_registers();
    void use_own_register();
    void read_preset_word();
    void force_preset_word();
    void dump_preset_words();
    void use_own_word();
    void unlock_eeprom();
    void set_vlan();
    void reset();
    void write_page();
    void query();
    void list();
    void forget();
    void stop_monitor();
    void restart_monitor();
    void register_callback();
    void change_level();
    void dump_status();

    void check_dump(uint64_t id, uint32_t start, size_t words, size_t length,
                    const std::array<uint32_t, k_presets>& data, bool success);

    const unsigned number_;
    std::mt19937_64 random_;
    const std::atomic<unsigned>& life_;
    const std::atomic<unsigned>& hold_;
    tally& counted_;
    std::vector<contents> registers_{k_lasting, contents(0)};
    std::vector<contents> words_{k_lasting, contents(0xFFFFFFFF)};
    std::array<uint16_t, k_lasting> vlans_{};
    uint32_t vlans_set_ = 0;
    std::atomic<const char*> name_ = nullptr;  // of the call under way
    std::atomic<std::chrono::steady_clock::time_point> since_{};
};

}  // namespace soak
