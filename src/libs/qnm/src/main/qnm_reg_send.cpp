// qnm_reg_send.cpp - register access and the live check.
//
// A read sends a frame with a tag and waits for the Completion with that tag. If none comes in time
// it sends again, as often as asked for. A card does not answer a write: it is sent once, or with
// QNM_FLAG_VERIFY read back and sent again until it holds. Reads take no lock, so one may come
// between another thread's write and its read-back.

#include "qnm_reg_send.h"

#include <cerrno>

#include "qnm_completion.h"
#include "qnm_config.h"
#include "qnm_qn_info.h"
#include "qnm_root.h"
#include "qnm_send_frame.h"

namespace {

// ---- Register loops -----------------------------------------------------------------------------

// A completion tag for a scope. It is released at once, or rests first if a frame stayed
// unanswered.
class tag_guard {
  public:
    tag_guard() {
        if (_qnm_get_tag(&tag_) != 0) tag_ = -1;
    }
    ~tag_guard() {
        if (tag_ != -1) give_back_(tag_);
    }
    tag_guard(const tag_guard&) = delete;
    tag_guard& operator=(const tag_guard&) = delete;
    int tag() const { return tag_; }
    void set_unanswered() { give_back_ = _qnm_rest_tag; }

  private:
    int tag_;
    int (*give_back_)(int) = _qnm_release_tag;
};

// Sends a Register Read. The tag is armed before, so that no answer comes too early, and again
// after, for the path that the frame really took.
int send_read(const qnm_com_dev_t* dev, uint32_t addr, int tag) {
    uint64_t dst_mac = 0;
    int port = 0;
    if (_qnm_get_send_path(dev, &dst_mac, &port) == 0) _qnm_set_comp_recv_wait(tag, dst_mac, port);
    const int err = _qnm_send_regread(dev, addr, static_cast<uint8_t>(tag), &dst_mac, &port);
    if (err == 0) _qnm_set_comp_recv_wait(tag, dst_mac, port);
    return err;
}

int read_with_tag(const qnm_com_dev_t* dev, uint32_t addr, uint32_t* data, uint32_t interval,
                  uint32_t count, tag_guard& owned) {
    const int tag = owned.tag();
    for (uint32_t n = 0;; n++) {
        int err = send_read(dev, addr, tag);
        if (err != 0) return err;
        err = _qnm_sigwait_comp(tag, interval);
        if (err != 0 && err != ETIMEDOUT) return err;
        if (!qnm::is_running()) return ENOSYS;
        err = _qnm_get_readreg(tag, data);
        if (err != ENOENT) return err;
        owned.set_unanswered();
        if (n == count) return ETIMEDOUT;
    }
}

// Repeats attempt() until it sets *holds: what was written holds.
template <typename Attempt>
int until_it_holds(uint32_t count, Attempt attempt) {
    for (uint32_t n = 0;; n++) {
        bool holds = false;
        const int err = attempt(&holds);
        if (err != 0 || holds) return err;
        if (!qnm::is_running()) return ENOSYS;
        if (n == count) return ETIMEDOUT;
        _qnm_sleep_while_running(qnm_config.register_verify_interval);
    }
}

int write_verified(const char* func, const qnm_com_dev_t* dev, uint32_t addr, uint32_t data,
                   uint32_t interval, uint32_t count) {
    return until_it_holds(count, [=](bool* holds) {
        int err = _qnm_send_regwrite(dev, addr, data);
        if (err != 0) {
            qnm_log_error("%s: Failed to _qnm_send_regwrite(). err=%d", func, err);
            return err;
        }
        uint32_t current = 0;
        err = _qnm_read_register(dev, addr, &current, interval, count);
        if (err != 0) {
            qnm_log_trace("%s: Failed to _qnm_read_register() err=%d", func, err);
            return err;
        }
        *holds = current == data;
        return 0;
    });
}

// Only the bits in mask have to hold.
int modify_verified(const qnm_com_dev_t* dev, uint32_t addr, uint32_t data, uint32_t mask,
                    uint32_t interval, uint32_t count) {
    return until_it_holds(count, [=](bool* holds) {
        uint32_t current = 0;
        int err = _qnm_write_register(dev, addr, data, interval, count, 0);
        if (err == 0) err = _qnm_read_register(dev, addr, &current, interval, count);
        *holds = ((current ^ data) & mask) == 0;
        return err;
    });
}

// ---- Live check ---------------------------------------------------------------------------------

// Tries whether the card answers over this path. The path stays connected in dev unless there is no
// answer or another process holds the port.
int try_path(qnm_com_dev_t* dev, int port, int path) {
    uint32_t data = 0;
    dev->ecd_state[port][path] = 1;
    const int err = _qnm_read_register(dev, 0, &data, qnm_config.frame_retry_interval_lc,
                                       qnm_config.frame_retry_count_lc);
    if (err == ETIMEDOUT || err == EBUSY) dev->ecd_state[port][path] = 0;
    return err;
}

// Tries the paths of one port; ETIMEDOUT when the card answers on none.
int try_port(qnm_com_dev_t* dev, int port) {
    if (qnm::load(qnm_root.er_port_info[port].epi_link_state) == 0) return ETIMEDOUT;
    const int err = try_path(dev, port, 0);
    return err == ETIMEDOUT && dev->ecd_type != 0 ? try_path(dev, port, 1) : err;
}

}  // namespace

extern "C" {

int _qnm_read_register(const qnm_com_dev_t* dev, uint32_t addr, uint32_t* data, uint32_t interval,
                       uint32_t count) {
    int ret = EPROTO;
    int tag = -1;
    uint32_t value = 0;
    {
        tag_guard owned;
        tag = owned.tag();
        if (tag != -1) ret = read_with_tag(dev, addr, &value, interval, count, owned);
    }
    if (ret == 0) *data = value;
    qnm_log_trace("%s: called. ret=%d, id=0x%.12lx, addr=0x%.8X, data=0x%.8X, tag=%d", __func__,
                  ret, dev->ecd_id, addr, value, tag);
    return ret;
}

int _qnm_write_register(const qnm_com_dev_t* dev, uint32_t addr, uint32_t data, uint32_t interval,
                        uint32_t count, uint32_t flags) {
    const int ret = (flags & QNM_FLAG_VERIFY) != 0
                        ? write_verified(__func__, dev, addr, data, interval, count)
                        : _qnm_send_regwrite(dev, addr, data);
    qnm_log_trace("%s: called. ret=%d, id=0x%.12lx, addr=0x%.8X, data=0x%.8X, flags=0x%.8X, ",
                  __func__, ret, dev->ecd_id, addr, data, flags);
    return ret;
}

int _qnm_modify_register(const qnm_com_dev_t* dev, uint32_t addr, uint32_t data, uint32_t mask,
                         uint32_t interval, uint32_t count, uint32_t flags) {
    uint32_t current = 0;
    const int err = _qnm_read_register(dev, addr, &current, interval, count);
    if (err != 0) return err;
    if ((data & mask) == (current & mask)) return 0;
    const uint32_t wanted = (data & mask) | (current & ~mask);
    if ((flags & QNM_FLAG_VERIFY) == 0) {
        return _qnm_write_register(dev, addr, wanted, interval, count, 0);
    }
    return modify_verified(dev, addr, wanted, mask, interval, count);
}

int _qnm_dump_register(const qnm_com_dev_t* dev, uint32_t start, uint32_t end, uint32_t* data,
                       size_t* len, uint32_t interval, uint32_t count) {
    *len = 0;
    for (uint32_t addr = start; addr < end; addr += sizeof *data) {
        const int err = _qnm_read_register(dev, addr, data++, interval, count);
        if (err != 0) return err;
        *len += sizeof *data;
    }
    return 0;
}

int _qnm_livecheck(qnm_com_dev_t* dev) {
    if (qnm::is_connected(*dev)) return 0;
    const uint32_t used = qnm_config.use_port_num_linux;
    int err = ETIMEDOUT;
    if (used >= 1) err = try_port(dev, 0);
    // Another process may hold this port and not the other one.
    if (used >= 2 && (err == ETIMEDOUT || err == EBUSY)) {
        const int second = try_port(dev, 1);
        if (err == ETIMEDOUT || second != ETIMEDOUT) err = second;
    }
    return err == ETIMEDOUT ? ENOLINK : err;
}

}  // extern "C"
