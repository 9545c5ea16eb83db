// qnm_lock_order.cpp - aborts where a thread takes the library's locks out of order.
//
// Every thread has a list of its own of the locks that it holds; nothing is shared. A thread that
// waits for an event counts as holding the event's mutex meanwhile: it takes no other lock then.

#include "qnm_lock_order.h"

#ifdef QNM_CHECK_LOCK_ORDER

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace {

constexpr const char* k_names[] = {
    "unordered lock", "callback list", "write lock of a card", "device table",    "blacklist",
    "event object",   "event queue",   "map of write locks",   "completion tags", "statistics",
};
static_assert(std::size(k_names) == QNM_LOCK_LEVEL_MAX);

struct held_lock {
    const void* lock;
    qnm_lock_level_t level;
};

// One of each level at most, but of callback lists one per event type.
constexpr size_t k_held_max = 32;
thread_local held_lock held_locks[k_held_max];
thread_local size_t held_count;

bool may_follow(const held_lock& outer, const held_lock& inner) {
    if (outer.level == QNM_LOCK_CALLBACKS && inner.level == QNM_LOCK_CALLBACKS) {
        return outer.lock != inner.lock;
    }
    return outer.level < inner.level;
}

}  // namespace

void _qnm_lock_order_take(const void* lock, qnm_lock_level_t level) {
    if (level == QNM_LOCK_UNORDERED) return;
    const held_lock wanted = {lock, level};
    const held_lock* const end = held_locks + held_count;
    const held_lock* const broken =
        std::find_if(std::cbegin(held_locks), end,
                     [&](const held_lock& held) { return !may_follow(held, wanted); });
    if (broken != end || held_count == k_held_max) {
        fprintf(stderr, "libqnm: lock order broken: %s taken while %s is held\n", k_names[level],
                broken != end ? k_names[broken->level] : "too much");
        abort();
    }
    held_locks[held_count++] = wanted;
}

void _qnm_lock_order_release(const void* lock) {
    held_lock* const end = held_locks + held_count;
    held_lock* const found =
        std::find_if(held_locks, end, [&](const held_lock& held) { return held.lock == lock; });
    if (found == end) return;
    std::move(found + 1, end, found);
    held_count--;
}

#endif
