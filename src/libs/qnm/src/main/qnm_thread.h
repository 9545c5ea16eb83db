// qnm_thread.h - mutex, event and thread primitives, and what makes them safe to use in C++.
//
// The event object is memoryless: a signal that nobody waits for is lost. A thread that must not
// miss one uses _qnm_event_timedwait_for(), which checks the awaited condition under the event's
// own mutex before it sleeps. A producer changes the condition first and then calls
// _qnm_event_set(), so it cannot slip between the check and the sleep.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "qnm_annotations.h"
#include "qnm_lock_order.h"

typedef struct QNM_CAPABILITY("mutex") qnm_mutex {
    pthread_mutex_t em_mutex;
#ifdef QNM_CHECK_LOCK_ORDER
    qnm_lock_level_t em_level = QNM_LOCK_UNORDERED;
#endif
} qnm_mutex_t;

typedef struct qnm_event {
    pthread_mutex_t eev_mutex;
    pthread_cond_t eev_cond;  // on the monotonic clock
} qnm_event_t;

typedef struct qnm_thread_id {
    pthread_t et_thread;
} qnm_thread_id_t;

typedef uint8_t qnm_bool_t;

// Initialiser of a mutex with static storage; the _st functions below do nothing for such a mutex.
#define QNM_MUTEX_STATIC_INIT \
    { PTHREAD_MUTEX_INITIALIZER }

// The same with the mutex's level in the order of locks, which _qnm_mutex_init() leaves unchanged.
#ifdef QNM_CHECK_LOCK_ORDER
#define QNM_MUTEX_OF_LEVEL(level) \
    { PTHREAD_MUTEX_INITIALIZER, level }
#else
#define QNM_MUTEX_OF_LEVEL(level) QNM_MUTEX_STATIC_INIT
#endif

extern "C" {

int _qnm_mutex_init(qnm_mutex_t* mutex);  // always 0
int _qnm_mutex_init_st(qnm_mutex_t* mutex);
int _qnm_mutex_destroy(qnm_mutex_t* mutex);
int _qnm_mutex_destroy_st(qnm_mutex_t* mutex);
int _qnm_mutex_lock(qnm_mutex_t* mutex) QNM_ACQUIRE(mutex);
int _qnm_mutex_unlock(qnm_mutex_t* mutex) QNM_RELEASE(mutex);

typedef void* (*qnm_thread_func_t)(void*);

// Starts a joinable thread in which every signal is blocked, so that a signal meant for the host
// program can never make a worker's poll() fail with EINTR. Returns the creation result.
int _qnm_thread_create(qnm_thread_func_t func, void* arg, qnm_thread_id_t* tid);
int _qnm_thread_join(qnm_thread_id_t* tid);
int _qnm_thread_destroy(qnm_thread_id_t* tid);  // always 0

int _qnm_event_init(qnm_event_t* evt);
int _qnm_event_destroy(qnm_event_t* evt);  // 0 or EPROTO
int _qnm_event_set(qnm_event_t* evt);      // wakes one waiter; EPROTO when it cannot lock
int _qnm_event_wait(qnm_event_t* evt);     // 0, ENOSYS (cannot lock) or EPROTO

// 0 when signalled (or woken spuriously), ETIMEDOUT on time-out, ENOSYS (cannot lock) or EPROTO. A
// timeout_ms of 0 waits for one signal without limit, and then returns ETIMEDOUT.
int _qnm_event_timedwait(qnm_event_t* evt, uint32_t timeout_ms);

// As above, but returns 0 at once when holds(arg) is non-zero before the sleep. holds is called
// with the event's mutex held. A timeout_ms of 0 checks once.
typedef int (*qnm_event_cond_t)(void* arg);
int _qnm_event_timedwait_for(qnm_event_t* evt, uint32_t timeout_ms, qnm_event_cond_t holds,
                             void* arg);

// As above, but continues to wait if holds(arg) is zero after a wake-up.
int _qnm_event_await(qnm_event_t* evt, uint32_t timeout_ms, qnm_event_cond_t holds, void* arg);

}  // extern "C"

namespace qnm {

// For plain words of the global records that several threads read and set without a lock.
// Sequentially consistent: they are flags, so speed does not matter.
template <typename Word>
Word load(const Word& word) {
    return std::atomic_ref<Word>(const_cast<Word&>(word)).load();
}

template <typename Word>
void store(Word& word, Word value) {
    std::atomic_ref<Word>(word).store(value);
}

// Holds a mutex for a scope.
class QNM_SCOPED_CAPABILITY mutex_guard {
  public:
    explicit mutex_guard(qnm_mutex_t& mutex) QNM_ACQUIRE(mutex) : mutex_(mutex) {
        _qnm_mutex_lock(&mutex);
    }
    ~mutex_guard() QNM_RELEASE() { _qnm_mutex_unlock(&mutex_); }
    mutex_guard(const mutex_guard&) = delete;
    mutex_guard& operator=(const mutex_guard&) = delete;

  private:
    qnm_mutex_t& mutex_;
};

}  // namespace qnm
