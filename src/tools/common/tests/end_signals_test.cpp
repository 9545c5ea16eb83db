// Waits, and the signals that end them.
#include "common/end_signals.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <csignal>
#include <thread>

#include "common/tests/signal_pipe.h"

namespace tools {
namespace {

TEST(EndSignals, EndAWaitForWhatNeverComes) {
    const signal_pipe signals, silent;
    signals.raise(SIGTERM);
    EXPECT_FALSE(wait_until_ready(silent.fd(), POLLIN, signals.fd()));
    EXPECT_FALSE(wait_until_ready(silent.fd(), POLLIN, signals.fd()));  // and the next one
}

TEST(EndSignals, EndAWaitThatIsUnderWay) {
    const signal_pipe signals, silent;
    bool ready = true;
    std::thread waiting([&] { ready = wait_until_ready(silent.fd(), POLLIN, signals.fd()); });
    signals.raise(SIGTERM);
    waiting.join();
    EXPECT_FALSE(ready);
}

TEST(EndSignals, LeaveWhatIsReady) {
    const signal_pipe signals, loud;
    loud.raise(0);
    EXPECT_TRUE(wait_until_ready(loud.fd(), POLLIN, signals.fd()));
    EXPECT_FALSE(is_end_signalled(signals.fd()));
    signals.raise(SIGTERM);
    EXPECT_TRUE(wait_until_ready(loud.fd(), POLLIN, signals.fd()));
    EXPECT_TRUE(is_end_signalled(signals.fd()));
}

TEST(EndSignals, NeedNotBeThere) {
    const signal_pipe loud;
    loud.raise(0);
    EXPECT_FALSE(is_end_signalled(-1));
    EXPECT_TRUE(wait_until_ready(loud.fd(), POLLIN, -1));
    EXPECT_EQ(0, take_end_signal(-1));
}

// Blocks the signals for the rest of this process.
TEST(EndSignals, AreReadableUntilTheyAreTaken) {
    const int fd = open_end_signals();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fd, end_signals());
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        EXPECT_FALSE(is_end_signalled(fd));
        kill(getpid(), number);
        EXPECT_TRUE(is_end_signalled(fd));
        EXPECT_EQ(number, take_end_signal(fd));
        EXPECT_FALSE(is_end_signalled(fd));
        return_end_signal(number);
        EXPECT_TRUE(is_end_signalled(fd));
        EXPECT_EQ(number, take_end_signal(fd));
        EXPECT_EQ(0, take_end_signal(fd));
    }
    return_end_signal(0);
    EXPECT_FALSE(is_end_signalled(fd));
}

}  // namespace
}  // namespace tools
