// Jobs on threads, and signals as they arrive from a descriptor.
#include "work.h"

#include <gtest/gtest.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <thread>
#include <vector>

namespace qnmctl {
namespace {

// A pipe that carries what a signalfd would.
class signal_pipe {
  public:
    signal_pipe() {
        if (pipe(ends_.data()) != 0) std::abort();
    }
    ~signal_pipe() {
        close(ends_[0]);
        close(ends_[1]);
    }
    signal_pipe(const signal_pipe&) = delete;
    signal_pipe& operator=(const signal_pipe&) = delete;

    int fd() const { return ends_[0]; }
    void raise() const {
        const signalfd_siginfo info{};
        EXPECT_EQ(static_cast<ssize_t>(sizeof info), write(ends_[1], &info, sizeof info));
    }

  private:
    std::array<int, 2> ends_{};
};

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

TEST(Work, LetsTheJobUnderWayEndAtASignalAndStartsNoOther) {
    const signal_pipe signals;
    std::atomic<int> begun = 0;
    std::atomic<int> ended = 0;
    const auto job = [&](std::size_t, work_state& state) {
        if (++begun == 1) signals.raise();
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
        signals.raise();
        while (!state.ending) {
            std::this_thread::yield();
        }
        signals.raise();
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
