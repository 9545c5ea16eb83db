// qnm_lock_order.h - the order in which a thread takes the library's locks.
//
// Builds with QNM_CHECK_LOCK_ORDER, such as debug builds, store the levels in the mutexes. They
// abort with both names when a thread breaks the order, even if it would not have blocked this
// time. Other builds have none of this.
#pragma once

// Outermost first. No lock is taken while one of its own line or of a lower line is held; each line
// says which of the upper ones may be held. Everything that the callbacks of an event type may call
// may follow that type's list.
typedef enum qnm_lock_level {
    QNM_LOCK_UNORDERED,    // not checked
    QNM_LOCK_CALLBACKS,    // callbacks of one event type; after those of another only
    QNM_LOCK_HANDLES,      // live handles of callbacks; after a callback list only
    QNM_LOCK_LOG,          // while the log's properties are read; after a callback list only
    QNM_LOCK_CARD_WRITE,   // a card's write lock; after a callback list only
    QNM_LOCK_TABLE,        // after a callback list or a write lock
    QNM_LOCK_BLACKLIST,    // after the same and the table
    QNM_LOCK_EVENT,        // within an event object; after the same and the blacklist
    QNM_LOCK_EVENT_QUEUE,  // after the same and the event object, by which its thread is woken
    QNM_LOCK_WRITE_LOCKS,  // the map of the cards' write locks; after those that the table follows,
                           // and after the table
    QNM_LOCK_TAGS,         // after a callback list or a write lock, and no other
    QNM_LOCK_PORT,         // that of a port against other processes; after the same
    QNM_LOCK_PACED,        // the counts of lines; after any other but the statistics
    QNM_LOCK_STATS,        // after any other, and followed by none
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
