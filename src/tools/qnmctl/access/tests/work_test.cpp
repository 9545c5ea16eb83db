// Jobs on threads, and signals as they arrive from a descriptor.
#include "access/work.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <csignal>
#include <thread>
#include <vector>

#include "common/tests/signal_pipe.h"
#include "common/wake_event.h"

namespace qnmctl {
namespace {

constexpr int ignored = SIGURG;  // run_work() sends it to the process when all jobs have ended

work of_jobs(std::size_t jobs, std::function<void(std::size_t, work_state&)> run) {
    return {.label = "work", .jobs = jobs, .steps = jobs, .run = std::move(run), .give_up = [] {}};
}

TEST(Work, DoesEveryJobOnce) {
    const signal_pipe signals;
    std::vector<std::atomic<int>> done(1000);
    EXPECT_TRUE(run_work(of_jobs(done.size(), [&](std::size_t job, work_state&) { ++done[job]; }),
                         signals.fd()));
    EXPECT_TRUE(
        std::all_of(done.begin(), done.end(), [](const auto& count) { return count == 1; }));
}

TEST(Work, MayHaveNoJobs) {
    const signal_pipe signals;
    EXPECT_TRUE(
        run_work(of_jobs(0, [](std::size_t, work_state&) { ADD_FAILURE(); }), signals.fd()));
}

TEST(Work, DoesSomeJobsAtTheSameTime) {
    const signal_pipe signals;
    std::atomic<int> met = 0;
    const auto meet = [&](std::size_t, work_state&) {
        ++met;
        met.notify_all();
        for (int seen = met; seen < 2; seen = met)
            met.wait(seen);
    };
    EXPECT_TRUE(run_work(of_jobs(2, meet), signals.fd()));
}

TEST(Work, LetsTheMainThreadDoOtherWorkMeanwhile) {
    const signal_pipe signals;
    const tools::wake_event wanted;
    const tools::wake_event done;
    work jobs = of_jobs(1, [&](std::size_t, work_state&) {
        wanted.set();
        pollfd waited{done.fd(), POLLIN, 0};
        EXPECT_EQ(1, poll(&waited, 1, -1));
    });
    jobs.meanwhile = {wanted.fd(), [&] {
                          wanted.clear();
                          done.set();
                      }};
    EXPECT_TRUE(run_work(jobs, signals.fd()));
}

TEST(Work, LetsTheJobUnderWayEndAtASignalAndStartsNoOther) {
    const signal_pipe signals;
    std::atomic<int> begun = 0;
    std::atomic<int> ended = 0;
    const auto job = [&](std::size_t, work_state& state) {
        if (++begun == 1) signals.raise(ignored);
        while (!state.ending) {
            std::this_thread::yield();
        }
        ++ended;
    };
    EXPECT_FALSE(run_work(of_jobs(1000, job), signals.fd()));
    EXPECT_EQ(begun, ended);
    EXPECT_LT(begun, 1000);
}

TEST(Work, GivesUpAtASecondSignal) {
    const signal_pipe signals;
    std::atomic<bool> given_up = false;
    work wanted = of_jobs(1, [&](std::size_t, work_state& state) {
        signals.raise(ignored);
        while (!state.ending) {
            std::this_thread::yield();
        }
        signals.raise(ignored);
        given_up.wait(false);
    });
    wanted.give_up = [&] {
        given_up = true;
        given_up.notify_all();
    };
    EXPECT_FALSE(run_work(wanted, signals.fd()));
    EXPECT_TRUE(given_up);
}

}  // namespace
}  // namespace qnmctl
