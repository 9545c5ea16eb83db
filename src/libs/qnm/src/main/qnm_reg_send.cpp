// qnm_reg_send.cpp - register access, the live check and the per-card write locks.
//
// A read sends a frame that carries a tag and waits for the Completion with that tag; when none
// came in time it sends again, so often as asked for. A card does not answer a write: it is sent
// once, or with QNM_FLAG_VERIFY read back and sent again until it holds. Reads take no lock, so one
// may come between another thread's write and its read-back.
//
// Every card gets a lock when it is first announced, and keeps it while the manager runs, also when
// the card is deleted or disconnected. Only when there are very many, a deleted card's lock goes
// with it, for IDs that were forged and deleted would pile up for ever; one that is held then goes
// when it is released. A lock that has been looked up is counted as used, so that it stays valid
// after wrm_mutex is released. wrm_mutex guards the map, which includes who uses which lock, and is
// never held while a frame is sent.

#include "qnm_reg_send.h"

#include <cerrno>
#include <new>

#include "qnm_completion.h"
#include "qnm_limits.h"
#include "qnm_main.h"
#include "qnm_paced_log.h"
#include "qnm_qn_info.h"
#include "qnm_rbtree.h"
#include "qnm_send_frame.h"
#include "qnm_stats.h"
#include "qnm_thread.h"

namespace {

struct qnm_write_reg_node_t {
    qnm_rbnode_t wrn_rbnode;  // first: the node and its links share one address
    uint64_t wrn_id;
    uint32_t wrn_users = 0;      // threads that hold it or wait for it
    uint32_t wrn_forgotten = 0;  // 1 = to be freed by the last of them
    qnm_mutex_t wrn_mutex = QNM_MUTEX_OF_LEVEL(QNM_LOCK_CARD_WRITE);
};

struct qnm_write_reg_mng_t {
    qnm_rbtree_t wrm_rbtree QNM_GUARDED_BY(wrm_mutex);
    qnm_mutex_t wrm_mutex;
    uint32_t wrm_count QNM_GUARDED_BY(wrm_mutex);
    uint32_t wrm_initialized;  // without a lock: only a start looks at it, before other threads are
};

qnm_write_reg_mng_t qnm_write_reg_lock_mng = {{}, QNM_MUTEX_OF_LEVEL(QNM_LOCK_WRITE_LOCKS), 0, 0};

// All uses of the map come by here.
qnm_rbtree_t* write_locks() QNM_REQUIRES(qnm_write_reg_lock_mng.wrm_mutex) {
    return &qnm_write_reg_lock_mng.wrm_rbtree;
}

qnm_write_reg_node_t* node_of(qnm_rbnode_t* links) {
    return reinterpret_cast<qnm_write_reg_node_t*>(links);
}

qnm_cptr_t key_of(const qnm_rbnode_t* links) {
    return qnm::id_key(reinterpret_cast<const qnm_write_reg_node_t*>(links)->wrn_id);
}

void free_node(qnm_write_reg_node_t* node) {
    delete node;
    qnm::count(&qnm_stats.est_wreg_node_fr);
}

void destroy_node(qnm_rbnode_t* links, qnm_ptr_t) {
    _qnm_mutex_destroy(&node_of(links)->wrn_mutex);
    free_node(node_of(links));
}

void make_map_empty() QNM_REQUIRES(qnm_write_reg_lock_mng.wrm_mutex) {
    _qnm_rbtree_init(write_locks(), qnm_rbtree_uint64_compare, key_of);
    qnm_write_reg_lock_mng.wrm_count = 0;
}

qnm_write_reg_node_t* _write_reg_create(uint64_t id) {
    auto* const node = new (std::nothrow) qnm_write_reg_node_t{{}, id};
    if (node == nullptr) {
        qnm::count(&qnm_stats.est_alloc_err);
        if (_qnm_paced_may_write(QNM_PACED_LOCK_MEMORY, __func__)) {
            qnm_log_warn("%s: Failed to _write_reg_node_alloc()", __func__);
        }
        return nullptr;
    }
    qnm::count(&qnm_stats.est_wreg_node_al);
    if (_qnm_mutex_init(&node->wrn_mutex) != 0) {
        if (_qnm_paced_may_write(QNM_PACED_LOCK_MUTEX, __func__)) {
            qnm_log_warn("%s: Failed to _qnm_mutex_init()", __func__);
        }
        free_node(node);
        return nullptr;
    }
    return node;
}

qnm_write_reg_node_t* find_node(uint64_t id) QNM_REQUIRES(qnm_write_reg_lock_mng.wrm_mutex) {
    return node_of(_qnm_rbtree_get(write_locks(), qnm::id_key(id)));
}

// Puts a node into the map, where the ID's old one may still be.
int put_node(qnm_write_reg_node_t* node) {
    const qnm::mutex_guard lock(qnm_write_reg_lock_mng.wrm_mutex);
    const int err = _qnm_rbtree_put(write_locks(), &node->wrn_rbnode);
    if (err == 0) qnm_write_reg_lock_mng.wrm_count++;
    if (err == EEXIST) find_node(node->wrn_id)->wrn_forgotten = 0;
    return err;
}

// A card's own mutex. Which one the calling thread holds the analysis cannot know.
void lock_node(qnm_write_reg_node_t& node) QNM_UNCHECKED {
    _qnm_mutex_lock(&node.wrn_mutex);
}

void unlock_node(qnm_write_reg_node_t& node) QNM_UNCHECKED {
    _qnm_mutex_unlock(&node.wrn_mutex);
}

void remove_node(qnm_write_reg_node_t* node) QNM_REQUIRES(qnm_write_reg_lock_mng.wrm_mutex) {
    _qnm_rbtree_remove_node(write_locks(), &node->wrn_rbnode);
    qnm_write_reg_lock_mng.wrm_count--;
    destroy_node(&node->wrn_rbnode, nullptr);
}

// ---- Register loops -----------------------------------------------------------------------------

// A completion tag for a scope, given back as what became of its frames asks for.
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

// Sends a Register Read; the tag is armed before, so that an answer cannot be too early for it, and
// after, for where the frame really went.
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

// Repeats attempt(), which tells in *holds whether what was written holds, until it does.
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

// Whether the card answers over this path, which stays connected in dev unless there is no answer,
// or the port is another process's.
int try_path(qnm_com_dev_t* dev, int port, int path) {
    uint32_t data = 0;
    dev->ecd_state[port][path] = 1;
    const int err = _qnm_read_register(dev, 0, &data, qnm_config.frame_retry_interval_lc,
                                       qnm_config.frame_retry_count_lc);
    if (err == ETIMEDOUT || err == EBUSY) dev->ecd_state[port][path] = 0;
    return err;
}

// The paths of one port; ETIMEDOUT when the card answers on none.
int try_port(qnm_com_dev_t* dev, int port) {
    if (qnm::load(qnm_root.er_port_info[port].epi_link_state) == 0) return ETIMEDOUT;
    const int err = try_path(dev, port, 0);
    return err == ETIMEDOUT && dev->ecd_type != 0 ? try_path(dev, port, 1) : err;
}

void disconnect(qnm_com_dev_t& dev) {
    for (auto& port : dev.ecd_state) {
        for (uint32_t& path : port)
            path = 0;
    }
}

}  // namespace

extern "C" {

// Nobody else is there yet, and the lock not to be taken before it has been initialised.
int _qnm_reg_init(void) QNM_UNCHECKED {
    qnm_log_info("%s: start.", __func__);
    int ret = 0;
    if (qnm_write_reg_lock_mng.wrm_initialized == 1) {
        qnm_log_info("%s: qnm_write_reg_lock_mng is already initialized.", __func__);
    } else if (_qnm_mutex_init_st(&qnm_write_reg_lock_mng.wrm_mutex) != 0) {
        qnm_log_error("%s: Failed to _qnm_mutex_init_st()", __func__);
        ret = EPROTO;
    } else {
        make_map_empty();
        qnm_write_reg_lock_mng.wrm_initialized = 1;
    }
    qnm_log_info("%s: end. ret=%d", __func__, ret);
    return ret;
}

int _qnm_reg_fini(void) {
    qnm_log_info("%s: start.", __func__);
    qnm_log_info("%s: end.", __func__);
    return 0;
}

int _qnm_create_reg_lock_node(uint64_t id) {
    qnm_write_reg_node_t* const node = _write_reg_create(id);
    if (node == nullptr) {
        if (_qnm_paced_may_write(QNM_PACED_LOCK_NOT_CREATED, __func__)) {
            qnm_log_warn("%s: Failed to _write_reg_create(). id=0x%.12lx", __func__, id);
        }
        return ENOMEM;
    }
    const int err = put_node(node);
    if (err == 0) return 0;
    if (err == EEXIST) {
        qnm_log_trace("%s: Failed to _qnm_rbtree_put(). err=EEXIST, id=0x%.12lx", __func__, id);
    } else if (_qnm_paced_may_write(QNM_PACED_LOCK_NOT_PUT, __func__)) {
        qnm_log_warn("%s: Failed to _qnm_rbtree_put(). err=%d, id=0x%.12lx", __func__, err, id);
    }
    destroy_node(&node->wrn_rbnode, nullptr);
    return err == EEXIST ? EEXIST : EPROTO;
}

int _qnm_write_reg_lock(uint64_t id) {
    qnm_write_reg_node_t* node = nullptr;
    {
        const qnm::mutex_guard lock(qnm_write_reg_lock_mng.wrm_mutex);
        node = find_node(id);
        if (node == nullptr) return ENOENT;
        node->wrn_users++;
    }
    lock_node(*node);
    return 0;
}

int _qnm_write_reg_unlock(uint64_t id) {
    const qnm::mutex_guard lock(qnm_write_reg_lock_mng.wrm_mutex);
    qnm_write_reg_node_t* const node = find_node(id);
    if (node == nullptr) return ENOENT;
    unlock_node(*node);
    if (node->wrn_users > 0) node->wrn_users--;
    if (node->wrn_users == 0 && node->wrn_forgotten == 1) remove_node(node);
    return 0;
}

void _qnm_forget_reg_lock_node(uint64_t id) {
    const qnm::mutex_guard lock(qnm_write_reg_lock_mng.wrm_mutex);
    if (qnm_write_reg_lock_mng.wrm_count <= qnm::k_spare_locks_max) return;
    qnm_write_reg_node_t* const node = find_node(id);
    if (node == nullptr) return;
    if (node->wrn_users == 0) return remove_node(node);
    node->wrn_forgotten = 1;
}

void _qnm_destroy_all_reg_lock_node(void) {
    const qnm::mutex_guard lock(qnm_write_reg_lock_mng.wrm_mutex);
    _qnm_rbtree_clear(write_locks(), destroy_node, nullptr);
    make_map_empty();
}

// ---- Register loops -----------------------------------------------------------------------------

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
    // The other port may be nobody's where another process has this one.
    if (used >= 2 && (err == ETIMEDOUT || err == EBUSY)) {
        const int second = try_port(dev, 1);
        if (err == ETIMEDOUT || second != ETIMEDOUT) err = second;
    }
    return err == ETIMEDOUT ? ENOLINK : err;
}

// ---- Steps of a device-access call --------------------------------------------------------------

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

void _qnm_log_read_entry(const char* func, uint64_t id, uint32_t addr,
                         const qnm_retry_t* retry_param, uint32_t flags) {
    qnm_log_info("%s: (IN). id=0x%.12lx, addr=0x%.8X, %s, flags=0x%.8X", func, id, addr,
                 qnm::retry_text(retry_param).text, flags);
}

void _qnm_log_write_entry(const char* func, uint64_t id, uint32_t addr, uint32_t data,
                          const qnm_retry_t* retry_param, uint32_t flags) {
    qnm_log_info("%s: (IN). id=0x%.12lx, addr=0x%.8X, data=0x%.8X, %s, flags=0x%.8X", func, id,
                 addr, data, qnm::retry_text(retry_param).text, flags);
}

void _qnm_log_dump_entry(const char* func, uint64_t id, uint32_t startaddr, uint32_t endaddr,
                         const qnm_retry_t* retry_param, uint32_t flags) {
    qnm_log_info("%s: (IN). id=0x%.12lx, startaddr=0x%.8X, endaddr=0x%.8X, %s, flags=0x%.8X", func,
                 id, startaddr, endaddr, qnm::retry_text(retry_param).text, flags);
}

// ---- Public calls -------------------------------------------------------------------------------

qnm_api_code_t qnm_read_register(uint64_t id, uint32_t addr, uint32_t* data,
                                 const qnm_retry_t* retry_param, uint32_t flags) {
    const char* const name = __func__;
    return qnm::card_call(
        name, QNM_STATS_READ_REGISTER, id,
        [=] { _qnm_log_read_entry(name, id, addr, retry_param, flags); },
        [=] {
            if (!qnm::is_aligned(addr) || data == nullptr || !qnm::is_valid(retry_param)) {
                return EINVAL;
            }
            const qnm_retry_t retry = qnm::effective(retry_param);
            return qnm::on_card(name, id, flags, [=](qnm_com_dev_t* dev) {
                return _qnm_read_register(dev, addr, data, retry.er_retry_interval,
                                          retry.er_retry_count);
            });
        });
}

qnm_api_code_t qnm_write_register(uint64_t id, uint32_t addr, uint32_t data,
                                  const qnm_retry_t* retry_param, uint32_t flags) {
    const char* const name = __func__;
    return qnm::card_call(
        name, QNM_STATS_WRITE_REGISTER, id,
        [=] { _qnm_log_write_entry(name, id, addr, data, retry_param, flags); },
        [=] {
            if (!qnm::is_aligned(addr) || !qnm::is_valid(retry_param)) return EINVAL;
            const qnm_retry_t retry = qnm::effective(retry_param);
            return qnm::on_locked_card(name, id, flags, [=](qnm_com_dev_t* dev) {
                return _qnm_write_register(dev, addr, data, retry.er_retry_interval,
                                           retry.er_retry_count, flags);
            });
        });
}

qnm_api_code_t qnm_modify_register(uint64_t id, uint32_t addr, uint32_t data, uint32_t mask,
                                   const qnm_retry_t* retry_param, uint32_t flags) {
    const char* const name = __func__;
    return qnm::card_call(
        name, QNM_STATS_MODIFY_REGISTER, id,
        [=] {
            qnm_log_info(
                "%s: (IN). id=0x%.12lx, addr=0x%.8X, data=0x%.8X, mask=0x%.8X, %s, flags=0x%.8X",
                name, id, addr, data, mask, qnm::retry_text(retry_param).text, flags);
        },
        [=] {
            if (!qnm::is_aligned(addr) || !qnm::is_valid(retry_param)) return EINVAL;
            const qnm_retry_t retry = qnm::effective(retry_param);
            return qnm::on_locked_card(name, id, flags, [=](qnm_com_dev_t* dev) {
                return _qnm_modify_register(dev, addr, data, mask, retry.er_retry_interval,
                                            retry.er_retry_count, flags);
            });
        });
}

qnm_api_code_t qnm_dump_register(uint64_t id, uint32_t startaddr, uint32_t endaddr, uint32_t* data,
                                 size_t* len, const qnm_retry_t* retry_param, uint32_t flags) {
    const char* const name = __func__;
    const qnm::dump_room room(len);
    return qnm::card_call(
        name, QNM_STATS_DUMP_REGISTER, id,
        [=] { _qnm_log_dump_entry(name, id, startaddr, endaddr, retry_param, flags); },
        [=] {
            if (!qnm::is_valid(startaddr, endaddr, data, room) || !qnm::is_valid(retry_param)) {
                return EINVAL;
            }
            const qnm_retry_t retry = qnm::effective(retry_param);
            return qnm::on_card(name, id, flags, [=](qnm_com_dev_t* dev) {
                return _qnm_dump_register(dev, startaddr, endaddr, data, len,
                                          retry.er_retry_interval, retry.er_retry_count);
            });
        });
}

}  // extern "C"
