// qnm_card_call.cpp - the steps that all device-access calls share.

#include "qnm_card_call.h"

#include <cerrno>

#include "qnm_config.h"
#include "qnm_log4cxxif.h"
#include "qnm_qn_info.h"
#include "qnm_reg_send.h"
#include "qnm_root.h"

namespace {

void disconnect(qnm_com_dev_t& dev) {
    for (auto& port : dev.ecd_state) {
        for (uint32_t& path : port)
            path = 0;
    }
}

}  // namespace

extern "C" {

int _qnm_copy_card(uint64_t id, qnm_com_dev_t* dev, uint32_t* ignore_state) {
    const qnm::table_guard lock;
    return _qnm_get_qndev_ign(id, dev, ignore_state);
}

int _qnm_check_ignored(uint32_t ignore_state, uint32_t flags, qnm_com_dev_t* dev) {
    if (ignore_state != QNM_IGNORE) return 0;
    if ((flags & QNM_FLAG_LIVECHECK) == 0) return ENOLINK;
    disconnect(*dev);
    return 0;
}

int _qnm_check_alive(const char* func, uint32_t flags, qnm_com_dev_t* dev) {
    if ((flags & QNM_FLAG_LIVECHECK) == 0) return 0;
    const int err = _qnm_livecheck(dev);
    if (err != 0) qnm_log_error("%s: Failed to _qnm_livecheck(). err=%d", func, err);
    return err;
}

int _qnm_find_card(uint64_t id, uint32_t flags, qnm_com_dev_t* dev) {
    uint32_t ignore_state = 0;
    const int err = _qnm_copy_card(id, dev, &ignore_state);
    return err != 0 ? err : _qnm_check_ignored(ignore_state, flags, dev);
}

int _qnm_reach_card(const char* func, uint64_t id, uint32_t flags, qnm_com_dev_t* dev) {
    const int err = _qnm_find_card(id, flags, dev);
    return err != 0 ? err : _qnm_check_alive(func, flags, dev);
}

void _qnm_log_read_entry(const char* func, uint64_t id, uint32_t addr,
                         const qnm_retry_t* retry_param, uint32_t flags) {
    if (!qnm::logs(QNM_LOGLVL_INFO)) return;
    qnm_log_info("%s: (IN). id=0x%.12lx, addr=0x%.8X, %s, flags=0x%.8X", func, id, addr,
                 qnm::retry_text(retry_param).text, flags);
}

void _qnm_log_write_entry(const char* func, uint64_t id, uint32_t addr, uint32_t data,
                          const qnm_retry_t* retry_param, uint32_t flags) {
    if (!qnm::logs(QNM_LOGLVL_INFO)) return;
    qnm_log_info("%s: (IN). id=0x%.12lx, addr=0x%.8X, data=0x%.8X, %s, flags=0x%.8X", func, id,
                 addr, data, qnm::retry_text(retry_param).text, flags);
}

void _qnm_log_dump_entry(const char* func, uint64_t id, uint32_t startaddr, uint32_t endaddr,
                         const qnm_retry_t* retry_param, uint32_t flags) {
    if (!qnm::logs(QNM_LOGLVL_INFO)) return;
    qnm_log_info("%s: (IN). id=0x%.12lx, startaddr=0x%.8X, endaddr=0x%.8X, %s, flags=0x%.8X", func,
                 id, startaddr, endaddr, qnm::retry_text(retry_param).text, flags);
}

}  // extern "C"

namespace qnm {

qnm_retry_t effective(const qnm_retry_t* retry_param) {
    if (retry_param != nullptr) return *retry_param;
    return {qnm_config.frame_retry_count, qnm_config.frame_retry_interval};
}

int locked_card::lock_and_reach(const char* func, uint32_t flags) {
    int err = _qnm_find_card(id_, flags, &dev_);
    if (err != 0) return err;
    err = _qnm_write_reg_lock(id_);
    if (err != 0) {
        qnm_log_error("%s: Failed to QNM_WREG_LOCK().", func);
        return err;
    }
    locked_ = true;
    // The wait for the lock may have lasted into a stop.
    return is_running() ? _qnm_check_alive(func, flags, &dev_) : ENOSYS;
}

}  // namespace qnm
