// qnm_card_call.h - the steps that all device-access calls share.
//
// A device-access call works on its own copy of the card's common record, taken under the
// device-table lock. While frames are sent and awaited nothing is locked but the card's write lock,
// for the calls that change something.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qnm.h"
#include "qnm_call.h"
#include "qnm_write_lock.h"

extern "C" {

// Each returns 0 or an errno-style code. func is the public call, for its log lines.

// Copies the common record of a card of either kind.
int _qnm_copy_card(uint64_t id, qnm_com_dev_t* dev, uint32_t* ignore_state);

// A card whose monitoring is stopped is out of reach: ENOLINK. With QNM_FLAG_LIVECHECK its paths
// are to be found anew, so they are disconnected in dev.
int _qnm_check_ignored(uint32_t ignore_state, uint32_t flags, qnm_com_dev_t* dev);

// The live check, if flags ask for it.
int _qnm_check_alive(const char* func, uint32_t flags, qnm_com_dev_t* dev);

// Copies a card that may be reached; the second makes the live check as well.
int _qnm_find_card(uint64_t id, uint32_t flags, qnm_com_dev_t* dev);
int _qnm_reach_card(const char* func, uint64_t id, uint32_t flags, qnm_com_dev_t* dev);

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
qnm_retry_t effective(const qnm_retry_t* retry_param);

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

// A card that may be reached, under its write lock, after the live check; only if err() is 0.
class QNM_SCOPED_CAPABILITY locked_card {
  public:
    locked_card(const char* func, uint64_t id, uint32_t flags) QNM_ACQUIRE(card_write_lock)
        : id_(id), err_(lock_and_reach(func, flags)) {}
    ~locked_card() QNM_RELEASE() {
        if (locked_) _qnm_write_reg_unlock(id_);
    }
    locked_card(const locked_card&) = delete;
    locked_card& operator=(const locked_card&) = delete;
    int err() const { return err_; }
    qnm_com_dev_t* dev() { return &dev_; }

  private:
    int lock_and_reach(const char* func, uint32_t flags) QNM_UNCHECKED;

    const uint64_t id_;
    qnm_com_dev_t dev_ = {};
    bool locked_ = false;
    const int err_;
};

// The size of the array of a dump, and *len, which is 0 until something has been read.
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

}  // namespace qnm
