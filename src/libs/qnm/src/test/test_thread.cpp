// test_thread.cpp - mutex, event and thread primitives.
//
// A waiter counts as waiting once its call of the condition variable has been counted: from then on
// it holds the event's mutex until it sleeps, so _qnm_event_set cannot come too early.

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <thread>

#include "fail.h"
#include "qnm_thread.h"
#include "wait.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

// ---- Mutexes ------------------------------------------------------------------------------------

class Mutex : public testing::Test {
  protected:
    fail::guard fail_;
};

TEST_F(Mutex, is_initialised_locked_unlocked_and_destroyed) {
    qnm_mutex_t mutex;
    EXPECT_EQ(_qnm_mutex_init(&mutex), 0);
    EXPECT_EQ(_qnm_mutex_lock(&mutex), 0);
    EXPECT_EQ(pthread_mutex_trylock(&mutex.em_mutex), EBUSY);
    EXPECT_EQ(_qnm_mutex_unlock(&mutex), 0);
    EXPECT_EQ(pthread_mutex_trylock(&mutex.em_mutex), 0);
    pthread_mutex_unlock(&mutex.em_mutex);
    EXPECT_EQ(_qnm_mutex_destroy(&mutex), 0);
}

TEST_F(Mutex, init_succeeds_whatever_the_system_says) {
    qnm_mutex_t mutex;
    fail::nth(fail::call::pthread_mutex_init, 1, ENOMEM);
    EXPECT_EQ(_qnm_mutex_init(&mutex), 0);
}

TEST_F(Mutex, destroy_and_lock_return_what_the_system_says) {
    qnm_mutex_t mutex = QNM_MUTEX_STATIC_INIT;
    fail::nth(fail::call::pthread_mutex_lock, 1, EDEADLK);
    EXPECT_EQ(_qnm_mutex_lock(&mutex), EDEADLK);
    fail::nth(fail::call::pthread_mutex_destroy, 1, EBUSY);
    EXPECT_EQ(_qnm_mutex_destroy(&mutex), EBUSY);
    EXPECT_EQ(_qnm_mutex_destroy(&mutex), 0);
}

#ifndef __SANITIZE_THREAD__  // which takes this very mistake for a fault of the test
TEST_F(Mutex, unlock_returns_what_the_system_says) {
    qnm_mutex_t mutex;
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&mutex.em_mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    EXPECT_EQ(_qnm_mutex_unlock(&mutex), EPERM);
    _qnm_mutex_destroy(&mutex);
}
#endif

TEST_F(Mutex, of_static_storage_is_left_alone_by_init_and_destroy) {
    static qnm_mutex_t mutex = QNM_MUTEX_STATIC_INIT;
    _qnm_mutex_lock(&mutex);
    EXPECT_EQ(_qnm_mutex_init_st(&mutex), 0);
    EXPECT_EQ(_qnm_mutex_destroy_st(&mutex), 0);
    EXPECT_EQ(pthread_mutex_trylock(&mutex.em_mutex), EBUSY);
    EXPECT_EQ(_qnm_mutex_unlock(&mutex), 0);
    EXPECT_EQ(fail::count(fail::call::pthread_mutex_init), 0u);
    EXPECT_EQ(fail::count(fail::call::pthread_mutex_destroy), 0u);
}

TEST_F(Mutex, guard_holds_it_for_a_scope) {
    qnm_mutex_t mutex = QNM_MUTEX_STATIC_INIT;
    {
        const qnm::mutex_guard guard(mutex);
        EXPECT_EQ(pthread_mutex_trylock(&mutex.em_mutex), EBUSY);
    }
    EXPECT_EQ(pthread_mutex_trylock(&mutex.em_mutex), 0);
    pthread_mutex_unlock(&mutex.em_mutex);
}

TEST_F(Mutex, lets_one_thread_in_at_a_time) {
    qnm_mutex_t mutex = QNM_MUTEX_STATIC_INIT;
    constexpr int k_rounds = 20000;
    int counter = 0;
    const auto work = [&] {
        for (int i = 0; i < k_rounds; i++) {
            _qnm_mutex_lock(&mutex);
            counter++;
            _qnm_mutex_unlock(&mutex);
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(counter, 2 * k_rounds);
}

// ---- Threads ------------------------------------------------------------------------------------

sigset_t current_mask() {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return mask;
}

bool blocked(const sigset_t& mask, int signal) {
    return sigismember(&mask, signal) == 1;
}

struct thread_report {
    pthread_t self;
    sigset_t mask;
};

void* report(void* arg) {
    *static_cast<thread_report*>(arg) = {pthread_self(), current_mask()};
    return arg;
}

class Thread : public testing::Test {
  protected:
    fail::guard fail_;
    qnm_thread_id_t tid_ = {};
    thread_report report_ = {};
};

TEST_F(Thread, runs_the_routine_with_its_argument_until_joined) {
    ASSERT_EQ(_qnm_thread_create(report, &report_, &tid_), 0);
    EXPECT_EQ(_qnm_thread_join(&tid_), 0);
    EXPECT_EQ(_qnm_thread_destroy(&tid_), 0);
    EXPECT_TRUE(pthread_equal(report_.self, tid_.et_thread));
    EXPECT_FALSE(pthread_equal(report_.self, pthread_self()));
}

TEST_F(Thread, never_sees_the_signals_of_the_host_program) {
    ASSERT_EQ(_qnm_thread_create(report, &report_, &tid_), 0);
    ASSERT_EQ(_qnm_thread_join(&tid_), 0);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGALRM, SIGCHLD, SIGUSR1, SIGPIPE})
        EXPECT_TRUE(blocked(report_.mask, signal)) << signal;
}

class ThreadSignalMask : public Thread, public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(creation_succeeds_or_fails, ThreadSignalMask, testing::Values(0, EAGAIN));

TEST_P(ThreadSignalMask, of_the_creator_stays_as_it_was) {
    sigset_t mask;
    sigset_t before;
    sigemptyset(&mask);
    sigaddset(&mask, SIGUSR2);
    pthread_sigmask(SIG_SETMASK, &mask, &before);
    if (GetParam() != 0) fail::nth(fail::call::pthread_create, 1, GetParam());
    EXPECT_EQ(_qnm_thread_create(report, &report_, &tid_), GetParam());
    const sigset_t after = current_mask();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_TRUE(blocked(after, SIGUSR2));
    EXPECT_FALSE(blocked(after, SIGUSR1));
    EXPECT_FALSE(blocked(after, SIGTERM));
    if (GetParam() == 0) {
        EXPECT_EQ(_qnm_thread_join(&tid_), 0);
    }
}

TEST_F(Thread, join_returns_what_the_system_says) {
    ASSERT_EQ(_qnm_thread_create(report, &report_, &tid_), 0);
    fail::nth(fail::call::pthread_join, 1, ESRCH);
    EXPECT_EQ(_qnm_thread_join(&tid_), ESRCH);
    EXPECT_EQ(_qnm_thread_join(&tid_), 0);
}

// ---- Plain words --------------------------------------------------------------------------------

TEST(Words, written_by_one_thread_reach_another) {
    int flag = 0;
    int payload = 0;
    std::thread writer([&] {
        payload = 42;
        qnm::store(flag, 1);
    });
    EXPECT_TRUE(wait_until([&] { return qnm::load(flag) == 1; }));
    EXPECT_EQ(payload, 42);
    writer.join();
}

// ---- Events: creation and end -------------------------------------------------------------------

class EventInit : public testing::TestWithParam<fail::call> {};

INSTANTIATE_TEST_SUITE_P(of_its_attribute, EventInit,
                         testing::Values(fail::call::pthread_condattr_init,
                                         fail::call::pthread_condattr_setclock));

TEST_P(EventInit, fails_with_its_attribute_and_initialises_nothing) {
    const fail::guard fail;
    qnm_event_t evt;
    fail::nth(GetParam(), 1, EINVAL);
    EXPECT_EQ(_qnm_event_init(&evt), EINVAL);
    EXPECT_EQ(fail::count(fail::call::pthread_mutex_init), 0u);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_init), 0u);
}

TEST(EventMaking, initialises_the_mutex_and_the_condition_variable) {
    const fail::guard fail;
    qnm_event_t evt;
    EXPECT_EQ(_qnm_event_init(&evt), 0);
    EXPECT_EQ(fail::count(fail::call::pthread_mutex_init), 1u);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_init), 1u);
    EXPECT_EQ(_qnm_event_destroy(&evt), 0);
}

class EventDestroy : public testing::TestWithParam<fail::call> {};

INSTANTIATE_TEST_SUITE_P(of_either_half, EventDestroy,
                         testing::Values(fail::call::pthread_mutex_destroy,
                                         fail::call::pthread_cond_destroy));

TEST_P(EventDestroy, reports_a_failure_and_tries_both_halves) {
    const fail::guard fail;
    qnm_event_t evt;
    ASSERT_EQ(_qnm_event_init(&evt), 0);
    fail::nth(GetParam(), 1, EBUSY);
    EXPECT_EQ(_qnm_event_destroy(&evt), EPROTO);
    EXPECT_EQ(fail::count(fail::call::pthread_mutex_destroy), 1u);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_destroy), 1u);
}

// ---- Events: signal and wait --------------------------------------------------------------------

class Event : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(_qnm_event_init(&evt_), 0); }
    void TearDown() override {
        expect_unlocked();
        EXPECT_EQ(_qnm_event_destroy(&evt_), 0);
    }

    void expect_unlocked() {
        EXPECT_EQ(pthread_mutex_trylock(&evt_.eev_mutex), 0);
        pthread_mutex_unlock(&evt_.eev_mutex);
    }

    static bool wait_for_sleepers(fail::call call, unsigned number) {
        return wait_until([=] { return fail::count(call) == number; });
    }

    fail::guard fail_;
    qnm_event_t evt_;
};

TEST_F(Event, wakes_a_thread_that_waits_without_limit) {
    int result = -1;
    std::thread waiter([&] { result = _qnm_event_wait(&evt_); });
    EXPECT_TRUE(wait_for_sleepers(fail::call::pthread_cond_wait, 1));
    EXPECT_EQ(_qnm_event_set(&evt_), 0);
    waiter.join();
    EXPECT_EQ(result, 0);
}

TEST_F(Event, wakes_a_thread_that_waits_with_a_limit) {
    int result = -1;
    std::thread waiter([&] { result = _qnm_event_timedwait(&evt_, 600000); });
    EXPECT_TRUE(wait_for_sleepers(fail::call::pthread_cond_timedwait, 1));
    EXPECT_EQ(_qnm_event_set(&evt_), 0);
    waiter.join();
    EXPECT_EQ(result, 0);
}

// One waiter is signalled; there is no broadcast.
TEST_F(Event, is_set_once_for_each_of_two_waiters) {
    std::atomic<int> woken = 0;
    const auto wait = [&] { woken += _qnm_event_wait(&evt_) == 0 ? 1 : 0; };
    std::thread first(wait);
    std::thread second(wait);
    EXPECT_TRUE(wait_for_sleepers(fail::call::pthread_cond_wait, 2));
    EXPECT_EQ(_qnm_event_set(&evt_), 0);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_signal), 1u);
    EXPECT_TRUE(wait_until([&] { return woken >= 1; }));
    EXPECT_EQ(_qnm_event_set(&evt_), 0);
    first.join();
    second.join();
    EXPECT_EQ(woken, 2);
}

TEST_F(Event, does_not_remember_a_signal_without_a_waiter) {
    EXPECT_EQ(_qnm_event_set(&evt_), 0);
    const auto before = steady_clock::now();
    EXPECT_EQ(_qnm_event_timedwait(&evt_, 100), ETIMEDOUT);
    EXPECT_GE(steady_clock::now() - before, 100ms);
}

TEST_F(Event, waits_twice_when_the_limit_is_0) {
    int result = -1;
    std::thread waiter([&] { result = _qnm_event_timedwait(&evt_, 0); });
    EXPECT_TRUE(wait_for_sleepers(fail::call::pthread_cond_wait, 1));
    EXPECT_EQ(fail::count(fail::call::pthread_cond_timedwait), 0u);
    EXPECT_EQ(_qnm_event_set(&evt_), 0);
    waiter.join();
    EXPECT_EQ(result, ETIMEDOUT);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_timedwait), 1u);
}

TEST_F(Event, ignores_how_the_first_of_the_two_waits_ended) {
    fail::nth(fail::call::pthread_cond_wait, 1, EINVAL);
    EXPECT_EQ(_qnm_event_timedwait(&evt_, 0), ETIMEDOUT);
}

TEST_F(Event, does_not_wait_without_limit_when_there_is_one) {
    EXPECT_EQ(_qnm_event_timedwait(&evt_, 1), ETIMEDOUT);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_wait), 0u);
}

TEST_F(Event, reports_a_spurious_wake_up_like_a_signal) {
    fail::on(fail::call::pthread_cond_timedwait, [](uint64_t) { return fail::done; });
    fail::on(fail::call::pthread_cond_wait, [](uint64_t) { return fail::done; });
    EXPECT_EQ(_qnm_event_timedwait(&evt_, 100), 0);
    EXPECT_EQ(_qnm_event_wait(&evt_), 0);
}

TEST_F(Event, is_signalled_when_its_mutex_is_free) {
    int locked = -1;
    fail::on(fail::call::pthread_cond_signal, [&](uint64_t) {
        locked = pthread_mutex_trylock(&evt_.eev_mutex);
        if (locked == 0) pthread_mutex_unlock(&evt_.eev_mutex);
        return fail::pass;
    });
    EXPECT_EQ(_qnm_event_set(&evt_), 0);
    EXPECT_EQ(locked, 0);
}

TEST_F(Event, returns_what_the_signal_call_returned) {
    fail::nth(fail::call::pthread_cond_signal, 1, EINVAL);
    EXPECT_EQ(_qnm_event_set(&evt_), EINVAL);
}

TEST_F(Event, tells_a_failed_lock_apart_from_a_failed_wait) {
    fail::always(fail::call::pthread_mutex_lock, EINVAL);
    EXPECT_EQ(_qnm_event_set(&evt_), EPROTO);
    EXPECT_EQ(_qnm_event_wait(&evt_), ENOSYS);
    EXPECT_EQ(_qnm_event_timedwait(&evt_, 1), ENOSYS);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_signal), 0u);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_wait), 0u);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_timedwait), 0u);
    fail::clear(fail::call::pthread_mutex_lock);
    fail::nth(fail::call::pthread_cond_wait, 1, EINVAL);
    EXPECT_EQ(_qnm_event_wait(&evt_), EPROTO);
    fail::nth(fail::call::pthread_cond_timedwait, 1, EINVAL);
    EXPECT_EQ(_qnm_event_timedwait(&evt_, 1), EPROTO);
}

TEST_F(Event, cannot_wait_with_a_limit_without_a_clock) {
    fail::nth(fail::call::clock_gettime, 1, EINVAL);
    EXPECT_EQ(_qnm_event_timedwait(&evt_, 1), EPROTO);
    EXPECT_EQ(fail::count(fail::call::pthread_mutex_lock), 0u);
}

// ---- Events: wait for a condition ---------------------------------------------------------------

struct condition {
    qnm_event_t* evt;
    int holds = 0;
    int looks = 0;
    bool locked = true;
};

int look(void* arg) {
    condition& state = *static_cast<condition*>(arg);
    state.looks++;
    if (pthread_mutex_trylock(&state.evt->eev_mutex) == 0) {
        state.locked = false;
        pthread_mutex_unlock(&state.evt->eev_mutex);
    }
    return state.holds;
}

TEST_F(Event, is_not_waited_for_when_the_condition_holds) {
    condition state{.evt = &evt_, .holds = 1};
    EXPECT_EQ(_qnm_event_timedwait_for(&evt_, 600000, look, &state), 0);
    EXPECT_EQ(state.looks, 1);
    EXPECT_TRUE(state.locked);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_timedwait), 0u);
}

TEST_F(Event, is_waited_for_while_the_condition_does_not_hold) {
    condition state{.evt = &evt_};
    const auto before = steady_clock::now();
    EXPECT_EQ(_qnm_event_timedwait_for(&evt_, 50, look, &state), ETIMEDOUT);
    EXPECT_GE(steady_clock::now() - before, 50ms);
    EXPECT_EQ(state.looks, 2) << "before the sleep and at its end";
    EXPECT_TRUE(state.locked);
}

TEST_F(Event, is_not_waited_for_without_limit_when_the_limit_is_0) {
    condition state{.evt = &evt_};
    EXPECT_EQ(_qnm_event_timedwait_for(&evt_, 0, look, &state), ETIMEDOUT);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_wait), 0u);
}

TEST_F(Event, without_a_lock_is_not_looked_at) {
    condition state{.evt = &evt_, .holds = 1};
    fail::nth(fail::call::pthread_mutex_lock, 1, EINVAL);
    EXPECT_EQ(_qnm_event_timedwait_for(&evt_, 1, look, &state), ENOSYS);
    fail::nth(fail::call::clock_gettime, 1, EINVAL);
    EXPECT_EQ(_qnm_event_timedwait_for(&evt_, 1, look, &state), EPROTO);
    EXPECT_EQ(state.looks, 0);
}

struct hand_over {
    std::atomic<int> given = 0;
    int taken = 0;
};

int something_given(void* arg) {
    const hand_over& state = *static_cast<const hand_over*>(arg);
    return state.given > state.taken ? 1 : 0;
}

// A round fails if a signal is lost between the check and the sleep: the consumer then sleeps until
// the limit while the producer waits for it.
TEST_F(Event, never_loses_a_condition_that_is_set_before_the_signal) {
    constexpr int k_rounds = 2000;
    hand_over state;
    std::atomic<int> done = 0;
    std::thread producer([&] {
        for (int i = 1; i <= k_rounds; i++) {
            state.given = i;
            _qnm_event_set(&evt_);
            while (done < i)
                std::this_thread::yield();
        }
    });
    for (int i = 1; i <= k_rounds; i++) {
        while (something_given(&state) == 0) {
            EXPECT_EQ(_qnm_event_timedwait_for(&evt_, 60000, something_given, &state), 0);
        }
        state.taken = i;
        done = i;
    }
    producer.join();
    EXPECT_EQ(state.taken, k_rounds);
}

// ---- Events: wait until a condition holds -------------------------------------------------------

TEST_F(Event, is_not_awaited_when_the_condition_holds) {
    condition state{.evt = &evt_, .holds = 1};
    EXPECT_EQ(_qnm_event_await(&evt_, 600000, look, &state), 0);
    EXPECT_EQ(state.looks, 1);
    EXPECT_TRUE(state.locked);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_timedwait), 0u);
}

TEST_F(Event, is_awaited_until_the_limit_while_the_condition_does_not_hold) {
    condition state{.evt = &evt_};
    const auto before = steady_clock::now();
    EXPECT_EQ(_qnm_event_await(&evt_, 50, look, &state), ETIMEDOUT);
    EXPECT_GE(steady_clock::now() - before, 50ms);
    EXPECT_TRUE(state.locked);
}

TEST_F(Event, is_looked_at_and_not_awaited_without_limit_when_the_limit_is_0) {
    condition state{.evt = &evt_};
    EXPECT_EQ(_qnm_event_await(&evt_, 0, look, &state), ETIMEDOUT);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_wait), 0u);
    state.holds = 1;
    EXPECT_EQ(_qnm_event_await(&evt_, 0, look, &state), 0);
}

TEST_F(Event, is_awaited_on_after_wake_ups_that_bring_nothing) {
    condition state{.evt = &evt_};
    fail::on(fail::call::pthread_cond_timedwait, [&](uint64_t number) {
        if (number == 3) state.holds = 1;
        return fail::done;
    });
    EXPECT_EQ(_qnm_event_await(&evt_, 600000, look, &state), 0);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_timedwait), 3u);
    EXPECT_EQ(state.looks, 4);
    EXPECT_TRUE(state.locked);
}

TEST_F(Event, is_looked_at_once_more_at_the_limit) {
    condition state{.evt = &evt_};
    fail::on(fail::call::pthread_cond_timedwait, [&](uint64_t) {
        state.holds = 1;
        return fail::outcome(ETIMEDOUT);
    });
    EXPECT_EQ(_qnm_event_await(&evt_, 50, look, &state), 0);
    EXPECT_TRUE(state.locked);
}

TEST_F(Event, has_one_limit_for_all_the_sleeps_of_a_wait) {
    condition state{.evt = &evt_};
    fail::on(fail::call::pthread_cond_timedwait,
             [](uint64_t number) { return number < 5 ? fail::done : fail::outcome(ETIMEDOUT); });
    EXPECT_EQ(_qnm_event_await(&evt_, 600000, look, &state), ETIMEDOUT);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_timedwait), 5u);
    EXPECT_EQ(fail::count(fail::call::clock_gettime), 1u);
}

TEST_F(Event, set_without_the_condition_wakes_nobody_for_good) {
    condition state{.evt = &evt_};
    int result = -1;
    std::thread waiter([&] { result = _qnm_event_await(&evt_, 600000, look, &state); });
    EXPECT_TRUE(wait_for_sleepers(fail::call::pthread_cond_timedwait, 1));
    EXPECT_EQ(_qnm_event_set(&evt_), 0);
    EXPECT_TRUE(wait_for_sleepers(fail::call::pthread_cond_timedwait, 2));
    pthread_mutex_lock(&evt_.eev_mutex);
    state.holds = 1;
    pthread_mutex_unlock(&evt_.eev_mutex);
    EXPECT_EQ(_qnm_event_set(&evt_), 0);
    waiter.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(state.looks, 3);
}

TEST_F(Event, that_cannot_be_awaited_tells_a_failed_lock_apart_from_a_failed_wait) {
    condition state{.evt = &evt_};
    fail::nth(fail::call::clock_gettime, 1, EINVAL);
    EXPECT_EQ(_qnm_event_await(&evt_, 1, look, &state), EPROTO);
    fail::nth(fail::call::pthread_mutex_lock, 1, EINVAL);
    EXPECT_EQ(_qnm_event_await(&evt_, 1, look, &state), ENOSYS);
    EXPECT_EQ(state.looks, 0);
    fail::nth(fail::call::pthread_cond_timedwait, 1, EINVAL);
    EXPECT_EQ(_qnm_event_await(&evt_, 600000, look, &state), EPROTO);
    EXPECT_EQ(state.looks, 1);
}

}  // namespace
