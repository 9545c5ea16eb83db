// qnm_api.cpp - the device commands and the log level.
//
// Each command works on a copy of the card's record, taken under the device-table lock, and sends
// its frame with nothing locked.

#include "qnm_api.h"

#include <algorithm>

#include "qnm_call.h"
#include "qnm_card_call.h"
#include "qnm_config.h"
#include "qnm_filter.h"
#include "qnm_frame.h"
#include "qnm_log4cxxif.h"
#include "qnm_qn_info.h"
#include "qnm_root.h"
#include "qnm_send_frame.h"
#include "qnm_util.h"

namespace {

constexpr uint16_t k_vlanid_min = 16;
constexpr uint16_t k_vlanid_max = 4094;
constexpr uint32_t k_page_count = 1024;

// Looks, until the time is up, whether the card has announced its new VLAN ID: ETIMEDOUT when not.
int await_vlanid(uint64_t id, uint16_t vlanid, uint32_t interval) {
    const uint64_t start = _qnm_get_msec_monotonic();
    while (_qnm_get_msec_monotonic() - start < interval) {
        qnm_com_dev_t dev;
        uint32_t ignore_state = 0;
        _qnm_sleep_while_running(std::min(interval, qnm_config.vlan_check_interval));
        if (!qnm::is_running()) return ENOSYS;
        if (_qnm_copy_card(id, &dev, &ignore_state) != 0) return EPROTO;
        if (dev.ecd_vlan_id == vlanid) return 0;
    }
    return ETIMEDOUT;
}

int set_vlanid(const qnm_com_dev_t* dev, uint16_t vlanid, const qnm_retry_t& retry,
               uint32_t flags) {
    int err = _qnm_send_vlanset(dev, vlanid);
    if (err != 0 || (flags & QNM_FLAG_VERIFY) == 0) return err;
    for (uint32_t resends = 0;; resends++) {
        err = await_vlanid(dev->ecd_id, vlanid, retry.er_retry_interval);
        if (err != ETIMEDOUT || resends == retry.er_retry_count) return err;
        err = _qnm_send_vlanset(dev, vlanid);
        if (err != 0) return err;
    }
}

int copy_qnio(uint64_t id, qnm_qnio_t* qnio, uint32_t* ignore_state) {
    const qnm::table_guard lock;
    return _qnm_get_qnio(id, qnio, ignore_state, nullptr,
                         QNM_VALID_RECORD | QNM_VALID_IGNORE_STATE);
}

// Pages are for multi-root QNIO cards only.
int write_mmspage(const char* func, uint64_t id, uint32_t page, const uint32_t* data,
                  uint32_t flags) {
    qnm_qnio_t qnio;
    uint32_t ignore_state = 0;
    int err = copy_qnio(id, &qnio, &ignore_state);
    if (err == ENOENT) return ENOENT;
    if (err != 0) {
        qnm_log_warn("%s: Failed to _qnm_get_qnio(). err=%d", func, err);
        return EPROTO;
    }
    qnm_com_dev_t* const dev = &qnio.eio_com_dev;
    err = _qnm_check_ignored(ignore_state, flags, dev);
    if (err != 0) return err;
    if (dev->ecd_ver != qnm::k_version_mr) {
        qnm_log_error("%s: The ID is not MR-QN. id=0x%.12lx", func, id);
        return ENOENT;
    }
    err = _qnm_check_alive(func, flags, dev);
    return err != 0 ? err : _qnm_send_mms(dev, page, data);
}

qnm_log_level_t effective_level(qnm_log_level_t log_level) {
    if (log_level != QNM_LOGLVL_NONE) return log_level;
    return static_cast<qnm_log_level_t>(qnm_config.log_level);
}

}  // namespace

extern "C" {

void _qnm_set_loglevel(qnm_log_level_t log_level) {
    qnm::store(g_log_level, effective_level(log_level));
}

qnm_api_code_t qnm_set_vlanid(uint64_t id, uint16_t vlanid, const qnm_retry_t* retry_param,
                              uint32_t flags) {
    if (qnm::logs(QNM_LOGLVL_INFO)) {
        qnm_log_info("%s: (IN). id=0x%.12lx, vlanid=%u, %s, flags=0x%.8X", __func__, id, vlanid,
                     qnm::retry_text(retry_param).text, flags);
    }
    qnm::public_call call(__func__, QNM_STATS_SET_VLANID);
    int err = call.check();
    if (err == 0 &&
        (vlanid < k_vlanid_min || vlanid > k_vlanid_max || !qnm::is_valid(retry_param))) {
        err = EINVAL;
    }
    qnm_com_dev_t dev;
    if (err == 0) err = _qnm_reach_card(__func__, id, flags, &dev);
    if (err == 0) err = set_vlanid(&dev, vlanid, qnm::effective(retry_param), flags);
    const qnm_api_code_t ret = call.result(err);
    qnm_log_info("%s: (OUT) ret=%d, id=0x%.12lx, vlanid=%u", __func__, ret, id, vlanid);
    return ret;
}

qnm_api_code_t qnm_send_resetframe(uint64_t id, unsigned char status,
                                   const qnm_retry_t* retry_param, uint32_t flags) {
    if (qnm::logs(QNM_LOGLVL_INFO)) {
        qnm_log_info("%s: (IN). id=0x%.12lx, status=0x%X, %s, flags=0x%.8X", __func__, id, status,
                     qnm::retry_text(retry_param).text, flags);
    }
    qnm::public_call call(__func__, QNM_STATS_SEND_RESETFRAME);
    int err = call.check();
    qnm_com_dev_t dev;
    // Without flags: a card whose monitoring is stopped is refused.
    if (err == 0) err = _qnm_find_card(id, 0, &dev);
    if (err == 0) err = _qnm_send_reset(&dev, status);
    return call.end(err, id);
}

qnm_api_code_t qnm_write_mmspage(uint64_t id, uint32_t page, uint32_t* data, uint32_t flags) {
    qnm_log_info("%s: (IN). id=0x%.12lx, page=%u, flags=0x%.8X", __func__, id, page, flags);
    qnm::public_call call(__func__, QNM_STATS_WRITE_MMSPAGE);
    int err = call.check();
    if (err == 0 && (page >= k_page_count || data == nullptr)) err = EINVAL;
    if (err == 0) err = write_mmspage(__func__, id, page, data, flags);
    return call.end(err, id);
}

qnm_api_code_t qnm_set_loglevel(qnm_log_level_t log_level) {
    qnm_log_info("%s: (IN) log_level=%d", __func__, log_level);
    qnm::public_call call(__func__, QNM_STATS_SET_LOGLEVEL);
    int err = call.check();
    if (err == 0 && (log_level < QNM_LOGLVL_NONE || log_level > QNM_LOGLVL_TRACE)) err = EINVAL;
    if (err == 0) {
        qnm_log_info("%s: Set loglevel. old=%d, new=%d", __func__, qnm::load(g_log_level),
                     effective_level(log_level));
        _qnm_set_loglevel(log_level);
        _qnm_filter_ports();
    }
    const qnm_api_code_t ret = call.result(err);
    qnm_log_info("%s: (OUT) ret=%d, g_log_level=%d", __func__, ret, qnm::load(g_log_level));
    return ret;
}

}  // extern "C"
