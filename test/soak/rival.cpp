// rival.cpp - managers that run for some seconds each.
//
// While the host holds the ports, no call of the rival may get a frame out to a card: it tries all
// calls, and each has to be refused. When the host does not hold them, the rival may succeed; it
// only reads then, and the values must be right. Then the host is refused, until the rival's
// manager stops. A call that begins as the hold ends may slip through. It does no harm, because it
// uses places that nobody else uses.

#include "rival.h"

#include <cstdio>
#include <iterator>
#include <random>
#include <string>
#include <thread>

#include "checks/tally.h"
#include "site.h"

namespace soak {

namespace {

using clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr qnm_retry_t k_retry = {30, 20};
constexpr milliseconds k_between{5};

struct attempt {
    const char* name;
    qnm_api_code_t (*run)(uint64_t id);
};

uint64_t reset_often(uint64_t drawn) {
    return card_id(k_lasting + 15 + 20 * (drawn % 50));
}

// The first call is the read, whose value is checked.
constexpr attempt k_attempts[] = {
    {"qnm_read_register",
     [](uint64_t id) {
         uint32_t value = 0;
         const auto ret = qnm_read_register(id, k_preset_registers, &value, &k_retry, 0);
         const bool right = value == preset_value(id, k_preset_registers);
         return ret == QNM_API_SUCCESS && !right ? QNM_API_CODE_MAX : ret;
     }},
    {"qnm_read_register with a look for a path",
     [](uint64_t id) {
         uint32_t value = 0;
         return qnm_read_register(id, k_preset_registers, &value, &k_retry, QNM_FLAG_LIVECHECK);
     }},
    {"qnm_dump_register",
     [](uint64_t id) {
         uint32_t data[2];
         size_t length = sizeof data;
         return qnm_dump_register(id, k_preset_registers, k_preset_registers + sizeof data, data,
                                  &length, &k_retry, 0);
     }},
    {"qnm_write_register",
     [](uint64_t id) { return qnm_write_register(id, k_scratch_register, 1, &k_retry, 0); }},
    {"qnm_modify_register",
     [](uint64_t id) { return qnm_modify_register(id, k_scratch_register, 1, 1, &k_retry, 0); }},
    {"qnm_read_eeprom",
     [](uint64_t id) {
         uint32_t value = 0;
         return qnm_read_eeprom(id, k_preset_words, &value, &k_retry, 0);
     }},
    {"qnm_dump_eeprom",
     [](uint64_t id) {
         uint32_t data[2];
         size_t length = sizeof data;
         return qnm_dump_eeprom(id, k_preset_words, k_preset_words + sizeof data, data, &length,
                                &k_retry, 0);
     }},
    {"qnm_write_eeprom",
     [](uint64_t id) { return qnm_write_eeprom(id, k_scratch_word, 1, &k_retry, 0); }},
    {"qnm_unlock_eeprom", [](uint64_t id) { return qnm_unlock_eeprom(id); }},
    {"qnm_set_vlanid",
     [](uint64_t id) { return qnm_set_vlanid(reset_often(id >> 4), k_reset_vlan, &k_retry, 0); }},
    {"qnm_send_resetframe",
     [](uint64_t id) { return qnm_send_resetframe(reset_often(id >> 4), 0, nullptr, 0); }},
    {"qnm_write_mmspage",
     [](uint64_t id) {
         uint32_t page[32] = {};
         return qnm_write_mmspage(reset_often(id >> 4), 0, page, 0);
     }},
};

class rival {
  public:
    rival(stage& shared, const plan& planned) : shared_(shared), random_(planned.seed) {}

    bool run() {
        while (!shared_.over)
            live();
        return tally_.failures() == 0;
    }

  private:
    // One manager. It may find no port that is up, and then does not start.
    void live() {
        e2e::manager manager(site_.path());
        std::this_thread::sleep_for(k_between);
        if (!manager.is_running()) return;
        shared_.rival_managers++;
        const auto end = clock::now() + milliseconds(1000 + random_() % 3000);
        while (clock::now() < end && !shared_.over) {
            if (manager.has_ended()) return tally_.fail("the rival's manager has ended by itself");
            try_access();
            std::this_thread::sleep_for(k_between);
        }
        const qnm_api_code_t ret = manager.stop();
        if (ret != QNM_API_SUCCESS) {
            tally_.fail("the rival's qnm_init_manager returned " + std::to_string(ret));
        }
    }

    void try_access() {
        const unsigned hold = shared_.hold;
        const bool held = hold % 2 == 1;
        const attempt& it = k_attempts[held ? random_() % std::size(k_attempts) : 0];
        const qnm_api_code_t ret = it.run(card_id(random_() % k_lasting));
        if (ret == QNM_API_CODE_MAX) return tally_.fail("wrong register for the rival");
        if (held && hold == shared_.hold) {
            judge(it, ret);
        } else if (ret == QNM_API_SUCCESS) {
            shared_.rival_reads++;
        }
    }

    // The manager may not know the card yet, or no path to it; otherwise the call is refused.
    void judge(const attempt& made, qnm_api_code_t ret) {
        if (ret == QNM_API_EBUSY) {
            shared_.rival_refused++;
        } else if (ret != QNM_API_ENOENT && ret != QNM_API_ENOLINK) {
            tally_.fail(std::string("the rival's ") + made.name + " returned " +
                        std::to_string(ret) + " beside the host");
        }
    }

    stage& shared_;
    std::mt19937 random_;
    site site_;
    tally tally_{{}};
};

}  // namespace

bool run_rival(stage& shared, const plan& planned) {
    return rival(shared, planned).run();
}

}  // namespace soak
