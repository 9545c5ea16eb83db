// qnm_event_cb.cpp - carries events from the library's own threads to the host's callbacks.
//
// Producers (announcements, the keepalive check, a port going down) append a node to one queue;
// they never call user code. They do so under the table lock, and signal the event thread when they
// have released it: a wake-up costs more than the node, and the woken thread would take the
// processor from a receive thread that holds the lock. A receive thread signals when no further
// frame waits, or after a number of events. The event thread takes the nodes off one by one and
// calls, in registration order, every callback registered for the event's type. It holds
// that type's cl_mutex meanwhile, so a callback must not register or unregister for its own type;
// evt_mutex is never held while a callback runs, so producers are never blocked by user code. An
// event is lost only when there is no memory for it, or when k_events_max are waiting.
//
// cl_mutex guards the list of its type; evt_mutex guards the queue. A registration's handle is the
// address of its record. A host may pass a stale one, so a handle is compared with the live ones
// before anything is read through it. No list is locked for that: its callback may be running. Live
// handles are guarded by lh_mutex, which is taken after a list's mutex.

#include "qnm_event_cb.h"

#include <cerrno>
#include <cstddef>
#include <new>

#include "qnm_call.h"
#include "qnm_counters.h"
#include "qnm_limits.h"
#include "qnm_paced_log.h"
#include "qnm_root.h"
#include "qnm_thread.h"

namespace {

constexpr uint32_t k_wait_ms = 1000;
constexpr char k_task_name[] = "_qnm_event_task_com";

// Links of a doubly linked list; a head whose links point to itself is an empty list.
struct qnm_list {
    qnm_list* el_next;
    qnm_list* el_prev;
};

void list_make_empty(qnm_list& head) {
    head.el_next = head.el_prev = &head;
}

bool list_is_empty(const qnm_list& head) {
    return head.el_next == &head;
}

void list_push_tail(qnm_list& head, qnm_list& element) {
    element.el_next = &head;
    element.el_prev = head.el_prev;
    head.el_prev->el_next = &element;
    head.el_prev = &element;
}

void list_unlink(qnm_list& element) {
    element.el_prev->el_next = element.el_next;
    element.el_next->el_prev = element.el_prev;
}

// The links come first in both records, so that a record and its links share one address.
struct qnm_cbinfo_t {
    qnm_list cb_list;
    qnm_cbfunc_t cb_func;
    void* cb_arg;
    qnm_evt_type_t cb_event;
    qnm_list cb_live;  // among the live handles
};

struct qnm_evt_node_t {
    qnm_list een_list;
    qnm_evt_type_t een_event;
    uint64_t een_id;
};

struct qnm_cbevt_t {
    qnm_list cl_head QNM_GUARDED_BY(cl_mutex);
    qnm_mutex_t cl_mutex = QNM_MUTEX_OF_LEVEL(QNM_LOCK_CALLBACKS);
};

struct live_handles_t {
    qnm_list lh_head QNM_GUARDED_BY(lh_mutex) = {&lh_head, &lh_head};
    qnm_mutex_t lh_mutex = QNM_MUTEX_OF_LEVEL(QNM_LOCK_HANDLES);
};

struct qnm_evt_queue_t {
    qnm_list evt_head QNM_GUARDED_BY(evt_mutex) = {&evt_head, &evt_head};
    qnm_mutex_t evt_mutex = QNM_MUTEX_OF_LEVEL(QNM_LOCK_EVENT_QUEUE);
    uint32_t evt_count QNM_GUARDED_BY(evt_mutex) = 0;
};

qnm_cbevt_t cb_evt_tbl[QNM_EVT_MAX];
live_handles_t live_handles;
qnm_evt_queue_t qnm_event_queue;
qnm_event_t event_sig;
thread_local uint32_t unsignalled_events;

qnm_cbinfo_t* cbinfo_of(qnm_list* links) {
    return reinterpret_cast<qnm_cbinfo_t*>(links);
}

// Makes a record and counts it; null without memory.
template <typename Record>
Record* make_counted(uint32_t* allocated, const Record& value) {
    auto* const record = new (std::nothrow) Record(value);
    qnm::count(record != nullptr ? allocated : &qnm_stats.est_alloc_err);
    return record;
}

qnm_cbinfo_t* _cbinfo_create(qnm_evt_type_t type, qnm_cbfunc_t func, const void* arg) {
    auto* const info = make_counted(&qnm_stats.est_cbinfo_al,
                                    qnm_cbinfo_t{{}, func, const_cast<void*>(arg), type, {}});
    if (info == nullptr) qnm_log_error("%s: can't alloc memory for qnm_cbinfo_t", __func__);
    return info;
}

void cbinfo_free(qnm_cbinfo_t* info) {
    delete info;
    qnm::count(&qnm_stats.est_cbinfo_fr);
}

qnm_cbinfo_t* cbinfo_of_live(qnm_list* links) {
    return reinterpret_cast<qnm_cbinfo_t*>(reinterpret_cast<char*>(links) -
                                           offsetof(qnm_cbinfo_t, cb_live));
}

// Puts a registration into its type's list, and takes one out.
void enlist(qnm_cbevt_t& table, qnm_cbinfo_t& info) QNM_REQUIRES(table.cl_mutex) {
    list_push_tail(table.cl_head, info.cb_list);
    const qnm::mutex_guard lock(live_handles.lh_mutex);
    list_push_tail(live_handles.lh_head, info.cb_live);
}

void delist([[maybe_unused]] qnm_cbevt_t& table, qnm_cbinfo_t& info) QNM_REQUIRES(table.cl_mutex) {
    list_unlink(info.cb_list);
    const qnm::mutex_guard lock(live_handles.lh_mutex);
    list_unlink(info.cb_live);
}

// The event type that a handle was registered for; QNM_EVT_MAX when it is not a live one.
qnm_evt_type_t type_of_handle(qnm_cbid_t id) {
    const auto* const wanted = reinterpret_cast<const qnm_cbinfo_t*>(id);
    const qnm::mutex_guard lock(live_handles.lh_mutex);
    qnm_list* const head = &live_handles.lh_head;
    for (qnm_list* links = head->el_next; links != head; links = links->el_next) {
        if (cbinfo_of_live(links) == wanted) return wanted->cb_event;
    }
    return QNM_EVT_MAX;
}

qnm_evt_node_t* _evt_node_create(qnm_evt_type_t event_type, uint64_t id) {
    auto* const node = make_counted(&qnm_stats.est_evt_node_al, qnm_evt_node_t{{}, event_type, id});
    if (node == nullptr && _qnm_paced_may_write(QNM_PACED_EVENT_MEMORY, __func__)) {
        qnm_log_error("%s: can't alloc memory for qnm_evt_node_t", __func__);
    }
    return node;
}

void evt_node_free(qnm_evt_node_t* node) {
    delete node;
    qnm::count(&qnm_stats.est_evt_node_fr);
}

// Puts a node at the end of the queue; false when that is full.
bool push_event(qnm_evt_node_t& node) {
    const qnm::mutex_guard lock(qnm_event_queue.evt_mutex);
    if (qnm_event_queue.evt_count >= qnm::k_events_max) return false;
    qnm_event_queue.evt_count++;
    list_push_tail(qnm_event_queue.evt_head, node.een_list);
    return true;
}

// 0; ENOMEM without memory; ENOBUFS when too many are waiting, which is logged here.
int queue_event(const char* func, qnm_evt_type_t event_type, uint64_t id) {
    qnm_evt_node_t* const node = _evt_node_create(event_type, id);
    if (node == nullptr) return ENOMEM;
    if (!push_event(*node)) {
        evt_node_free(node);
        if (_qnm_paced_may_write(QNM_PACED_EVENT_REFUSED, func)) {
            qnm_log_warn("%s: Too many events are waiting. Drop QNM_EVT_%s. max=%u, id=0x%.12lx",
                         func, qnm_event_name(event_type), qnm::k_events_max, id);
        }
        return ENOBUFS;
    }
    qnm::count(&qnm_stats.est_evt[event_type]);
    return 0;
}

// The oldest event, taken off the queue; null when there is none.
qnm_evt_node_t* take_event() {
    const qnm::mutex_guard lock(qnm_event_queue.evt_mutex);
    if (list_is_empty(qnm_event_queue.evt_head)) return nullptr;
    qnm_list* const links = qnm_event_queue.evt_head.el_next;
    list_unlink(*links);
    qnm_event_queue.evt_count--;
    return reinterpret_cast<qnm_evt_node_t*>(links);
}

void _qnm_do_callback(const qnm_cbinfo_t& info, const qnm_evt_node_t& node) {
    qnm_log_debug("%s: start. id=0x%.12lx, event_type=%d, cb_func=%p", __func__, node.een_id,
                  node.een_event, reinterpret_cast<void*>(info.cb_func));
    if (info.cb_func != nullptr) {
        qnm::count(&qnm_stats.est_cb_call);
        info.cb_func(node.een_id, node.een_event, info.cb_arg);
        qnm::count(&qnm_stats.est_cb_return);
    }
    qnm_log_debug("%s: end.", __func__);
}

void _qnm_evt_call(const qnm_evt_node_t& node) {
    qnm_cbevt_t& table = cb_evt_tbl[node.een_event];
    const qnm::mutex_guard lock(table.cl_mutex);
    for (qnm_list* links = table.cl_head.el_next; links != &table.cl_head; links = links->el_next) {
        _qnm_do_callback(*cbinfo_of(links), node);
    }
}

void deliver_all() {
    for (qnm_evt_node_t* node = take_event(); node != nullptr; node = take_event()) {
        _qnm_evt_call(*node);
        evt_node_free(node);
    }
}

// What keeps the event thread from sleeping.
int has_work(void*) {
    if (!qnm::is_running()) return 1;
    const qnm::mutex_guard lock(qnm_event_queue.evt_mutex);
    return list_is_empty(qnm_event_queue.evt_head) ? 0 : 1;
}

void clear_callbacks(qnm_cbevt_t& table) {
    const qnm::mutex_guard lock(table.cl_mutex);
    while (!list_is_empty(table.cl_head)) {
        qnm_cbinfo_t* const info = cbinfo_of(table.cl_head.el_next);
        delist(table, *info);
        cbinfo_free(info);
    }
}

// Makes the callback tables; on failure undoes those made so far. Not locked: no other thread uses
// them yet.
int init_tables(const char* func) QNM_UNCHECKED {
    for (int i = 0; i < QNM_EVT_MAX; i++) {
        list_make_empty(cb_evt_tbl[i].cl_head);
        const int err = _qnm_mutex_init(&cb_evt_tbl[i].cl_mutex);
        if (err != 0) {
            qnm_log_error("%s: Failed to _qnm_mutex_init() for cb_evt_tbl. err=%d, i=%d", func, err,
                          i);
            while (i > 0)
                _qnm_mutex_destroy(&cb_evt_tbl[--i].cl_mutex);
            return EPROTO;
        }
    }
    return 0;
}

int init_all(const char* func) {
    int err = _qnm_mutex_init_st(&qnm_event_queue.evt_mutex);
    if (err != 0) {
        qnm_log_error("%s: Failed to _qnm_mutex_init_st() for qnm_event_queue. err=%d", func, err);
        return EPROTO;
    }
    err = _qnm_event_init(&event_sig);
    if (err != 0) {
        qnm_log_error("%s: Failed to _qnm_event_init() for event_sig. err=%d", func, err);
        _qnm_mutex_destroy_st(&qnm_event_queue.evt_mutex);
        return EPROTO;
    }
    err = init_tables(func);
    if (err != 0) {
        _qnm_event_destroy(&event_sig);
        _qnm_mutex_destroy_st(&qnm_event_queue.evt_mutex);
    }
    return err;
}

int register_callback(const char* func, qnm_evt_type_t type, qnm_cbfunc_t cb_func,
                      const void* cb_arg, qnm_cbid_t* id) {
    qnm_cbinfo_t* const info = _cbinfo_create(type, cb_func, cb_arg);
    if (info == nullptr) {
        qnm_log_error("%s: Failed to _cbinfo_create().", func);
        return ENOMEM;
    }
    {
        const qnm::mutex_guard lock(cb_evt_tbl[type].cl_mutex);
        enlist(cb_evt_tbl[type], *info);
    }
    *id = reinterpret_cast<qnm_cbid_t>(info);
    return 0;
}

// Takes the record out of its type's list; null if it is not there. The list is searched under its
// lock, because another thread may have unregistered the handle meanwhile.
qnm_cbinfo_t* take_registration(qnm_cbid_t id) {
    const qnm_evt_type_t type = type_of_handle(id);
    if (type == QNM_EVT_MAX) return nullptr;
    auto* const wanted = reinterpret_cast<qnm_list*>(id);
    qnm_cbevt_t& table = cb_evt_tbl[type];
    const qnm::mutex_guard lock(table.cl_mutex);
    for (qnm_list* links = table.cl_head.el_next; links != &table.cl_head; links = links->el_next) {
        if (links != wanted) continue;
        delist(table, *cbinfo_of(links));
        return cbinfo_of(links);
    }
    return nullptr;
}

}  // namespace

extern "C" {

int _qnm_event_cb_init(void) {
    qnm_log_info("%s: start.", __func__);
    const int ret = init_all(__func__);
    qnm_log_info("%s: end. ret=%d", __func__, ret);
    return ret;
}

int _qnm_event_cb_fini(void) {
    qnm_log_info("%s: start.", __func__);
    for (qnm_evt_node_t* node = take_event(); node != nullptr; node = take_event()) {
        evt_node_free(node);
    }
    for (qnm_cbevt_t& table : cb_evt_tbl) {
        clear_callbacks(table);
        _qnm_mutex_destroy(&table.cl_mutex);
    }
    _qnm_event_destroy(&event_sig);
    qnm_log_info("%s: end.", __func__);
    return 0;
}

int _qnm_add_event(qnm_evt_type_t event_type, uint64_t id) {
    const int err = queue_event(__func__, event_type, id);
    if (err == 0) _qnm_event_set(&event_sig);
    return err == 0 ? 0 : ENOMEM;
}

void _qnm_raise_event(const char* func, qnm_evt_type_t event_type, uint64_t id) {
    const int err = queue_event(func, event_type, id);
    const auto line = static_cast<qnm_paced_line_t>(QNM_PACED_EVENT_LOST + int{event_type});
    if (err == 0) {
        unsignalled_events++;
    } else if (err == ENOMEM && _qnm_paced_may_write(line, func)) {
        qnm_log_warn("%s: Failed to _qnm_add_event(QNM_EVT_%s) id=0x%.12lx", func,
                     qnm_event_name(event_type), id);
    }
}

uint32_t _qnm_unsignalled_events(void) {
    return unsignalled_events;
}

void _qnm_signal_events(void) {
    if (unsignalled_events == 0) return;
    unsignalled_events = 0;
    _qnm_event_set(&event_sig);
}

void _qnm_event_cb_wake(void) {
    _qnm_event_set(&event_sig);
}

void* _qnm_event_task(void*) {
    qnm_log_info("%s: start.", k_task_name);
    while (qnm::is_running()) {
        const int err = _qnm_event_timedwait_for(&event_sig, k_wait_ms, has_work, nullptr);
        if (err != 0 && err != ETIMEDOUT) {
            qnm_log_fatal("%s: Failed to _qnm_event_timedwait(). err=%d", k_task_name, err);
            _qnm_fini_manager();
            break;
        }
        deliver_all();
    }
    qnm_log_info("%s: end.", k_task_name);
    return nullptr;
}

qnm_api_code_t qnm_register_callback(qnm_evt_type_t type, qnm_cbfunc_t cb_func, const void* cb_arg,
                                     qnm_cbid_t* id) {
    qnm_log_info("%s: (IN) type=%d", __func__, type);
    qnm::public_call call(__func__, QNM_STATS_REGISTER_CALLBACK);
    int err = call.check();
    if (err == 0 &&
        (static_cast<uint32_t>(type) >= QNM_EVT_MAX || cb_func == nullptr || id == nullptr)) {
        err = EINVAL;
    }
    if (err == 0) err = register_callback(__func__, type, cb_func, cb_arg, id);
    const qnm_api_code_t ret = call.result(err);
    if (err == 0) {
        qnm_log_info("%s: (OUT) ret=%d, type=%d, cbid=%p", __func__, ret, type,
                     static_cast<void*>(*id));
    } else {
        qnm_log_info("%s: (OUT) ret=%d, type=%d", __func__, ret, type);
    }
    return ret;
}

qnm_api_code_t qnm_unregister_callback(qnm_cbid_t id) {
    qnm_log_info("%s: (IN) cbid=%p", __func__, static_cast<void*>(id));
    qnm::public_call call(__func__, QNM_STATS_UNREGISTER_CALLBACK);
    int err = call.check();
    if (err == 0 && id == nullptr) err = EINVAL;
    if (err == 0) {
        qnm_cbinfo_t* const info = take_registration(id);
        if (info == nullptr) err = EINVAL;
        if (info != nullptr) cbinfo_free(info);
    }
    return call.end(err);
}

}  // extern "C"
