// qnm_reg_send.h - register access, the per-card write locks, and the steps that all device-access
// calls share.
//
// A device-access call works on its own copy of the card's common record, taken under the
// device-table lock; nothing is locked while frames are sent and awaited but the card's write lock,
// which keeps the read-modify-write sequences of different threads from interleaving. It is taken
// only after the device-table lock has been released.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "qnm.h"
#include "qnm_api.h"
#include "qnm_config.h"
#include "qnm_qn_info.h"

extern "C" {

int _qnm_reg_init(void);
int _qnm_reg_fini(void);

// Read, write, change and dump registers. dev is the caller's copy; its path flags choose the path.
// interval and count are those of a qnm_retry_t. All return 0 or an errno-style code, of these
// EBUSY while another process accesses cards by the port, ENOSYS when a stop has been requested,
// ENOLINK without a path, EPROTO, ETIMEDOUT. What was read is stored on success.
int _qnm_read_register(const qnm_com_dev_t* dev, uint32_t addr, uint32_t* data, uint32_t interval,
                       uint32_t count);
int _qnm_write_register(const qnm_com_dev_t* dev, uint32_t addr, uint32_t data, uint32_t interval,
                        uint32_t count, uint32_t flags);
int _qnm_modify_register(const qnm_com_dev_t* dev, uint32_t addr, uint32_t data, uint32_t mask,
                         uint32_t interval, uint32_t count, uint32_t flags);

// *len: bytes read, also on failure.
int _qnm_dump_register(const qnm_com_dev_t* dev, uint32_t start, uint32_t end, uint32_t* data,
                       size_t* len, uint32_t interval, uint32_t count);

// Makes sure that dev has a path: tries, when none is connected, one after the other until the card
// answers, and marks that one connected in dev. ENOLINK when it answers on none.
int _qnm_livecheck(qnm_com_dev_t* dev);

// Makes the lock of a card that has just been learnt: 0; EEXIST when it has one already; ENOMEM;
// EPROTO.
int _qnm_create_reg_lock_node(uint64_t id);

// Frees the lock of a card that has been deleted, where there are more than k_spare_locks_max.
void _qnm_forget_reg_lock_node(uint64_t id);

// Take and release a card's lock: 0, or ENOENT when it has none.
int _qnm_write_reg_lock(uint64_t id) QNM_EXCLUDES(qnm_qn.eei_mutex);
int _qnm_write_reg_unlock(uint64_t id);

// Frees all locks; none may be held.
void _qnm_destroy_all_reg_lock_node(void);

// The steps of a device-access call; all return an errno-style code. func is the public call, for
// its log lines.
//
// Copies the common record of a card of either kind.
int _qnm_copy_card(uint64_t id, qnm_com_dev_t* dev, uint32_t* ignore_state);

// A card whose monitoring is stopped is out of reach, or with QNM_FLAG_LIVECHECK to be found anew.
int _qnm_check_ignored(uint32_t ignore_state, uint32_t flags, qnm_com_dev_t* dev);

// The live check, when flags ask for it.
int _qnm_check_alive(const char* func, uint32_t flags, qnm_com_dev_t* dev);

// Entry lines that register and EEPROM calls share.
void _qnm_log_read_entry(const char* func, uint64_t id, uint32_t addr,
                         const qnm_retry_t* retry_param, uint32_t flags);
void _qnm_log_write_entry(const char* func, uint64_t id, uint32_t addr, uint32_t data,
                          const qnm_retry_t* retry_param, uint32_t flags);
void _qnm_log_dump_entry(const char* func, uint64_t id, uint32_t startaddr, uint32_t endaddr,
                         const qnm_retry_t* retry_param, uint32_t flags);

}  // extern "C"

namespace qnm {

inline bool is_aligned(uint32_t addr) {
    return addr % sizeof(uint32_t) == 0;
}

inline bool is_valid(const qnm_retry_t* retry_param) {
    return retry_param == nullptr || retry_param->er_retry_interval != 0;
}

// The parameters in force.
inline qnm_retry_t effective(const qnm_retry_t* retry_param) {
    if (retry_param != nullptr) return *retry_param;
    return {qnm_config.frame_retry_count, qnm_config.frame_retry_interval};
}

// Retry parameters as entry lines name them.
struct retry_text {
    explicit retry_text(const qnm_retry_t* retry_param) {
        if (retry_param == nullptr) {
            snprintf(text, sizeof text, "retry_param=NULL");
        } else {
            snprintf(text, sizeof text, "retry_cnt=%u, retry_int=%u", retry_param->er_retry_count,
                     retry_param->er_retry_interval);
        }
    }
    char text[48];
};

// Stands for the lock of whichever card.
inline constexpr lock_name card_write_lock{};

// A card's write lock for a scope, where the card has one.
class QNM_SCOPED_CAPABILITY write_lock_guard {
  public:
    explicit write_lock_guard(uint64_t id) QNM_ACQUIRE(card_write_lock)
        : id_(id), err_(_qnm_write_reg_lock(id)) {}
    ~write_lock_guard() QNM_RELEASE() {
        if (err_ == 0) _qnm_write_reg_unlock(id_);
    }
    write_lock_guard(const write_lock_guard&) = delete;
    write_lock_guard& operator=(const write_lock_guard&) = delete;
    int err() const { return err_; }

  private:
    const uint64_t id_;
    const int err_;
};

// The array of a dump: what it holds, and *len, which tells 0 until something has been read.
struct dump_room {
    explicit dump_room(size_t* len_out) : len(len_out), size(len_out != nullptr ? *len_out : 0) {
        if (len != nullptr) *len = 0;
    }
    size_t* len;
    size_t size;
};

// Whether a dump from start to end makes sense and fits.
inline bool is_valid(uint32_t start, uint32_t end, const uint32_t* data, const dump_room& room) {
    return room.len != nullptr && is_aligned(start) && is_aligned(end) && start < end &&
           room.size >= end - start && data != nullptr;
}

// A public call on one card: its entry line, the work, and the exit line with result and ID.
template <typename Entry, typename Work>
qnm_api_code_t card_call(const char* name, qnm_stats_func_t func, uint64_t id, Entry log_entry,
                         Work work) {
    return public_call(func, needs::running_manager, log_entry, work, [=](qnm_api_code_t ret) {
        qnm_log_info("%s: (OUT) ret=%d, id=0x%.12lx", name, ret, id);
    });
}

// Runs work(dev) on the copy of a card whose monitoring, or flags, let it be reached.
template <typename Work>
int on_copy(uint64_t id, uint32_t flags, Work work) {
    qnm_com_dev_t dev;
    uint32_t ignore_state = 0;
    int err = _qnm_copy_card(id, &dev, &ignore_state);
    if (err == 0) err = _qnm_check_ignored(ignore_state, flags, &dev);
    return err != 0 ? err : work(&dev);
}

// The same on a card that has also passed the live check, where flags ask for it.
template <typename Work>
int on_card(const char* func, uint64_t id, uint32_t flags, Work work) {
    return on_copy(id, flags, [&](qnm_com_dev_t* dev) {
        const int err = _qnm_check_alive(func, flags, dev);
        return err != 0 ? err : work(dev);
    });
}

// The same under the card's write lock, live check included.
template <typename Work>
int on_locked_card(const char* func, uint64_t id, uint32_t flags, Work work) {
    return on_copy(id, flags, [&](qnm_com_dev_t* dev) {
        const write_lock_guard lock(id);
        if (lock.err() != 0) {
            qnm_log_error("%s: Failed to QNM_WREG_LOCK().", func);
            return lock.err();
        }
        // The wait for the lock may have lasted into a stop.
        if (!is_running()) return ENOSYS;
        const int err = _qnm_check_alive(func, flags, dev);
        return err != 0 ? err : work(dev);
    });
}

}  // namespace qnm
