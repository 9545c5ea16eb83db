// test_call.cpp - entering and leaving public calls.

#include "qnm_call.h"

#include <atomic>
#include <thread>
#include <utility>
#include <vector>

#include "units.h"

namespace {

struct call : units {
    ~call() override { set_running(); }
};

TEST_F(call, a_stop_waits_until_every_call_has_been_left) {
    ASSERT_NE(_qnm_enter_call(), 0);
    ASSERT_NE(_qnm_enter_call(), 0) << "another, or a call from inside a callback";
    set_flags(0, 1, 0);
    int looks = 0;
    fail::on_sleep([&](auto) {
        looks++;
        if (looks == 3 || looks == 5) _qnm_leave_call();
    });
    _qnm_wait_calls();
    EXPECT_EQ(looks, 5);
}

TEST_F(call, a_stop_waits_for_nothing_when_no_call_is_inside) {
    ASSERT_NE(_qnm_enter_call(), 0);
    _qnm_leave_call();
    _qnm_wait_calls();
    EXPECT_EQ(fail::count(fail::call::clock_nanosleep), 0U);
}

TEST_F(call, a_call_that_is_refused_is_not_waited_for) {
    for (const auto& [init, fini] : {std::pair{1U, 1U}, {0U, 0U}, {1U, 0U}}) {
        set_flags(init, 1, fini);
        EXPECT_EQ(_qnm_enter_call(), 0);
    }
    _qnm_wait_calls();
    EXPECT_EQ(fail::count(fail::call::clock_nanosleep), 0U);
}

// Races a call against the stop. A round fails if the call enters although the stop has already
// seen that no call is inside.
TEST_F(call, no_call_enters_behind_a_stop_that_has_seen_none) {
    constexpr int k_rounds = 600;
    fail::on_sleep([](auto) { std::this_thread::yield(); });
    std::atomic<bool> finished = false;
    std::atomic<bool> over = false;
    std::atomic<int> late = 0;
    std::atomic<uint64_t> entered = 0;
    std::vector<std::thread> callers;
    for (int n = 0; n < 2; n++) {
        callers.emplace_back([&] {
            while (!over) {
                if (_qnm_enter_call() == 0) continue;
                entered++;
                if (finished) late++;
                _qnm_leave_call();
            }
        });
    }
    for (int i = 0; i < k_rounds; i++) {
        const uint64_t before = entered;
        while (entered == before)
            std::this_thread::yield();
        qnm::store(qnm_root.er_fini_flag, 0U);
        _qnm_wait_calls();
        finished = true;
        std::this_thread::yield();
        finished = false;
        qnm::store(qnm_root.er_fini_flag, 1U);
    }
    over = true;
    for (std::thread& caller : callers)
        caller.join();
    EXPECT_EQ(late, 0);
}

}  // namespace
