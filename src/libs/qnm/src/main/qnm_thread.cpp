// qnm_thread.cpp - mutex, event and thread primitives over POSIX threads.
//
// None of the functions keeps state of its own. An event's mutex is held only around a wait,
// and for a moment before a signal.

#include "qnm_thread.h"

#include <signal.h>

#include <cerrno>

#include "qnm_util.h"

namespace {

#ifndef QNM_CHECK_LOCK_ORDER
static_assert(sizeof(qnm_mutex_t) == sizeof(pthread_mutex_t));
#endif

// The condition that ends a wait early.
enum class ends { on_signal, on_condition };

int never(void*) {
    return 0;
}

void note_taking([[maybe_unused]] const qnm_mutex_t& mutex) {
#ifdef QNM_CHECK_LOCK_ORDER
    _qnm_lock_order_take(&mutex, mutex.em_level);
#endif
}

// An event's own mutex.
int lock(qnm_event_t* evt) {
    _qnm_lock_order_take(evt, QNM_LOCK_EVENT);
    const int err = pthread_mutex_lock(&evt->eev_mutex);
    if (err != 0) _qnm_lock_order_release(evt);
    return err;
}

int unlock(qnm_event_t* evt) {
    _qnm_lock_order_release(evt);
    return pthread_mutex_unlock(&evt->eev_mutex);
}

int wait_until(qnm_event_t* evt, uint32_t timeout_ms, ends wait_ends, qnm_event_cond_t holds,
               void* arg) {
    struct timespec deadline;
    if (_qnm_get_deadline(timeout_ms, &deadline) != 0) return EPROTO;
    if (lock(evt) != 0) return ENOSYS;
    int ret = 0;
    while (ret == 0 && holds(arg) == 0) {
        ret = pthread_cond_timedwait(&evt->eev_cond, &evt->eev_mutex, &deadline);
        if (wait_ends == ends::on_signal) break;
    }
    if (ret == ETIMEDOUT && holds(arg) != 0) ret = 0;
    unlock(evt);
    if (ret == 0 || ret == ETIMEDOUT) return ret;
    return EPROTO;
}

}  // namespace

extern "C" {

int _qnm_mutex_init(qnm_mutex_t* mutex) {
    pthread_mutex_init(&mutex->em_mutex, nullptr);
    return 0;
}

int _qnm_mutex_init_st(qnm_mutex_t*) {
    return 0;
}

int _qnm_mutex_destroy(qnm_mutex_t* mutex) {
    return pthread_mutex_destroy(&mutex->em_mutex);
}

int _qnm_mutex_destroy_st(qnm_mutex_t*) {
    return 0;
}

// Unchecked: POSIX functions have no lock annotations.
int _qnm_mutex_lock(qnm_mutex_t* mutex) QNM_UNCHECKED {
    note_taking(*mutex);
    const int err = pthread_mutex_lock(&mutex->em_mutex);
    if (err != 0) _qnm_lock_order_release(mutex);
    return err;
}

int _qnm_mutex_unlock(qnm_mutex_t* mutex) QNM_UNCHECKED {
    _qnm_lock_order_release(mutex);
    return pthread_mutex_unlock(&mutex->em_mutex);
}

int _qnm_thread_create(qnm_thread_func_t func, void* arg, qnm_thread_id_t* tid) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int ret = pthread_create(&tid->et_thread, nullptr, func, arg);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return ret;
}

int _qnm_thread_join(qnm_thread_id_t* tid) {
    return pthread_join(tid->et_thread, nullptr);
}

int _qnm_thread_destroy(qnm_thread_id_t*) {
    return 0;
}

int _qnm_event_init(qnm_event_t* evt) {
    pthread_condattr_t attr;
    const int err = pthread_condattr_init(&attr);
    if (err != 0) return err;
    const int ret = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    if (ret == 0) {
        pthread_mutex_init(&evt->eev_mutex, nullptr);
        pthread_cond_init(&evt->eev_cond, &attr);
    }
    pthread_condattr_destroy(&attr);
    return ret;
}

int _qnm_event_destroy(qnm_event_t* evt) {
    const int mutex_ret = pthread_mutex_destroy(&evt->eev_mutex);
    const int cond_ret = pthread_cond_destroy(&evt->eev_cond);
    return mutex_ret != 0 || cond_ret != 0 ? EPROTO : 0;
}

int _qnm_event_set(qnm_event_t* evt) {
    if (lock(evt) != 0) return EPROTO;
    // Signalled after the mutex is released; otherwise the woken thread would block on it at once.
    // No signal is lost: a waiter holds the mutex from the check of its condition until it sleeps.
    unlock(evt);
    return pthread_cond_signal(&evt->eev_cond);
}

int _qnm_event_wait(qnm_event_t* evt) {
    if (lock(evt) != 0) return ENOSYS;
    const int ret = pthread_cond_wait(&evt->eev_cond, &evt->eev_mutex);
    unlock(evt);
    return ret != 0 ? EPROTO : 0;
}

int _qnm_event_timedwait(qnm_event_t* evt, uint32_t timeout_ms) {
    if (timeout_ms == 0) _qnm_event_wait(evt);
    return wait_until(evt, timeout_ms, ends::on_signal, never, nullptr);
}

int _qnm_event_timedwait_for(qnm_event_t* evt, uint32_t timeout_ms, qnm_event_cond_t holds,
                             void* arg) {
    return wait_until(evt, timeout_ms, ends::on_signal, holds, arg);
}

int _qnm_event_await(qnm_event_t* evt, uint32_t timeout_ms, qnm_event_cond_t holds, void* arg) {
    return wait_until(evt, timeout_ms, ends::on_condition, holds, arg);
}

}  // extern "C"
