// qnm_reg_calls.cpp - the public calls that read, write, change and dump registers.

#include "qnm_card_call.h"
#include "qnm_log4cxxif.h"
#include "qnm_reg_send.h"

extern "C" {

qnm_api_code_t qnm_read_register(uint64_t id, uint32_t addr, uint32_t* data,
                                 const qnm_retry_t* retry_param, uint32_t flags) {
    _qnm_log_read_entry(__func__, id, addr, retry_param, flags);
    qnm::public_call call(__func__, QNM_STATS_READ_REGISTER);
    int err = call.check();
    if (err == 0 && (!qnm::is_aligned(addr) || data == nullptr || !qnm::is_valid(retry_param))) {
        err = EINVAL;
    }
    qnm_com_dev_t dev;
    if (err == 0) err = _qnm_reach_card(__func__, id, flags, &dev);
    if (err == 0) {
        const qnm_retry_t retry = qnm::effective(retry_param);
        err = _qnm_read_register(&dev, addr, data, retry.er_retry_interval, retry.er_retry_count);
    }
    return call.end(err, id);
}

qnm_api_code_t qnm_write_register(uint64_t id, uint32_t addr, uint32_t data,
                                  const qnm_retry_t* retry_param, uint32_t flags) {
    _qnm_log_write_entry(__func__, id, addr, data, retry_param, flags);
    qnm::public_call call(__func__, QNM_STATS_WRITE_REGISTER);
    int err = call.check();
    if (err == 0 && (!qnm::is_aligned(addr) || !qnm::is_valid(retry_param))) err = EINVAL;
    if (err == 0) {
        const qnm_retry_t retry = qnm::effective(retry_param);
        qnm::locked_card card(__func__, id, flags);
        err = card.err();
        if (err == 0) {
            err = _qnm_write_register(card.dev(), addr, data, retry.er_retry_interval,
                                      retry.er_retry_count, flags);
        }
    }
    return call.end(err, id);
}

qnm_api_code_t qnm_modify_register(uint64_t id, uint32_t addr, uint32_t data, uint32_t mask,
                                   const qnm_retry_t* retry_param, uint32_t flags) {
    if (qnm::logs(QNM_LOGLVL_INFO)) {
        qnm_log_info(
            "%s: (IN). id=0x%.12lx, addr=0x%.8X, data=0x%.8X, mask=0x%.8X, %s, flags=0x%.8X",
            __func__, id, addr, data, mask, qnm::retry_text(retry_param).text, flags);
    }
    qnm::public_call call(__func__, QNM_STATS_MODIFY_REGISTER);
    int err = call.check();
    if (err == 0 && (!qnm::is_aligned(addr) || !qnm::is_valid(retry_param))) err = EINVAL;
    if (err == 0) {
        const qnm_retry_t retry = qnm::effective(retry_param);
        qnm::locked_card card(__func__, id, flags);
        err = card.err();
        if (err == 0) {
            err = _qnm_modify_register(card.dev(), addr, data, mask, retry.er_retry_interval,
                                       retry.er_retry_count, flags);
        }
    }
    return call.end(err, id);
}

qnm_api_code_t qnm_dump_register(uint64_t id, uint32_t startaddr, uint32_t endaddr, uint32_t* data,
                                 size_t* len, const qnm_retry_t* retry_param, uint32_t flags) {
    _qnm_log_dump_entry(__func__, id, startaddr, endaddr, retry_param, flags);
    const qnm::dump_room room(len);
    qnm::public_call call(__func__, QNM_STATS_DUMP_REGISTER);
    int err = call.check();
    if (err == 0 &&
        (!qnm::is_valid(startaddr, endaddr, data, room) || !qnm::is_valid(retry_param))) {
        err = EINVAL;
    }
    qnm_com_dev_t dev;
    if (err == 0) err = _qnm_reach_card(__func__, id, flags, &dev);
    if (err == 0) {
        const qnm_retry_t retry = qnm::effective(retry_param);
        err = _qnm_dump_register(&dev, startaddr, endaddr, data, len, retry.er_retry_interval,
                                 retry.er_retry_count);
    }
    return call.end(err, id);
}

}  // extern "C"
