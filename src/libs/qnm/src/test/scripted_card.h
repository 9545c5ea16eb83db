// scripted_card.h - a card in place of the register loops, for the tests of what is built on them.
//
// The linker hands a unit's register accesses, and its use of the card's write lock, to the card
// that lives here; without one they go where they always go. It is an EEPROM with both locks that
// works, until a test tells it what to answer instead, and it writes down each step:
//     "R 5010"             a register read
//     "W 5010=80000001"    a register write
//     "V 5014=700FC"       a verified register write
//     "M 50F0=0/4"         a verified modify: data and mask
//     "S 50"               a sleep of 50 ms
//     "lock", "unlock"     of the card's write lock
// For one thread, and for one source file of an executable: the wrappers are defined here.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "answering_card.h"

using steps = std::vector<std::string>;

inline steps operator+(steps first, const steps& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

inline steps times(size_t count, const steps& once) {
    steps all;
    while (count-- != 0)
        all = all + once;
    return all;
}

class scripted_card {
  public:
    static constexpr uint32_t k_ready = 0x40000000, k_complete = 0x10000000, k_refused = 0x30000000;
    static constexpr uint32_t k_bit_lock = 0x50F0, k_id_request = 0x5200, k_id_unlock = 0x5204,
                              k_id_status = 0x5208, k_lock_type = 0x520C;

    // What a read finds: a value, or an error.
    struct answer {
        answer(uint32_t found) : value(found) {}
        answer(uint32_t found, int failed) : value(found), err(failed) {}
        uint32_t value;
        int err = 0;
    };
    static answer failed(int err) { return {0, err}; }

    scripted_card() {
        current = this;
        reset();
        fail::on_sleep([this](std::chrono::nanoseconds duration) {
            note("S %lld", static_cast<long long>(duration / std::chrono::milliseconds(1)));
            if (++s_.sleeps == s_.stop_at_sleep) stop();
        });
    }
    ~scripted_card() { current = nullptr; }
    scripted_card(const scripted_card&) = delete;
    scripted_card& operator=(const scripted_card&) = delete;

    // A working card again that nothing has happened to.
    void reset() {
        s_ = {};
        for (const eeprom& it : k_eeproms)
            s_.registers[it.control] = k_ready;
        set_running();
    }

    // ---- What it is told ----

    // What reads of a register find in turn; the last of them lasts.
    void on_read(uint32_t addr, std::vector<answer> answers) {
        s_.answers[addr] = {std::move(answers), 0};
    }
    // How writes and modifies of a register fail in turn; after them they succeed.
    void on_write(uint32_t addr, std::vector<int> errs) { s_.errors[addr] = {std::move(errs), 0}; }
    // The n-th register access fails.
    void fail_at(size_t n, int err) {
        s_.fail_at = n;
        s_.fail_err = err;
    }
    // A stop is requested in the n-th sleep, or while the write lock is awaited.
    void stop_at_sleep(size_t n) { s_.stop_at_sleep = n; }
    // A stop is requested in the n-th register access, which it ends where it waits for an answer.
    // A real card may or may not have got what was written; here it has, as that leaves most
    // behind.
    void stop_at(size_t n) { s_.stop_at = n; }
    void stop_at_lock() { s_.stop_at_lock = true; }
    // The interval and count that each access has to come with.
    void expect_retry(const qnm_retry_t& retry) { s_.retry = retry; }
    void set(uint32_t addr, uint32_t value) { s_.registers[addr] = value; }
    void offer_id_lock() { set(k_lock_type, 1); }
    uint32_t& memory(uint32_t form) { return s_.memory[form]; }

    static void stop() { qnm::store(qnm_root.er_fini_flag, 0U); }

    // ---- What it has seen ----

    const steps& seen() const { return s_.seen; }
    uint32_t get(uint32_t addr) { return s_.registers[addr]; }
    const qnm_com_dev_t& dev() const { return s_.dev; }
    size_t count(const std::string& step) const {
        return static_cast<size_t>(std::count(s_.seen.begin(), s_.seen.end(), step));
    }
    // The register accesses alone.
    steps accesses() const {
        steps found = s_.seen;
        std::erase_if(found, [](const std::string& step) { return step.find(' ') != 1; });
        std::erase_if(found, [](const std::string& step) { return step[0] == 'S'; });
        return found;
    }

    // ---- Where the linker sends the unit's calls ----

    static inline scripted_card* current = nullptr;

    int read(const qnm_com_dev_t* dev, uint32_t addr, uint32_t* data, uint32_t interval,
             uint32_t count) {
        note("R %X", addr);
        answer found = take(addr);
        if (const int err = visit(dev, interval, count); err != 0) found.err = err;
        if (found.err == 0) *data = found.value;
        return found.err;
    }

    int write(const qnm_com_dev_t* dev, uint32_t addr, uint32_t data, uint32_t interval,
              uint32_t count, uint32_t flags) {
        note(flags == 0 ? "W %X=%X" : "V %X=%X", addr, data);
        EXPECT_EQ(flags & ~uint32_t{QNM_FLAG_VERIFY}, 0U);
        int err = visit(dev, interval, count);
        const bool is_stop = s_.visits == s_.stop_at;
        if (is_stop && flags == 0) err = 0;
        if (err == 0) err = take_error(addr);
        if (err == 0 || is_stop) obey(addr, data);
        return err;
    }

    int modify(const qnm_com_dev_t* dev, uint32_t addr, uint32_t data, uint32_t mask,
               uint32_t interval, uint32_t count, uint32_t flags) {
        note("M %X=%X/%X", addr, data, mask);
        EXPECT_EQ(flags, uint32_t{QNM_FLAG_VERIFY});
        int err = visit(dev, interval, count);
        if (err == 0) err = take_error(addr);
        if (err == 0) obey(addr, (s_.registers[addr] & ~mask) | (data & mask));
        return err;
    }

    void locked() {
        note("lock");
        if (s_.stop_at_lock) stop();
    }
    void unlocked() { note("unlock"); }

  private:
    struct eeprom {
        uint32_t control, address, read_data, write_data;
    };
    static constexpr eeprom k_eeproms[] = {{0x5010, 0x5014, 0x5018, 0x501C},
                                           {0x40, 0x44, 0x48, 0x4C}};

    template <typename Entry>
    struct script {
        std::vector<Entry> entries;
        size_t next = 0;
    };

    template <typename... Args>
    void note(const char* format, Args... args) {
        char text[64];
        snprintf(text, sizeof text, format, args...);
        s_.seen.emplace_back(text);
    }
    void note(const char* text) { s_.seen.emplace_back(text); }

    // Every access: nothing of the tables is locked, and the caller's retry parameters are in use.
    int visit(const qnm_com_dev_t* dev, uint32_t interval, uint32_t count) {
        const bool is_free = pthread_mutex_trylock(&qnm_qn.eei_mutex.em_mutex) == 0;
        EXPECT_TRUE(is_free) << "the tables are locked";
        if (is_free) pthread_mutex_unlock(&qnm_qn.eei_mutex.em_mutex);
        EXPECT_EQ(interval, s_.retry.er_retry_interval) << s_.seen.back();
        EXPECT_EQ(count, s_.retry.er_retry_count) << s_.seen.back();
        s_.dev = *dev;
        if (++s_.visits == s_.stop_at) {
            stop();
            return ENOSYS;
        }
        return s_.visits == s_.fail_at ? s_.fail_err : 0;
    }

    answer take(uint32_t addr) {
        const auto found = s_.answers.find(addr);
        if (found == s_.answers.end()) return s_.registers[addr];
        auto& [entries, next] = found->second;
        return entries[std::min(next++, entries.size() - 1)];
    }

    int take_error(uint32_t addr) {
        auto& [entries, next] = s_.errors[addr];
        return next < entries.size() ? entries[next++] : 0;
    }

    void obey(uint32_t addr, uint32_t data) {
        if (addr == k_id_request) {
            s_.registers[k_id_status] |= data;
            if (s_.registers[k_id_request] == 0) s_.registers[k_id_request] = data;
        } else if (addr == k_id_unlock) {
            release(data);
        } else {
            s_.registers[addr] = data;
        }
        for (const eeprom& it : k_eeproms) {
            if (addr == it.control) command(it, data);
        }
    }

    // The lock goes from its holder to another one that has asked for it.
    void release(uint32_t ids) {
        uint32_t& asking = s_.registers[k_id_status];
        uint32_t& holder = s_.registers[k_id_request];
        asking &= ~ids;
        if ((holder & ids) != 0) holder = asking & ~(asking - 1);
    }

    void command(const eeprom& it, uint32_t data) {
        uint32_t& word = s_.memory[s_.registers[it.address]];
        if (data == 0x80000001) s_.registers[it.read_data] = word;
        if (data == 0x80000003) word = s_.registers[it.write_data];
        s_.registers[it.control] = data == 0 ? k_ready : k_complete;
    }

    struct state {
        std::map<uint32_t, uint32_t> registers;
        std::map<uint32_t, uint32_t> memory;  // by the form of the address
        std::map<uint32_t, script<answer>> answers;
        std::map<uint32_t, script<int>> errors;
        steps seen;
        qnm_com_dev_t dev = {};
        size_t visits = 0, fail_at = 0, stop_at = 0, sleeps = 0, stop_at_sleep = 0;
        int fail_err = 0;
        bool stop_at_lock = false;
        qnm_retry_t retry = {};
    };

    state s_;
};

extern "C" {

int __real__qnm_read_register(const qnm_com_dev_t* dev, uint32_t addr, uint32_t* data,
                              uint32_t interval, uint32_t count);
int __real__qnm_write_register(const qnm_com_dev_t* dev, uint32_t addr, uint32_t data,
                               uint32_t interval, uint32_t count, uint32_t flags);
int __real__qnm_modify_register(const qnm_com_dev_t* dev, uint32_t addr, uint32_t data,
                                uint32_t mask, uint32_t interval, uint32_t count, uint32_t flags);
int __real__qnm_write_reg_lock(uint64_t id);
int __real__qnm_write_reg_unlock(uint64_t id);

int __wrap__qnm_read_register(const qnm_com_dev_t* dev, uint32_t addr, uint32_t* data,
                              uint32_t interval, uint32_t count) {
    if (scripted_card::current == nullptr) {
        return __real__qnm_read_register(dev, addr, data, interval, count);
    }
    return scripted_card::current->read(dev, addr, data, interval, count);
}

int __wrap__qnm_write_register(const qnm_com_dev_t* dev, uint32_t addr, uint32_t data,
                               uint32_t interval, uint32_t count, uint32_t flags) {
    if (scripted_card::current == nullptr) {
        return __real__qnm_write_register(dev, addr, data, interval, count, flags);
    }
    return scripted_card::current->write(dev, addr, data, interval, count, flags);
}

int __wrap__qnm_modify_register(const qnm_com_dev_t* dev, uint32_t addr, uint32_t data,
                                uint32_t mask, uint32_t interval, uint32_t count, uint32_t flags) {
    if (scripted_card::current == nullptr) {
        return __real__qnm_modify_register(dev, addr, data, mask, interval, count, flags);
    }
    return scripted_card::current->modify(dev, addr, data, mask, interval, count, flags);
}

int __wrap__qnm_write_reg_lock(uint64_t id) {
    const int err = __real__qnm_write_reg_lock(id);
    if (scripted_card::current != nullptr && err == 0) scripted_card::current->locked();
    return err;
}

int __wrap__qnm_write_reg_unlock(uint64_t id) {
    if (scripted_card::current != nullptr) scripted_card::current->unlocked();
    return __real__qnm_write_reg_unlock(id);
}

}  // extern "C"
