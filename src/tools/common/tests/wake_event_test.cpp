// The event that wakes a waiting thread.
#include "common/wake_event.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>

#include <system_error>
#include <thread>

namespace tools {
namespace {

bool is_set(const wake_event& event) {
    pollfd waited{event.fd(), POLLIN, 0};
    return poll(&waited, 1, 0) == 1;
}

TEST(WakeEvent, IsReadableFromSetToClear) {
    const wake_event event;
    EXPECT_FALSE(is_set(event));
    event.set();
    event.set();
    EXPECT_TRUE(is_set(event));
    event.clear();
    EXPECT_FALSE(is_set(event));
    event.clear();  // does not block
}

TEST(WakeEvent, WakesAThreadThatWaits) {
    const wake_event event;
    std::jthread setter([&] { event.set(); });
    pollfd waited{event.fd(), POLLIN, 0};
    EXPECT_EQ(1, poll(&waited, 1, -1));
}

TEST(WakeEvent, SaysWhenNoDescriptorIsLeft) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer needs descriptors to look at what is thrown";
#endif
    rlimit before{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    const rlimit none = {.rlim_cur = 0, .rlim_max = before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    EXPECT_THROW(wake_event(), std::system_error);
    setrlimit(RLIMIT_NOFILE, &before);
}

}  // namespace
}  // namespace tools
