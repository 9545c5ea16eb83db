// qnm_eeprom_send.cpp - EEPROM access through the card's EEPROM registers.
//
// A card's 2048 bytes are accessed through an address, a control/status and two data registers.
// Several hosts and the card itself share these, so every word is read or written under a lock that
// the card keeps. A card offers one of two locks, as its lock type register tells: a register with
// one bit per party, or a grant to one ID at a time. With QNM_FLAG_FORCELOCK a lock held by another
// party is taken away from it, at most as often as configured.
//
// Everything here is register access, and each step may fail. EPROTO and ENOSYS (a stop) end every
// loop at once; any other failure is a failed attempt, and attempts are counted. EBUSY from the
// port, held by another process, shows with the first frame, before any loop; an EBUSY within a
// loop is taken as the card's.
//
// A card must not stay locked because a manager stops. Each call keeps a record of what this host
// may have left on the card (traces). A loop that ends at once withdraws it by frames that are not
// waited for: first the command, then the lock.

#include "qnm_eeprom_send.h"

#include <cerrno>
#include <optional>

#include "qnm_card_call.h"
#include "qnm_config.h"
#include "qnm_reg_send.h"
#include "qnm_root.h"

namespace {

constexpr uint32_t k_size = 2048;
constexpr uint32_t k_last_word = k_size - sizeof(uint32_t);

// Registers of the EEPROM itself, for 1G/10G cards and for 40G cards.
struct eeprom_registers {
    uint32_t control;
    uint32_t address;
    uint32_t read_data;
    uint32_t write_data;
};

constexpr eeprom_registers k_registers[] = {
    {0x5010, 0x5014, 0x5018, 0x501C},
    {0x40, 0x44, 0x48, 0x4C},
};

// Registers of its locks.
constexpr uint32_t k_bit_lock = 0x50F0;
constexpr uint32_t k_id_request = 0x5200;  // written: an ID that asks; read: the ID that holds
constexpr uint32_t k_id_unlock = 0x5204;
constexpr uint32_t k_id_status = 0x5208;
constexpr uint32_t k_lock_type = 0x520C;

constexpr uint32_t k_command_read = 0x80000001;
constexpr uint32_t k_command_write = 0x80000003;
constexpr uint32_t k_command_none = 0;
constexpr uint32_t k_own_bit = 0x4;
constexpr uint32_t k_own_id = 4;
constexpr uint32_t k_all_ids = 0xFFFF;
constexpr uint32_t k_id_lock_offered = 0x1;

bool is_ready(uint32_t status) {
    return (status & 0x40000001) == 0x40000000;
}

bool is_complete(uint32_t status) {
    return (status & 0x10000001) == 0x10000000;
}

bool is_refused(uint32_t status) {
    return (status & 0x30000000) == 0x30000000;
}

uint32_t packed(uint32_t addr) {
    return (addr & 0xF00) << 8 | (addr & 0xFF);
}

// Whether an error ends every loop.
bool is_final(int err) {
    return err == EPROTO || err == ENOSYS;
}

// ---- Register access of one call ----------------------------------------------------------------

// What this host may have left on the card.
struct traces {
    bool command = false;      // in the control register
    bool bit = false;          // in the bit lock register
    uint32_t others_bits = 0;  // of the other parties there, as last read
    bool id = false;           // among the requests for the ID lock
};

struct card_access {
    qnm_com_dev_t* dev;
    uint32_t interval;
    uint32_t count;
    traces* left;
};

card_access access_of(qnm_com_dev_t* dev, const qnm_retry_t& retry, traces* left) {
    return {dev, retry.er_retry_interval, retry.er_retry_count, left};
}

const eeprom_registers& registers_of(const card_access& card) {
    return k_registers[card.dev->ecd_type == 0 ? 0 : 1];
}

int read_register(const card_access& card, uint32_t addr, uint32_t* data) {
    return _qnm_read_register(card.dev, addr, data, card.interval, card.count);
}

int write_register(const card_access& card, uint32_t addr, uint32_t data, uint32_t flags = 0) {
    return _qnm_write_register(card.dev, addr, data, card.interval, card.count, flags);
}

int clear_bits(const card_access& card, uint32_t addr, uint32_t mask) {
    return _qnm_modify_register(card.dev, addr, 0, mask, card.interval, card.count,
                                QNM_FLAG_VERIFY);
}

// When to sleep between attempts.
enum class pause_after {
    any_failure,
    refusal,  // EAGAIN or EBUSY from the card; a failed register access has taken its own time
};

// Makes attempts until one succeeds or ends every loop, at most retries + 1. Returns the last
// error.
template <typename Attempt>
int repeat(uint32_t retries, uint32_t interval, pause_after pause, Attempt attempt) {
    int err = 0;
    for (uint64_t n = 0; n <= retries; n++) {
        if (!qnm::is_running()) return ENOSYS;
        err = attempt();
        if (err == 0 || is_final(err)) return err;
        if (pause == pause_after::any_failure || err == EAGAIN || err == EBUSY) {
            _qnm_sleep_while_running(interval);
        }
    }
    return qnm::is_running() ? err : ENOSYS;
}

// The result of a loop whose last error does not matter to the caller.
int or_timed_out(int err) {
    return err == 0 || is_final(err) ? err : ETIMEDOUT;
}

// Attempts at a lock, as configured.
template <typename Attempt>
int repeat_lock(pause_after pause, Attempt attempt) {
    return repeat(qnm_config.eeprom_retry_count, qnm_config.eeprom_retry_interval, pause, attempt);
}

// Releases a lock; if a stop or an error leaves no way to verify that, withdraws it unverified.
int or_take_back(const card_access& card, int (*release)(const card_access& card),
                 int (*take_back)(const card_access& card)) {
    if (!qnm::is_running()) return take_back(card);
    const int err = release(card);
    if (is_final(err)) take_back(card);
    return err;
}

// ---- Lock by bits -------------------------------------------------------------------------------

int _qnm_unlock_eeprom(const card_access& card) {
    const int err = clear_bits(card, k_bit_lock, k_own_bit);
    if (err == 0) card.left->bit = false;
    return err;
}

int _qnm_unlock_eeprom_impl(const card_access& card) {
    const int err = clear_bits(card, k_bit_lock, qnm_config.eeprom_lock_other_bit);
    if (err == 0) card.left->others_bits &= ~qnm_config.eeprom_lock_other_bit;
    return err;
}

// Clears our own bit by a frame that is not waited for.
int take_bit_back(const card_access& card) {
    if (!card.left->bit) return 0;
    card.left->bit = false;
    return write_register(card, k_bit_lock, card.left->others_bits);
}

// At the end of an access there is no next attempt. If the bits could not be read, none was
// written, so the bit is cleared unverified.
int release_bit(const card_access& card) {
    const int err = _qnm_unlock_eeprom(card);
    if (err != 0) take_bit_back(card);
    return err;
}

int read_lock_bits(const card_access& card, uint32_t* bits) {
    const int err = read_register(card, k_bit_lock, bits);
    if (err != 0) return err;
    card.left->others_bits = *bits & ~k_own_bit;
    if ((*bits & k_own_bit) == 0) card.left->bit = false;
    return 0;
}

// Watches the lock register for a while after it was written, because another party may have
// written it at the same time: EBUSY if it changed. *bits is the last value read.
int confirm_bit(const card_access& card, uint32_t written, uint32_t* bits) {
    for (uint32_t n = 0; n < qnm_config.eeprom_verify_count; n++) {
        _qnm_sleep_while_running(qnm_config.eeprom_verify_interval);
        if (!qnm::is_running()) return ENOSYS;
        const int err = read_lock_bits(card, bits);
        if (err != 0) return err;
        if (*bits != written) return EBUSY;
    }
    return 0;
}

// One attempt: EBUSY while another party holds the lock. A bit that cannot be confirmed is
// withdrawn.
int _qnm_lock_eeprom_impl(const card_access& card) {
    uint32_t bits = 0;
    int err = read_lock_bits(card, &bits);
    if (err != 0) return err;
    if ((bits & qnm_config.eeprom_lock_other_bit) != 0) return EBUSY;
    card.left->bit = true;
    if ((bits & k_own_bit) != 0) return 0;
    bits |= k_own_bit;
    err = write_register(card, k_bit_lock, bits, QNM_FLAG_VERIFY);
    if (err != 0) return err;
    err = confirm_bit(card, bits, &bits);
    if (err == 0 || is_final(err) || (bits & k_own_bit) == 0) return err;
    const int release_err = or_take_back(card, _qnm_unlock_eeprom, take_bit_back);
    if (release_err == 0) return err;
    qnm_log_trace("%s: Failed to _qnm_unlock_eeprom(). err=%d", __func__, release_err);
    return is_final(release_err) ? release_err : err;
}

constexpr char k_lock_by_bits_name[] = "_qnm_lock_eeprom";

int take_bit(const card_access& card, uint32_t flags) {
    const char* const func = k_lock_by_bits_name;
    const auto log_attempt = [=](int err) {
        qnm_log_trace("%s: Failed to _qnm_lock_eeprom_impl(). err=%d", func, err);
    };
    for (uint32_t forced = 0;; forced++) {
        int err = repeat_lock(pause_after::refusal, [&] {
            const int attempt_err = _qnm_lock_eeprom_impl(card);
            if (is_final(attempt_err)) log_attempt(attempt_err);
            return attempt_err;
        });
        if (err == 0 || is_final(err)) return err;
        if ((flags & QNM_FLAG_FORCELOCK) == 0) {
            log_attempt(err);
            return err;
        }
        if (forced == qnm_config.force_lock_try_count) {
            qnm_log_warn("%s: EEPROM access forcelock mode retry timedout.", func);
            return ETIMEDOUT;
        }
        err = _qnm_unlock_eeprom_impl(card);
        if (err != 0) {
            qnm_log_trace("%s: Failed to _qnm_modify_register(). ret=%d", func, err);
            return err;
        }
    }
}

// Takes the lock; if it ends at once, withdraws what this host has written.
int lock_by_bits(const card_access& card, uint32_t flags) {
    const int err = take_bit(card, flags);
    if (is_final(err)) take_bit_back(card);
    return err;
}

// ---- Lock by ID ---------------------------------------------------------------------------------

// Requests the lock until the card has noted the request.
int request_id(const card_access& card) {
    return or_timed_out(repeat_lock(pause_after::refusal, [&] {
        uint32_t granted = 0;
        int err = write_register(card, k_id_request, k_own_id);
        if (err == 0) {
            card.left->id = true;
            err = read_register(card, k_id_status, &granted);
        }
        if (err != 0) return err;
        return (granted & k_own_id) != 0 ? 0 : EAGAIN;
    }));
}

// Waits until the card names this host as the holder: EBUSY if it still names another one at last.
int await_holder(const card_access& card, uint32_t* holder) {
    return repeat_lock(pause_after::any_failure, [&] {
        const int err = read_register(card, k_id_request, holder);
        if (err != 0) return err;
        return *holder == k_own_id ? 0 : EBUSY;
    });
}

// One attempt to release IDs: EAGAIN while the card still has any of them.
int _qnm_unlock_eeprom_id_impl(const card_access& card, uint32_t ids) {
    if (ids == 0) return 0;
    uint32_t granted = 0;
    int err = write_register(card, k_id_unlock, ids);
    if (err == 0) err = read_register(card, k_id_status, &granted);
    if (err != 0) return err;
    return (granted & ids) == 0 ? 0 : EAGAIN;
}

int _qnm_unlock_eeprom_id(const card_access& card, uint32_t ids) {
    return or_timed_out(
        repeat_lock(pause_after::refusal, [&] { return _qnm_unlock_eeprom_id_impl(card, ids); }));
}

int release_own_id(const card_access& card) {
    const int err = _qnm_unlock_eeprom_id(card, k_own_id);
    if (err == 0) card.left->id = false;
    return err;
}

// Releases our own ID by a frame that is not waited for.
int take_id_back(const card_access& card) {
    if (!card.left->id) return 0;
    card.left->id = false;
    return write_register(card, k_id_unlock, k_own_id);
}

// Waits to become the holder; by force, takes the lock away from the present holder.
int _qnm_lock_check_id(const card_access& card, uint32_t flags) {
    for (uint32_t forced = 0;; forced++) {
        uint32_t holder = 0;
        int err = await_holder(card, &holder);
        if (err == 0 || is_final(err)) return err;
        if (err != EBUSY) {
            qnm_log_trace("%s: Failed to _qnm_read_register(). err=%d", __func__, err);
            return err;
        }
        if ((flags & QNM_FLAG_FORCELOCK) == 0) {
            qnm_log_trace("%s: Other have acquired the lock.", __func__);
            return EBUSY;
        }
        if (forced == qnm_config.force_lock_try_count) {
            qnm_log_warn("%s: EEPROM access forcelock mode retry timedout.", __func__);
            return ETIMEDOUT;
        }
        err = _qnm_unlock_eeprom_id(card, holder);
        if (is_final(err)) return err;
    }
}

constexpr char k_lock_by_id_name[] = "_qnm_lock_eeprom_id";

int take_id(const card_access& card, uint32_t flags) {
    int err = request_id(card);
    if (err != 0) return err;
    err = _qnm_lock_check_id(card, flags);
    if (err == 0 || is_final(err)) return err;
    const int release_err = or_take_back(card, release_own_id, take_id_back);
    if (release_err != 0) {
        qnm_log_trace("%s: Failed to _qnm_unlock_eeprom_id(). err=%d", k_lock_by_id_name,
                      release_err);
    }
    return err;
}

// Takes the lock, or withdraws the request, also when it ends at once.
int lock_by_id(const card_access& card, uint32_t flags) {
    const int err = take_id(card, flags);
    if (is_final(err)) take_id_back(card);
    return err;
}

// ---- The lock that a card offers ----------------------------------------------------------------

int release_all_ids(const card_access& card) {
    return _qnm_unlock_eeprom_id(card, k_all_ids);
}

// A step with a lock, and its name for the log when it fails.
template <typename... Args>
struct lock_step {
    int (*run)(const card_access& card, Args... args);
    const char* name;
};

struct eeprom_lock {
    lock_step<uint32_t> take;  // gets the call's flags
    lock_step<> release;
    lock_step<> free;  // from the other parties
    int (*take_back)(const card_access& card);
};

constexpr eeprom_lock k_lock_by_bits = {{lock_by_bits, k_lock_by_bits_name},
                                        {release_bit, "_qnm_unlock_eeprom"},
                                        {_qnm_unlock_eeprom_impl, "_qnm_unlock_eeprom_impl"},
                                        take_bit_back};
constexpr eeprom_lock k_lock_by_id = {{lock_by_id, k_lock_by_id_name},
                                      {release_own_id, "_qnm_unlock_eeprom_id"},
                                      {release_all_ids, "_qnm_unlock_eeprom_id"},
                                      take_id_back};

void log_failure(const char* func, const char* failed, int err) {
    qnm_log_error("%s: Failed to %s(). err=%d", func, failed, err);
}

int _qnm_get_locktype(const char* func, const card_access& card, const eeprom_lock** lock) {
    uint32_t type = 0;
    const int err = read_register(card, k_lock_type, &type);
    if (err != 0) log_failure(func, __func__, err);
    *lock = (type & k_id_lock_offered) != 0 ? &k_lock_by_id : &k_lock_by_bits;
    return err;
}

// A card's EEPROM lock for a scope. release() releases it early and returns the result.
class eeprom_lock_guard {
  public:
    eeprom_lock_guard(const card_access& card, const eeprom_lock& lock, uint32_t flags)
        : card_(card), lock_(lock), err_(lock.take.run(card, flags)), held_(err_ == 0) {}
    ~eeprom_lock_guard() { release(); }
    eeprom_lock_guard(const eeprom_lock_guard&) = delete;
    eeprom_lock_guard& operator=(const eeprom_lock_guard&) = delete;
    int err() const { return err_; }
    int release() {
        if (!held_) return 0;
        held_ = false;
        return or_take_back(card_, lock_.release.run, lock_.take_back);
    }

  private:
    const card_access& card_;
    const eeprom_lock& lock_;
    const int err_;
    bool held_;
};

// ---- Words --------------------------------------------------------------------------------------

// Polls the status until a command is complete: EACCES when the card refuses it, EAGAIN when it
// takes too long.
int await_completion(const char* func, const card_access& card) {
    for (uint32_t k = 0;; k++) {
        if (!qnm::is_running()) return ENOSYS;
        uint32_t status = 0;
        _qnm_sleep_while_running(qnm_config.eeprom_check_interval);
        const int err = read_register(card, registers_of(card).control, &status);
        if (err != 0) return is_final(err) ? err : EAGAIN;
        if (is_refused(status)) return EACCES;
        if (is_complete(status)) {
            qnm_log_debug("%s: EEPROM access complete. count:%d", func, static_cast<int>(k));
            return 0;
        }
        if (k + 1 > qnm_config.eeprom_check_retry_count) return EAGAIN;
    }
}

int _check_access(const card_access& card, uint32_t address, uint32_t command) {
    const eeprom_registers& registers = registers_of(card);
    int err = write_register(card, registers.address, address, QNM_FLAG_VERIFY);
    if (err == 0) {
        card.left->command = true;
        err = write_register(card, registers.control, command);
    }
    if (err != 0) return is_final(err) ? err : EAGAIN;
    return await_completion(__func__, card);
}

// Issues a command for the word at addr, in the form of address that the card accepts: EACCES if it
// accepts none.
int issue(const char* func, const card_access& card, uint32_t addr, uint32_t command) {
    int err = EACCES;
    if (card.dev->ecd_type == 0 && qnm_config.eeprom_type == 0) {
        err = _check_access(card, packed(addr), command);
    }
    if (err != EACCES) return err;
    err = _check_access(card, addr, command);
    if (err == EACCES) qnm_log_info("%s: Failed to _check_access(). err=%d", func, err);
    return err;
}

int clear_command(const card_access& card) {
    const int err = write_register(card, registers_of(card).control, k_command_none);
    if (err == 0) card.left->command = false;
    return err;
}

// Clears the command and stores whether the EEPROM is ready again.
int rest(const char* func, const card_access& card, bool* ready) {
    uint32_t status = 0;
    *ready = false;
    int err = clear_command(card);
    if (err != 0) {
        qnm_log_trace("%s: Failed to _qnm_write_register(). err=%d", func, err);
        if (is_final(err)) return err;
    }
    err = read_register(card, registers_of(card).control, &status);
    if (err != 0) {
        qnm_log_trace("%s: Failed to _qnm_read_register(). err=%d", func, err);
        return is_final(err) ? err : 0;
    }
    *ready = is_ready(status);
    return 0;
}

// The result of an attempt on a word.
struct attempt {
    int err = 0;         // of the work: 0, EACCES when the card refused it, EAGAIN
    bool ready = false;  // whether the EEPROM was ready afterwards
};

// Does work() if the EEPROM is ready for it. Returns an error that ends every loop, or 0.
template <typename Work>
int work_and_rest(const char* func, const card_access& card, attempt* result, Work work) {
    uint32_t status = 0;
    result->err = EAGAIN;
    const int err = read_register(card, registers_of(card).control, &status);
    if (err != 0) {
        qnm_log_trace("%s: Failed to _qnm_read_register() of access check. err=%d", func, err);
        if (is_final(err)) return err;
    } else if (is_ready(status)) {
        result->err = work();
        if (is_final(result->err)) return result->err;
    }
    return rest(func, card, &result->ready);
}

// The same, and clears the command of this host if it ends with an error.
template <typename Work>
int try_word(const char* func, const card_access& card, attempt* result, Work work) {
    const int err = work_and_rest(func, card, result, work);
    if (err != 0 && card.left->command) clear_command(card);
    return err;
}

int try_read(const char* func, const card_access& card, uint32_t addr, uint32_t* word,
             attempt* result) {
    return try_word(func, card, result, [&] {
        int err = issue(func, card, addr, k_command_read);
        if (err != 0) return err;
        err = read_register(card, registers_of(card).read_data, word);
        if (err != 0) {
            qnm_log_trace("%s: Failed to _qnm_read_register() of getting EEPROM data. err=%d", func,
                          err);
        }
        return err;
    });
}

// 0 when the card reported the write complete; EPROTO when it refused it; EAGAIN.
int _qnm_write_eeprom_impl(const card_access& card, uint32_t addr, uint32_t data) {
    const char* const func = __func__;
    attempt result;
    const int err = try_word(func, card, &result, [&] {
        const int set_err =
            write_register(card, registers_of(card).write_data, data, QNM_FLAG_VERIFY);
        if (set_err == 0) return issue(func, card, addr, k_command_write);
        qnm_log_trace("%s: Failed to _qnm_write_register() of setting data. err=%d", func, set_err);
        return set_err;
    });
    if (err != 0 || result.err == 0) return err;
    return result.err == EACCES ? EPROTO : EAGAIN;
}

// Writes a word and, if asked for, reads it back; EAGAIN if it differs.
int write_word(const card_access& card, uint32_t addr, uint32_t data, uint32_t flags) {
    int err = _qnm_write_eeprom_impl(card, addr, data);
    if (err != 0 || (flags & QNM_FLAG_VERIFY) == 0) return err;
    uint32_t word = 0;
    err = _qnm_read_eeprom(card.dev, addr, &word, card.interval, card.count);
    if (err != 0) return err;
    return word == data ? 0 : EAGAIN;
}

// A card that may be reached, under its write lock and its EEPROM lock; only if err() is 0.
class QNM_SCOPED_CAPABILITY locked_eeprom {
  public:
    locked_eeprom(const char* func, uint64_t id, const qnm_retry_t* retry_param, uint32_t flags)
        QNM_ACQUIRE(qnm::card_write_lock)
        : func_(func),
          locked_(func, id, flags),
          card_(access_of(locked_.dev(), qnm::effective(retry_param), &left_)),
          err_(take_lock(flags)) {}
    ~locked_eeprom() QNM_RELEASE() {}
    locked_eeprom(const locked_eeprom&) = delete;
    locked_eeprom& operator=(const locked_eeprom&) = delete;
    int err() const { return err_; }
    const card_access& card() const { return card_; }

    // Ends the access: releases the EEPROM lock and logs failures. Returns err, that of the access.
    int end(const char* work_name, int err) {
        if (err != 0) log_failure(func_, work_name, err);
        const int release_err = held_->release();
        if (release_err != 0) log_failure(func_, lock_->release.name, release_err);
        return err;
    }

  private:
    int take_lock(uint32_t flags) {
        if (locked_.err() != 0) return locked_.err();
        const int type_err = _qnm_get_locktype(func_, card_, &lock_);
        if (type_err != 0) return type_err;
        held_.emplace(card_, *lock_, flags);
        if (held_->err() != 0) log_failure(func_, lock_->take.name, held_->err());
        return held_->err();
    }

    const char* const func_;
    qnm::locked_card locked_;
    traces left_;
    const card_access card_;
    const eeprom_lock* lock_ = nullptr;
    std::optional<eeprom_lock_guard> held_;
    const int err_;
};

bool is_word_valid(uint32_t addr, const qnm_retry_t* retry_param) {
    return addr <= k_last_word && qnm::is_aligned(addr) && qnm::is_valid(retry_param);
}

// Releases a card's EEPROM lock, whoever holds it.
int free_lock(const char* func, qnm_com_dev_t* dev) {
    traces left;
    const card_access card = access_of(dev, qnm::effective(nullptr), &left);
    const eeprom_lock* lock = nullptr;
    int err = _qnm_get_locktype(func, card, &lock);
    if (err != 0) return err;
    err = lock->free.run(card);
    if (err != 0) log_failure(func, lock->free.name, err);
    return err;
}

}  // namespace

extern "C" {

int _qnm_lock_eeprom(qnm_com_dev_t* dev, uint32_t interval, uint32_t count, uint32_t flags) {
    traces left;
    return lock_by_bits({dev, interval, count, &left}, flags);
}

int _qnm_lock_eeprom_id(qnm_com_dev_t* dev, uint32_t interval, uint32_t count, uint32_t flags) {
    traces left;
    return lock_by_id({dev, interval, count, &left}, flags);
}

int _qnm_read_eeprom(qnm_com_dev_t* dev, uint32_t addr, uint32_t* data, uint32_t interval,
                     uint32_t count) {
    traces left;
    const card_access card = {dev, interval, count, &left};
    const char* const func = __func__;
    return or_timed_out(repeat(count, qnm_config.eeprom_rw_interval, pause_after::any_failure, [&] {
        uint32_t word = 0;
        attempt result;
        const int err = try_read(func, card, addr, &word, &result);
        if (err != 0) return err;
        if (result.ready && result.err == EACCES) return EPROTO;
        if (!result.ready || result.err != 0) return EAGAIN;
        *data = word;
        return 0;
    }));
}

int _qnm_write_eeprom(qnm_com_dev_t* dev, uint32_t addr, uint32_t data, uint32_t interval,
                      uint32_t count, uint32_t flags) {
    traces left;
    const card_access card = {dev, interval, count, &left};
    return or_timed_out(repeat(count, qnm_config.eeprom_rw_interval, pause_after::any_failure,
                               [&] { return write_word(card, addr, data, flags); }));
}

int _qnm_dump_eeprom(qnm_com_dev_t* dev, uint32_t start, uint32_t end, uint32_t* data, size_t* len,
                     uint32_t interval, uint32_t count, uint32_t flags) {
    traces left;
    const card_access card = {dev, interval, count, &left};
    const eeprom_lock* lock = nullptr;
    *len = 0;
    int err = _qnm_get_locktype(__func__, card, &lock);
    for (uint32_t addr = start; addr < end && err == 0; addr += sizeof *data) {
        eeprom_lock_guard held(card, *lock, flags);
        err = held.err();
        if (err == 0) err = _qnm_read_eeprom(dev, addr, data++, interval, count);
        if (err != 0) break;
        *len += sizeof *data;
        err = held.release();
    }
    return err;
}

qnm_api_code_t qnm_read_eeprom(uint64_t id, uint32_t addr, uint32_t* data,
                               const qnm_retry_t* retry_param, uint32_t flags) {
    _qnm_log_read_entry(__func__, id, addr, retry_param, flags);
    qnm::public_call call(__func__, QNM_STATS_READ_EEPROM);
    int err = call.check();
    if (err == 0 && (data == nullptr || !is_word_valid(addr, retry_param))) err = EINVAL;
    if (err == 0) {
        locked_eeprom eeprom(__func__, id, retry_param, flags);
        err = eeprom.err();
        if (err == 0) {
            const card_access& card = eeprom.card();
            err = eeprom.end("_qnm_read_eeprom",
                             _qnm_read_eeprom(card.dev, addr, data, card.interval, card.count));
        }
    }
    return call.end(err, id);
}

qnm_api_code_t qnm_write_eeprom(uint64_t id, uint32_t addr, uint32_t data,
                                const qnm_retry_t* retry_param, uint32_t flags) {
    _qnm_log_write_entry(__func__, id, addr, data, retry_param, flags);
    qnm::public_call call(__func__, QNM_STATS_WRITE_EEPROM);
    int err = call.check();
    if (err == 0 && !is_word_valid(addr, retry_param)) err = EINVAL;
    if (err == 0) {
        locked_eeprom eeprom(__func__, id, retry_param, flags);
        err = eeprom.err();
        if (err == 0) {
            const card_access& card = eeprom.card();
            err = eeprom.end(
                "_qnm_write_eeprom",
                _qnm_write_eeprom(card.dev, addr, data, card.interval, card.count, flags));
        }
    }
    return call.end(err, id);
}

qnm_api_code_t qnm_dump_eeprom(uint64_t id, uint32_t startaddr, uint32_t endaddr, uint32_t* data,
                               size_t* len, const qnm_retry_t* retry_param, uint32_t flags) {
    _qnm_log_dump_entry(__func__, id, startaddr, endaddr, retry_param, flags);
    const qnm::dump_room room(len);
    qnm::public_call call(__func__, QNM_STATS_DUMP_EEPROM);
    int err = call.check();
    if (err == 0 && (endaddr > k_size || !qnm::is_valid(startaddr, endaddr, data, room) ||
                     !qnm::is_valid(retry_param))) {
        err = EINVAL;
    }
    if (err == 0) {
        const qnm_retry_t retry = qnm::effective(retry_param);
        qnm::locked_card card(__func__, id, flags);
        err = card.err();
        if (err == 0) {
            err = _qnm_dump_eeprom(card.dev(), startaddr, endaddr, data, len,
                                   retry.er_retry_interval, retry.er_retry_count, flags);
            if (err != 0) log_failure(__func__, "_qnm_dump_eeprom", err);
        }
    }
    return call.end(err, id);
}

qnm_api_code_t qnm_unlock_eeprom(uint64_t id) {
    qnm_log_info("%s: (IN) id=0x%.12lx", __func__, id);
    qnm::public_call call(__func__, QNM_STATS_UNLOCK_EEPROM);
    int err = call.check();
    qnm_com_dev_t dev;
    // Without flags: a card whose monitoring is stopped is refused.
    if (err == 0) err = _qnm_find_card(id, 0, &dev);
    if (err == 0) err = free_lock(__func__, &dev);
    return call.end(err, id);
}

}  // extern "C"
