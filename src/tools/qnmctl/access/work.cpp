// Threads for jobs, and the main thread's wait for them.
#include "access/work.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <thread>
#include <vector>

#include "common/end_signals.h"
#include "common/standard_files.h"
#include "common/wake_event.h"
#include "output/progress.h"
#include "output/text.h"

namespace qnmctl {

namespace {

constexpr std::size_t thread_limit = 8;  // cards answer while others are asked
constexpr int tick_milliseconds = 100;

// The threads; joined at the end of its scope.
class crew {
  public:
    explicit crew(const work& wanted)
        : wanted_(wanted), left_(std::min(wanted.jobs, thread_limit)) {
        for (std::size_t thread = left_; thread > 0; --thread)
            threads_.emplace_back([this] { take_jobs(); });
    }
    ~crew() {
        state.ending = true;
        threads_.clear();
    }
    crew(const crew&) = delete;
    crew& operator=(const crew&) = delete;

    int done_fd() const { return done_.fd(); }

    work_state state;

  private:
    void take_jobs() {
        for (std::size_t job = 0; !state.ending && (job = next_++) < wanted_.jobs;)
            wanted_.run(job, state);
        if (--left_ == 0) done_.set();
    }

    const work& wanted_;
    tools::wake_event done_;
    std::atomic<std::size_t> next_ = 0;
    std::atomic<std::size_t> left_;
    std::vector<std::jthread> threads_;
};

// The signal is made pending again at the end, for the waits that follow.
class taken_signal {
  public:
    taken_signal() = default;
    ~taken_signal() { tools::return_end_signal(number_); }
    taken_signal(const taken_signal&) = delete;
    taken_signal& operator=(const taken_signal&) = delete;

    void take(int signals) { number_ = tools::take_end_signal(signals); }

  private:
    int number_ = 0;
};

void obey_signal(const work& wanted, work_state& state) {
    if (state.ending.exchange(true)) return wanted.give_up();
    if (isatty(STDERR_FILENO) == 1) {
        tools::tell(message_text("ending after the call under way; once more to give it up"));
    }
}

}  // namespace

bool run_work(const work& wanted, int signals) {
    if (wanted.jobs == 0) return true;
    taken_signal taken;
    progress_line line(wanted.label, wanted.steps);
    crew hands(wanted);
    enum { done, signal, side };
    pollfd waited[] = {
        {hands.done_fd(), POLLIN, 0}, {signals, POLLIN, 0}, {wanted.meanwhile.fd, POLLIN, 0}};
    bool undisturbed = true;
    while (true) {
        if (poll(waited, std::size(waited), tick_milliseconds) < 0) {
            if (errno == EINTR) continue;
            throw error(std::string("cannot wait: ") + strerror(errno));
        }
        if (waited[done].revents != 0) return undisturbed;
        if (waited[side].revents != 0) {
            line.clear();
            wanted.meanwhile.run();
        }
        if (waited[signal].revents != 0) {
            taken.take(signals);
            line.clear();
            obey_signal(wanted, hands.state);
            undisturbed = false;
        }
        if (undisturbed) line.show(hands.state.steps);
    }
}

}  // namespace qnmctl
