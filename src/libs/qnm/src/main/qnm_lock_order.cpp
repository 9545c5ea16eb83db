// qnm_lock_order.cpp - aborts when a thread takes the library's locks out of order.
//
// Every thread has its own list of the locks that it holds; nothing is shared. A thread that waits
// for an event counts as holding the event's mutex, as it does when it checks its condition: that
// check may take locks, but only those that may follow an event object.

#include "qnm_lock_order.h"

#ifdef QNM_CHECK_LOCK_ORDER

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace {

constexpr unsigned held(qnm_lock_level_t level) {
    return 1U << level;
}

// The levels that may be held when a lock of a level is taken.
constexpr unsigned k_by_calls = held(QNM_LOCK_CALLBACKS) | held(QNM_LOCK_CARD_WRITE);
constexpr unsigned k_by_tables = k_by_calls | held(QNM_LOCK_TABLE) | held(QNM_LOCK_BLACKLIST);
constexpr unsigned k_by_all = ~(held(QNM_LOCK_PACED) | held(QNM_LOCK_STATS));

struct level_rule {
    const char* name;
    unsigned may_follow;
};

constexpr level_rule k_rules[] = {
    {"unordered lock", 0},
    {"callback list", held(QNM_LOCK_CALLBACKS)},
    {"callback handles", held(QNM_LOCK_CALLBACKS)},
    {"properties of the log", held(QNM_LOCK_CALLBACKS)},
    {"write lock of a card", held(QNM_LOCK_CALLBACKS)},
    {"device table", k_by_calls},
    {"blacklist", k_by_calls | held(QNM_LOCK_TABLE)},
    {"event object", k_by_tables},
    {"event queue", k_by_tables | held(QNM_LOCK_EVENT)},
    {"map of write locks", k_by_calls | held(QNM_LOCK_TABLE)},
    {"completion tags", k_by_calls},
    {"port lock", k_by_calls},
    {"counts of lines", k_by_all},
    {"statistics", k_by_all},
};
static_assert(std::size(k_rules) == QNM_LOCK_LEVEL_MAX);

struct held_lock {
    const void* lock;
    qnm_lock_level_t level;
};

// At most one lock of each level, except callback lists: one per event type.
constexpr size_t k_held_max = 32;
thread_local held_lock held_locks[k_held_max];
thread_local size_t held_count;

// A callback list may follow another one, but a lock never itself.
bool may_follow(const held_lock& outer, const held_lock& inner) {
    return outer.lock != inner.lock && (k_rules[inner.level].may_follow & held(outer.level)) != 0;
}

}  // namespace

void _qnm_lock_order_take(const void* lock, qnm_lock_level_t level) {
    if (level == QNM_LOCK_UNORDERED) return;
    const held_lock wanted = {lock, level};
    const held_lock* const end = held_locks + held_count;
    const held_lock* const broken =
        std::find_if(std::cbegin(held_locks), end,
                     [&](const held_lock& outer) { return !may_follow(outer, wanted); });
    if (broken != end || held_count == k_held_max) {
        fprintf(stderr, "libqnm: lock order broken: %s taken while %s is held\n",
                k_rules[level].name, broken != end ? k_rules[broken->level].name : "too much");
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
