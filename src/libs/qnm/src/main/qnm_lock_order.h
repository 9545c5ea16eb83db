// qnm_lock_order.h - the order in which a thread takes the library's locks.
//
// A lock is taken only while locks of lower levels are held. Builds with QNM_CHECK_LOCK_ORDER,
// which debug builds are, keep the levels in the mutexes and abort with both names where a thread
// breaks the order, whether or not it would have blocked this time. In other builds none of it
// exists.
#pragma once

// Outermost first.
typedef enum qnm_lock_level {
    QNM_LOCK_UNORDERED,   // not checked
    QNM_LOCK_CALLBACKS,   // callbacks of one event type; those of another may follow
    QNM_LOCK_CARD_WRITE,  // a card's write lock
    QNM_LOCK_TABLE,
    QNM_LOCK_BLACKLIST,
    QNM_LOCK_EVENT,  // within an event object
    QNM_LOCK_EVENT_QUEUE,
    QNM_LOCK_WRITE_LOCKS,  // the map of the cards' write locks
    QNM_LOCK_TAGS,
    QNM_LOCK_STATS,
    QNM_LOCK_LEVEL_MAX
} qnm_lock_level_t;

#ifdef QNM_CHECK_LOCK_ORDER

// Called before a lock is taken, and after it has been released.
void _qnm_lock_order_take(const void* lock, qnm_lock_level_t level);
void _qnm_lock_order_release(const void* lock);

#else

inline void _qnm_lock_order_take(const void*, qnm_lock_level_t) {}
inline void _qnm_lock_order_release(const void*) {}

#endif
