// qnm_completion.cpp - completion tags: which register read an arriving Completion answers.
//
// A table has an entry per tag; cmp_mutex guards all of it. It is held for single steps and never
// while waiting or signalling. Reading threads and the receive threads meet here: the reader arms
// its tag with the address and the port that it asked, the receive thread accepts what fits, then
// sets the tag's event.
//
// The event forgets a signal that nobody waits for. So the reader arms before it sends, and its
// wait looks at the tag under the event's own mutex before it sleeps and after each wake-up: an
// answer that overtakes either is found at once, and a signal that was meant for the tag's last
// owner ends nothing. For that look cmp_comp_state is read and written atomically.
//
// A Completion names nothing but its tag. One that comes after its reader has sent again or given
// up must not reach another reader. So the tag of an unanswered frame rests for a while before it
// is handed out again, unless no other tag is free. At most half of the tags rest; the other half
// is enough to rotate through, which keeps repeated Completions away from new owners. When only a
// few tags are configured, none rests: half of them would come round again at once.

#include "qnm_completion.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <iterator>

#include "qnm.h"
#include "qnm_config.h"
#include "qnm_paced_log.h"
#include "qnm_thread.h"
#include "qnm_util.h"

namespace {

// How late a Completion may still arrive.
constexpr uint64_t k_rest_ms = 1000;

// With fewer tags than this, none rests.
constexpr ptrdiff_t k_least_to_rest = 64;

// Values of cmp_comp_state.
constexpr uint32_t k_idle = 0;
constexpr uint32_t k_waiting = 1;
constexpr uint32_t k_received = 2;

qnm_mutex_t cmp_mutex = QNM_MUTEX_OF_LEVEL(QNM_LOCK_TAGS);

struct completion_tag {
    uint32_t cmp_tag_state QNM_GUARDED_BY(cmp_mutex);  // 1 = allocated
    uint32_t cmp_comp_state;                           // k_idle, k_waiting or k_received; atomic
    uint64_t cmp_mac QNM_GUARDED_BY(cmp_mutex);        // whom the read was sent to
    int32_t cmp_port QNM_GUARDED_BY(cmp_mutex);        // and by which port
    uint32_t cmp_data QNM_GUARDED_BY(cmp_mutex);       // the value that the Completion brought
    // In milliseconds of the monotonic clock; 0 = it need not rest.
    uint64_t cmp_rest_end QNM_GUARDED_BY(cmp_mutex);
    qnm_event_t cmp_signal;
};

completion_tag cmp_tags[256];
uint32_t cmp_pre_tag QNM_GUARDED_BY(cmp_mutex);  // handed out last
uint32_t cmp_woken;                              // 1 = waits end at once

bool is_valid(int tag) {
    return tag >= 0 && static_cast<uint32_t>(tag) >= qnm_config.tag_min &&
           static_cast<uint32_t>(tag) <= qnm_config.tag_max;
}

void log_invalid(const char* func, int tag) {
    qnm_log_warn("%s: Invalid tag. tag=%d", func, tag);
}

bool check_tag(const char* func, int tag) {
    if (is_valid(tag)) return true;
    log_invalid(func, tag);
    return false;
}

void destroy_events(size_t count) {
    for (size_t n = 0; n < count; n++)
        _qnm_event_destroy(&cmp_tags[n].cmp_signal);
}

int init_events(const char* func) {
    for (size_t n = 0; n < std::size(cmp_tags); n++) {
        if (_qnm_event_init(&cmp_tags[n].cmp_signal) == 0) continue;
        qnm_log_error("%s: Failed to _qnm_event_init()", func);
        destroy_events(n);
        return EPROTO;
    }
    return 0;
}

// Not locked: no other thread exists yet.
int init_tags(const char* func) QNM_UNCHECKED {
    for (completion_tag& tag : cmp_tags)
        tag = {};
    cmp_pre_tag = qnm_config.tag_min;
    qnm::store(cmp_woken, 0U);
    if (_qnm_mutex_init_st(&cmp_mutex) != 0) {
        qnm_log_error("%s: Failed to _qnm_mutex_init_st()", func);
        return EPROTO;
    }
    const int err = init_events(func);
    if (err != 0) _qnm_mutex_destroy_st(&cmp_mutex);
    return err;
}

bool is_resting(const completion_tag& tag) QNM_REQUIRES(cmp_mutex) {
    return tag.cmp_rest_end != 0 && _qnm_get_msec_monotonic() < tag.cmp_rest_end;
}

bool is_free(const completion_tag& tag) QNM_REQUIRES(cmp_mutex) {
    return tag.cmp_tag_state == 0 && !is_resting(tag);
}

bool is_free_or_resting(const completion_tag& tag) QNM_REQUIRES(cmp_mutex) {
    return tag.cmp_tag_state == 0;
}

// The next usable tag in rotation; cmp_pre_tag itself comes last. -1 if there is none.
int next_tag(bool (*will_do)(const completion_tag&)) QNM_REQUIRES(cmp_mutex) {
    uint32_t tag = cmp_pre_tag;
    do {
        tag = tag < qnm_config.tag_max ? tag + 1 : qnm_config.tag_min;
        if (will_do(cmp_tags[tag])) return static_cast<int>(tag);
    } while (tag != cmp_pre_tag);
    return -1;
}

int find_tag() QNM_REQUIRES(cmp_mutex) {
    if (!is_valid(static_cast<int>(cmp_pre_tag))) cmp_pre_tag = qnm_config.tag_min;
    const int tag = next_tag(is_free);
    return tag != -1 ? tag : next_tag(is_free_or_resting);
}

// Whether one more tag may rest.
bool has_room_to_rest() QNM_REQUIRES(cmp_mutex) {
    const auto first = std::begin(cmp_tags) + qnm_config.tag_min;
    const auto last = std::begin(cmp_tags) + qnm_config.tag_max + 1;
    if (last - first < k_least_to_rest) return false;
    return std::count_if(first, last, is_resting) < (last - first) / 2;
}

// Ends the use of a tag.
void give_back(completion_tag& tag, uint64_t rest_end) QNM_REQUIRES(cmp_mutex) {
    tag.cmp_tag_state = 0;
    tag.cmp_rest_end = rest_end;
    qnm::store(tag.cmp_comp_state, k_idle);
    tag.cmp_data = 0;
}

// Whether the wait is over.
int is_answered(void* arg) {
    const auto* const tag = static_cast<const completion_tag*>(arg);
    return qnm::load(tag->cmp_comp_state) == k_received || qnm::load(cmp_woken) == 1;
}

// Hands the value to the tag's owner if it waits for exactly this frame; returns whether it did.
bool accept(const char* func, completion_tag& tag, int port, uint64_t src_mac, uint32_t data) {
    const qnm::mutex_guard lock(cmp_mutex);
    if (tag.cmp_comp_state != k_waiting) return false;
    if (tag.cmp_port != port) {
        qnm_log_trace(
            "%s: Completion frame is received from the port which isn't used by sending Register "
            "Read frame.",
            func);
        return false;
    }
    if (tag.cmp_mac != src_mac) {
        qnm_log_trace(
            "%s: The MAC address which isn't used by sending Register Read frame received set "
            "Completion frame.",
            func);
        return false;
    }
    tag.cmp_data = data;
    qnm::store(tag.cmp_comp_state, k_received);
    return true;
}

}  // namespace

extern "C" {

int _qnm_cmp_init(void) {
    qnm_log_info("%s: start.", __func__);
    const int ret = init_tags(__func__);
    qnm_log_info("%s: end. ret=%d", __func__, ret);
    return ret;
}

int _qnm_cmp_fini(void) {
    qnm_log_info("%s: start.", __func__);
    _qnm_cmp_wake();
    destroy_events(std::size(cmp_tags));
    _qnm_mutex_destroy_st(&cmp_mutex);
    qnm_log_info("%s: end.", __func__);
    return 0;
}

void _qnm_cmp_wake(void) {
    qnm::store(cmp_woken, 1U);
    for (completion_tag& tag : cmp_tags) {
        if (qnm::load(tag.cmp_comp_state) == k_waiting) _qnm_event_set(&tag.cmp_signal);
    }
}

int _qnm_get_tag(int* tag_out) {
    if (tag_out == nullptr) {
        qnm_log_warn("%s: Invalid parameter. tag is NULL.", __func__);
        return -1;
    }
    const qnm::mutex_guard lock(cmp_mutex);
    const int tag = find_tag();
    if (tag == -1) {
        qnm_log_error("%s: Can't get a tag value, because all tags are used.", __func__);
        return -1;
    }
    cmp_tags[tag].cmp_tag_state = 1;
    cmp_tags[tag].cmp_rest_end = 0;
    qnm::store(cmp_tags[tag].cmp_comp_state, k_idle);
    cmp_pre_tag = static_cast<uint32_t>(tag);
    *tag_out = tag;
    return 0;
}

int _qnm_release_tag(int tag) {
    if (!check_tag(__func__, tag)) return 0;
    const qnm::mutex_guard lock(cmp_mutex);
    give_back(cmp_tags[tag], 0);
    return 0;
}

int _qnm_rest_tag(int tag) {
    if (!check_tag(__func__, tag)) return 0;
    const qnm::mutex_guard lock(cmp_mutex);
    give_back(cmp_tags[tag], has_room_to_rest() ? _qnm_get_msec_monotonic() + k_rest_ms : 0);
    return 0;
}

void _qnm_set_comp_recv_wait(int tag, uint64_t dst_mac, int port) {
    if (!check_tag(__func__, tag)) return;
    const qnm::mutex_guard lock(cmp_mutex);
    if (cmp_tags[tag].cmp_comp_state != k_received) {
        qnm::store(cmp_tags[tag].cmp_comp_state, k_waiting);
    }
    cmp_tags[tag].cmp_mac = dst_mac;
    cmp_tags[tag].cmp_port = port;
}

int _qnm_sigwait_comp(int tag, uint32_t timeout) {
    if (!check_tag(__func__, tag)) return EPROTO;
    const int err =
        _qnm_event_await(&cmp_tags[tag].cmp_signal, timeout, is_answered, &cmp_tags[tag]);
    return err == 0 || err == ETIMEDOUT ? err : EPROTO;
}

int _qnm_recv_comp(int tag, int port, uint64_t src_mac, uint32_t data) {
    if (!is_valid(tag)) {
        if (_qnm_paced_may_write(QNM_PACED_TAG, __func__)) log_invalid(__func__, tag);
        return 0;
    }
    if (accept(__func__, cmp_tags[tag], port, src_mac, data)) {
        _qnm_event_set(&cmp_tags[tag].cmp_signal);
    }
    return 0;
}

int _qnm_get_readreg(int tag, uint32_t* data_out) {
    if (!check_tag(__func__, tag)) return EPROTO;
    if (data_out == nullptr) {
        qnm_log_warn("%s: Invalid parameter. data is NULL.", __func__);
        return EPROTO;
    }
    const qnm::mutex_guard lock(cmp_mutex);
    if (cmp_tags[tag].cmp_comp_state != k_received) return ENOENT;
    *data_out = cmp_tags[tag].cmp_data;
    return 0;
}

}  // extern "C"
