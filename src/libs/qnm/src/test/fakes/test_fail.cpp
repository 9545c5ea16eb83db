// test_fail.cpp - self-test of the failing calls and the fake network interfaces.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <linux/ethtool.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <pcap/pcap.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <limits>
#include <thread>

#include "fail.h"
#include "fake_netif.h"
#include "fake_pcap.h"
#include "redirected_calls.h"
#include "wait.h"

namespace {

using fail::call;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

class Fail : public testing::Test {
  protected:
    ~Fail() override {
        fake_netif::reset();
        fake_pcap::reset();
    }
    fail::guard guard_;
};

// ---- Every call of the table --------------------------------------------------------------------

// Makes the call in a way in which the real one would do no harm, and returns the error number that
// it reports in its own way, 0 for none.
struct call_row {
    call which;
    const char* name;
    int (*make)();
};

int minus_one(long result) {
    return result == -1 ? errno : 0;
}

int null(const void* result) {
    return result == nullptr ? errno : 0;
}

void* no_routine(void*) {
    return nullptr;
}

pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_cond = PTHREAD_COND_INITIALIZER;
char g_buf[64];

const call_row k_rows[] = {
    {call::accept4, "accept4", [] { return minus_one(redirected::do_accept4(-1, 0)); }},
    {call::bind, "bind", [] { return minus_one(redirected::do_bind(-1, nullptr, 0)); }},
    {call::clock_gettime, "clock_gettime",
     [] {
         struct timespec now;
         return minus_one(redirected::do_clock_gettime(CLOCK_MONOTONIC, &now));
     }},
    {call::clock_nanosleep, "clock_nanosleep",
     [] {
         const struct timespec past = {0, 0};
         return redirected::do_clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &past);
     }},
    {call::connect, "connect", [] { return minus_one(redirected::do_connect(-1, nullptr, 0)); }},
    {call::fcntl, "fcntl", [] { return minus_one(redirected::do_fcntl(-1, F_SETFD, 0)); }},
    {call::fdopen, "fdopen", [] { return null(redirected::do_fdopen(-1, "r")); }},
    {call::fgets, "fgets", [] { return null(redirected::do_fgets(g_buf, sizeof g_buf, stdin)); }},
    {call::fopen, "fopen", [] { return null(redirected::do_fopen("/dev/null", "r")); }},
    {call::fstat, "fstat",
     [] {
         struct stat st;
         return minus_one(redirected::do_fstat(-1, &st));
     }},
    {call::getsockopt, "getsockopt",
     [] { return minus_one(redirected::do_getsockopt(-1, 0, 0, nullptr, nullptr)); }},
    {call::gettimeofday, "gettimeofday",
     [] {
         struct timeval now;
         return minus_one(redirected::do_gettimeofday(&now));
     }},
    {call::ioctl, "ioctl", [] { return minus_one(redirected::do_ioctl(-1, 0, nullptr)); }},
    {call::kill, "kill", [] { return minus_one(redirected::do_kill(getpid(), 0)); }},
    {call::listen, "listen", [] { return minus_one(redirected::do_listen(-1, 0)); }},
    {call::localtime_r, "localtime_r",
     [] {
         const time_t when = 0;
         struct tm local;
         return null(redirected::do_localtime_r(&when, &local));
     }},
    {call::open, "open", [] { return minus_one(redirected::do_open("/dev/null")); }},
    {call::pipe, "pipe",
     [] {
         int ends[2];
         return minus_one(redirected::do_pipe(ends));
     }},
    {call::poll, "poll", [] { return minus_one(redirected::do_poll(nullptr, 0, 0)); }},
    {call::pthread_atfork, "pthread_atfork", [] { return redirected::do_atfork(nullptr); }},
    {call::pthread_cond_destroy, "pthread_cond_destroy",
     [] { return redirected::do_cond_destroy(&g_cond); }},
    {call::pthread_cond_init, "pthread_cond_init",
     [] { return redirected::do_cond_init(&g_cond); }},
    {call::pthread_cond_signal, "pthread_cond_signal",
     [] { return redirected::do_cond_signal(&g_cond); }},
    {call::pthread_cond_timedwait, "pthread_cond_timedwait",
     [] {
         const struct timespec past = {0, 0};
         return redirected::do_cond_timedwait(&g_cond, &g_mutex, &past);
     }},
    {call::pthread_cond_wait, "pthread_cond_wait",
     [] { return redirected::do_cond_wait(&g_cond, &g_mutex); }},
    {call::pthread_condattr_init, "pthread_condattr_init",
     [] {
         pthread_condattr_t attr;
         return redirected::do_condattr_init(&attr);
     }},
    {call::pthread_condattr_setclock, "pthread_condattr_setclock",
     [] {
         pthread_condattr_t attr;
         return redirected::do_condattr_setclock(&attr, CLOCK_MONOTONIC);
     }},
    {call::pthread_create, "pthread_create",
     [] {
         pthread_t thread;
         return redirected::do_thread_create(&thread, no_routine, nullptr);
     }},
    {call::pthread_join, "pthread_join", [] { return redirected::do_thread_join(pthread_t{}); }},
    {call::pthread_mutex_destroy, "pthread_mutex_destroy",
     [] { return redirected::do_mutex_destroy(&g_mutex); }},
    {call::pthread_mutex_init, "pthread_mutex_init",
     [] { return redirected::do_mutex_init(&g_mutex); }},
    {call::pthread_mutex_lock, "pthread_mutex_lock",
     [] { return redirected::do_mutex_lock(&g_mutex); }},
    {call::pthread_sigmask, "pthread_sigmask",
     [] {
         sigset_t before;
         return redirected::do_sigmask(SIG_BLOCK, nullptr, &before);
     }},
    {call::read, "read", [] { return minus_one(redirected::do_read(-1, g_buf, 1)); }},
    {call::recv, "recv", [] { return minus_one(redirected::do_recv(-1, g_buf, 1)); }},
    {call::setsockopt, "setsockopt",
     [] { return minus_one(redirected::do_setsockopt(-1, 0, 0, nullptr, 0)); }},
    {call::socket, "socket",
     [] { return minus_one(redirected::do_socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE)); }},
    {call::stat, "stat",
     [] {
         struct stat st;
         return minus_one(redirected::do_stat("/", &st));
     }},
    {call::strftime, "strftime",
     [] {
         const struct tm when = {};
         return redirected::do_strftime(g_buf, sizeof g_buf, "%Y", &when) == 0 ? errno : 0;
     }},
    {call::time, "time", [] { return minus_one(redirected::do_time()); }},
    {call::write, "write", [] { return minus_one(redirected::do_write(-1, g_buf, 1)); }},
};

constexpr call k_all_calls[] = {
#define FAIL_CALL(name, kind) call::name,
#define FAIL_ALIAS(symbol, name)
#include "fail_calls.def"
#undef FAIL_CALL
#undef FAIL_ALIAS
};

TEST_F(Fail, EveryCallOfTheTableCanFail) {
    ASSERT_EQ(std::size(k_rows), std::size(k_all_calls));
    for (std::size_t i = 0; i < std::size(k_rows); i++) {
        SCOPED_TRACE(k_rows[i].name);
        EXPECT_EQ(k_rows[i].which, k_all_calls[i]);
        fail::always(k_rows[i].which, EOWNERDEAD);  // none of these calls fails so by itself
        EXPECT_EQ(k_rows[i].make(), EOWNERDEAD);
        EXPECT_EQ(fail::count(k_rows[i].which), 1u);
        fail::clear(k_rows[i].which);
    }
}

TEST_F(Fail, FortifiedCallsCountAndFailLikeThePlainOnes) {
    for (const call which : {call::fgets, call::read, call::recv, call::poll}) {
        fail::always(which, EOWNERDEAD);
    }
    volatile int size = 4;
    EXPECT_FALSE(redirected::fgets_fortified(size, stdin));
    EXPECT_EQ(redirected::read_fortified(0, static_cast<std::size_t>(size)), -1);
    EXPECT_EQ(redirected::recv_fortified(0, static_cast<std::size_t>(size)), -1);
    EXPECT_EQ(redirected::poll_fortified(static_cast<nfds_t>(size - 2)), -1);
    for (const call which : {call::fgets, call::read, call::recv, call::poll}) {
        EXPECT_EQ(fail::count(which), 1u);
    }
}

// ---- When a call fails --------------------------------------------------------------------------

int stat_root() {
    struct stat st;
    return minus_one(redirected::do_stat("/", &st));
}

TEST_F(Fail, NthCountsFromNowAndIsUsedUp) {
    EXPECT_EQ(stat_root(), 0);
    fail::nth(call::stat, 2, EACCES);
    fail::nth(call::stat, 4, EIO);
    EXPECT_FALSE(fail::all_used());
    EXPECT_EQ(stat_root(), 0);
    EXPECT_EQ(stat_root(), EACCES);
    EXPECT_EQ(stat_root(), 0);
    EXPECT_EQ(stat_root(), EIO);
    EXPECT_TRUE(fail::all_used());
    EXPECT_EQ(stat_root(), 0);
    EXPECT_EQ(fail::count(call::stat), 6u);
}

TEST_F(Fail, AlwaysLastsUntilCleared) {
    fail::always(call::stat, EACCES);
    EXPECT_EQ(stat_root(), EACCES);
    EXPECT_EQ(stat_root(), EACCES);
    fail::clear(call::stat);
    EXPECT_EQ(stat_root(), 0);
    EXPECT_EQ(fail::count(call::stat), 3u);
}

TEST_F(Fail, OnlyTheCodeUnderTestIsCounted) {
    fail::always(call::stat, EACCES);
    struct stat st;
    EXPECT_EQ(stat("/", &st), 0);
    EXPECT_EQ(fail::count(call::stat), 0u);
    fail::clear(call::stat);
}

TEST_F(Fail, HookSeesTheNumberAndDecides) {
    std::vector<std::uint64_t> numbers;
    fail::on(call::stat, [&](std::uint64_t number) -> fail::outcome {
        numbers.push_back(number);
        if (number == 1) return fail::pass;
        if (number == 2) return fail::done;
        return ELOOP;
    });
    EXPECT_EQ(stat_root(), 0);
    struct stat untouched;
    std::memset(&untouched, 0x5a, sizeof untouched);
    const struct stat before = untouched;
    EXPECT_EQ(redirected::do_stat("/", &untouched), 0);
    EXPECT_EQ(std::memcmp(&untouched, &before, sizeof before), 0);
    EXPECT_EQ(stat_root(), ELOOP);
    EXPECT_EQ(numbers, (std::vector<std::uint64_t>{1, 2, 3}));
}

TEST_F(Fail, AWaitThatEndsWithoutASignalLeavesItsMutexToOthers) {
    fail::on(call::pthread_cond_timedwait, [](std::uint64_t) { return fail::done; });
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_t cond;
    pthread_cond_init(&cond, &attr);
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    bool taken = false;

    pthread_mutex_lock(&mutex);
    std::thread other([&] {
        pthread_mutex_lock(&mutex);
        taken = true;
        pthread_mutex_unlock(&mutex);
    });
    const auto wait_again = [&] {
        constexpr struct timespec never = {std::numeric_limits<time_t>::max(), 0};
        EXPECT_EQ(redirected::do_cond_timedwait(&cond, &mutex, &never), 0);
        return taken;
    };
    EXPECT_TRUE(wait_until(wait_again));
    pthread_mutex_unlock(&mutex);
    other.join();
    pthread_cond_destroy(&cond);
    pthread_condattr_destroy(&attr);
}

TEST(FailGuard, ReportsFailuresThatDidNotCome) {
    const auto leave_one = [] {
        const fail::guard guard;
        fail::nth(call::pipe, 1, EMFILE);
    };
    EXPECT_NONFATAL_FAILURE(leave_one(), "call 1 of pipe() was to fail but did not come");
    const auto leave_poll = [] {
        const fail::guard guard;
        fail::poll_nth(3, fail::poll_events({POLLIN}));
    };
    EXPECT_NONFATAL_FAILURE(leave_poll(), "call 3 of poll() had a result but did not come");
    EXPECT_TRUE(fail::all_used());
}

// ---- poll ---------------------------------------------------------------------------------------

TEST_F(Fail, PollScriptGivesEventsAndErrors) {
    struct pollfd fds[2] = {{-1, POLLIN, POLLERR}, {-1, POLLIN, POLLERR}};
    fail::poll_nth(2, fail::poll_events({0, POLLHUP}));
    fail::poll_nth(3, {-1, EINTR, {}});
    EXPECT_EQ(redirected::do_poll(fds, 2, 0), 0);
    EXPECT_EQ(redirected::do_poll(fds, 2, -1), 1);
    EXPECT_EQ(fds[0].revents, 0);
    EXPECT_EQ(fds[1].revents, POLLHUP);
    EXPECT_EQ(redirected::do_poll(fds, 2, -1), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_TRUE(fail::all_used());
}

TEST_F(Fail, PollHookSeesTheRequest) {
    fail::on_poll([](std::span<const struct pollfd> fds, int timeout_ms) {
        EXPECT_EQ(timeout_ms, 1000);
        EXPECT_EQ(fds.size(), 1u);
        EXPECT_EQ(fds[0].events, POLLIN);
        return fail::poll_events({POLLNVAL});
    });
    struct pollfd fd = {-1, POLLIN, 0};
    EXPECT_EQ(redirected::do_poll(&fd, 1, 1000), 1);
    EXPECT_EQ(fd.revents, POLLNVAL);
}

// ---- Time ---------------------------------------------------------------------------------------

TEST_F(Fail, WallClockStandsWhereItIsSet) {
    EXPECT_THROW(fail::advance_wall_clock(milliseconds(1)), std::logic_error);
    fail::set_wall_clock(microseconds(1234567890123456));
    struct timeval now;
    EXPECT_EQ(redirected::do_gettimeofday(&now), 0);
    EXPECT_EQ(now.tv_sec, 1234567890);
    EXPECT_EQ(now.tv_usec, 123456);
    fail::advance_wall_clock(milliseconds(3000));
    EXPECT_EQ(redirected::do_time(), 1234567893);
    fail::reset();
    const time_t before = time(nullptr);
    EXPECT_GE(redirected::do_time(), before);
}

TEST_F(Fail, MonotonicClockAndTimeSinceBootStandWhereTheyAreSet) {
    EXPECT_THROW(fail::advance_monotonic_clock(milliseconds(1)), std::logic_error);
    fail::set_monotonic_clock(milliseconds(5000));
    fail::advance_monotonic_clock(milliseconds(1250));
    struct timespec now;
    for (const clockid_t clock : {CLOCK_MONOTONIC, CLOCK_BOOTTIME}) {
        EXPECT_EQ(redirected::do_clock_gettime(clock, &now), 0);
        EXPECT_EQ(now.tv_sec, 6);
        EXPECT_EQ(now.tv_nsec, 250'000'000);
    }
    fail::suspend_machine(std::chrono::hours(1));
    EXPECT_EQ(redirected::do_clock_gettime(CLOCK_MONOTONIC, &now), 0);
    EXPECT_EQ(now.tv_sec, 6);
    EXPECT_EQ(redirected::do_clock_gettime(CLOCK_BOOTTIME, &now), 0);
    EXPECT_EQ(now.tv_sec, 3606);
    fail::reset();
    struct timespec before;
    clock_gettime(CLOCK_BOOTTIME, &before);
    EXPECT_EQ(redirected::do_clock_gettime(CLOCK_BOOTTIME, &now), 0);
    EXPECT_GE(now.tv_sec, before.tv_sec);
    EXPECT_LT(now.tv_sec, before.tv_sec + 3600);
}

TEST_F(Fail, SleepHookGetsTheTimeAddedToTheClock) {
    std::vector<nanoseconds> slept;
    fail::on_sleep([&](nanoseconds duration) { slept.push_back(duration); });
    struct timespec until;
    ASSERT_EQ(redirected::do_clock_gettime(CLOCK_MONOTONIC, &until), 0);
    until.tv_sec += 3600;
    EXPECT_EQ(redirected::do_clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until), 0);
    const struct timespec hours = {7200, 5};
    EXPECT_EQ(redirected::do_clock_nanosleep(CLOCK_MONOTONIC, 0, &hours), 0);
    EXPECT_EQ(slept, (std::vector<nanoseconds>{std::chrono::hours(1),
                                               std::chrono::hours(2) + nanoseconds(5)}));
}

// ---- Threads ------------------------------------------------------------------------------------

void* stat_many(void*) {
    for (int i = 0; i < 1000; i++)
        stat_root();
    return nullptr;
}

TEST_F(Fail, CallsOfSeveralThreadsAreAllCounted) {
    fail::nth(call::stat, 1500, EACCES);
    pthread_t threads[2];
    for (pthread_t& thread : threads) {
        ASSERT_EQ(redirected::do_thread_create(&thread, stat_many, nullptr), 0);
    }
    for (const pthread_t thread : threads)
        EXPECT_EQ(redirected::do_thread_join(thread), 0);
    EXPECT_EQ(fail::count(call::stat), 2000u);
    EXPECT_TRUE(fail::all_used());
}

TEST_F(Fail, OpenDescriptorsShowALeak) {
    const std::size_t before = fail::open_descriptors();
    int ends[2];
    ASSERT_EQ(redirected::do_pipe(ends), 0);
    EXPECT_EQ(fail::open_descriptors(), before + 2);
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(fail::open_descriptors(), before);
}

// ---- Network interfaces -------------------------------------------------------------------------

class Netif : public Fail {
  protected:
    Netif() {
        char error[PCAP_ERRBUF_SIZE];
        pcap_ = pcap_open_live("port0", 1024, 1, 1000, error);
        fd_ = pcap_fileno(pcap_);
        std::strcpy(request_.ifr_name, "port0");
        fake_netif::set("port0", {7, 0x021122334455, true});
    }
    ~Netif() override { pcap_close(pcap_); }

    int ask(unsigned long request) {
        return minus_one(redirected::do_ioctl(fd_, request, &request_));
    }

    pcap_t* pcap_;
    int fd_;
    struct ifreq request_ = {};
};

TEST_F(Netif, AnswersIndexAddressAndLink) {
    EXPECT_EQ(ask(SIOCGIFINDEX), 0);
    EXPECT_EQ(request_.ifr_ifindex, 7);
    EXPECT_EQ(ask(SIOCGIFHWADDR), 0);
    EXPECT_EQ(std::memcmp(request_.ifr_hwaddr.sa_data, "\x02\x11\x22\x33\x44\x55", 6), 0);
    for (const bool up : {true, false}) {
        fake_netif::set_link("port0", up);
        struct ethtool_value link = {ETHTOOL_GLINK, 0};
        request_.ifr_data = reinterpret_cast<char*>(&link);
        EXPECT_EQ(ask(SIOCETHTOOL), 0);
        EXPECT_EQ(link.data != 0, up);
    }
}

TEST_F(Netif, FailsPerRequestAndForUnknownNames) {
    fake_netif::fail_request(SIOCGIFHWADDR, EPERM);
    EXPECT_EQ(ask(SIOCGIFINDEX), 0);
    EXPECT_EQ(ask(SIOCGIFHWADDR), EPERM);
    fake_netif::fail_request(SIOCGIFHWADDR, 0);
    EXPECT_EQ(ask(SIOCGIFHWADDR), 0);
    fake_netif::remove("port0");
    EXPECT_EQ(ask(SIOCGIFINDEX), ENODEV);
}

TEST_F(Netif, RefusesWrongRequests) {
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(ask(SIOCGIFMTU), ENOTTY), "unknown request");
    struct ethtool_value link = {ETHTOOL_GLINK, 1};
    request_.ifr_data = reinterpret_cast<char*>(&link);
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(ask(SIOCETHTOOL), EINVAL), "data starts at 0");
    std::memset(request_.ifr_name, 'x', IFNAMSIZ);
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(ask(SIOCGIFINDEX), EINVAL), "not terminated");
    std::strcpy(request_.ifr_name, "port1");
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(ask(SIOCGIFINDEX), EBADF), "not the capture descriptor");
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(redirected::do_ioctl(fd_, SIOCGIFINDEX, nullptr), -1),
                            "no argument");
}

TEST_F(Netif, PacketVersionIsAnsweredWhenSet) {
    int version = 0;
    socklen_t len = sizeof version;
    const auto get = [&](int fd) {
        return minus_one(redirected::do_getsockopt(fd, SOL_PACKET, PACKET_VERSION, &version, &len));
    };
    EXPECT_EQ(get(fd_), ENOTSOCK);
    fake_netif::set_packet_version(TPACKET_V3);
    EXPECT_EQ(get(fd_), 0);
    EXPECT_EQ(version, TPACKET_V3);
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(get(-1), EBADF), "not a capture descriptor");
}

TEST_F(Fail, AnAbstractAddressIsOfThisTestAlone) {
    struct sockaddr_un address = {AF_UNIX, "\0qnm-test"};
    const auto* const to = reinterpret_cast<const struct sockaddr*>(&address);
    constexpr socklen_t length = sizeof(sa_family_t) + 9;
    const int listener = redirected::do_socket(AF_UNIX, SOCK_STREAM, 0);
    const int stranger = redirected::do_socket(AF_UNIX, SOCK_STREAM, 0);
    const int other = redirected::do_socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT_EQ(redirected::do_bind(listener, to, length), 0);
    EXPECT_EQ(minus_one(redirected::do_bind(other, to, length)), EADDRINUSE);
    EXPECT_EQ(redirected::do_listen(listener, 1), 0);
    EXPECT_EQ(minus_one(connect(stranger, to, length)), ECONNREFUSED) << "as other tests see it";
    EXPECT_EQ(redirected::do_connect(other, to, length), 0);
    const int guest = redirected::do_accept4(listener, 0);
    EXPECT_GE(guest, 0);
    for (const int fd : {listener, stranger, other, guest})
        close(fd);
}

TEST_F(Netif, CaptureTakesFilterAndSendTimeout) {
    const struct timeval timeout = {2, 500'000};
    const auto set = [&](int option) {
        return minus_one(
            redirected::do_setsockopt(fd_, SOL_SOCKET, option, &timeout, sizeof timeout));
    };
    EXPECT_EQ(fake_netif::send_timeout("port0"), std::chrono::seconds(0));
    EXPECT_EQ(set(SO_SNDTIMEO), 0);
    EXPECT_EQ(fake_netif::send_timeout("port0"), std::chrono::milliseconds(2500));
    EXPECT_EQ(set(SO_DETACH_FILTER), ENOENT);
    EXPECT_EQ(set(SO_ATTACH_FILTER), 0);
    EXPECT_TRUE(fake_netif::is_filtered("port0"));
    EXPECT_EQ(set(SO_DETACH_FILTER), 0);
    EXPECT_FALSE(fake_netif::is_filtered("port0"));
    EXPECT_EQ(set(SO_BROADCAST), ENOTSOCK) << "of any other option the system is asked";
}

struct sockaddr_nl link_group() {
    struct sockaddr_nl addr = {};
    addr.nl_family = AF_NETLINK;
    addr.nl_groups = RTMGRP_LINK;
    return addr;
}

int bind_to(int fd, const struct sockaddr_nl& addr) {
    return minus_one(
        redirected::do_bind(fd, reinterpret_cast<const struct sockaddr*>(&addr), sizeof addr));
}

TEST_F(Netif, NotificationsReachABoundSocketUntilItIsClosed) {
    const std::size_t before = fail::open_descriptors();
    const int fd = redirected::do_socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
    ASSERT_GE(fd, 0);
    char message[4096];
    fake_netif::notify();
    EXPECT_EQ(recv(fd, message, sizeof message, MSG_DONTWAIT), -1);
    EXPECT_EQ(bind_to(fd, link_group()), 0);
    EXPECT_TRUE(fake_netif::wait_listener());
    EXPECT_EQ(fake_netif::listeners(), 1u);
    fake_netif::notify();
    EXPECT_GT(redirected::do_recv(fd, message, sizeof message), 0);
    close(fd);
    EXPECT_EQ(fake_netif::listeners(), 0u);
    EXPECT_EQ(fail::open_descriptors(), before);
}

TEST_F(Netif, NetlinkSocketsThatOverlookOverrunsAreCounted) {
    const int on = 1;
    const auto set = [&](int fd) {
        return minus_one(
            redirected::do_setsockopt(fd, SOL_NETLINK, NETLINK_NO_ENOBUFS, &on, sizeof on));
    };
    const int fd = redirected::do_socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
    EXPECT_EQ(set(fd), 0);
    EXPECT_EQ(fake_netif::patient_listeners(), 0u);
    EXPECT_EQ(bind_to(fd, link_group()), 0);
    EXPECT_EQ(fake_netif::patient_listeners(), 1u);
    const int other = redirected::do_socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
    EXPECT_EQ(bind_to(other, link_group()), 0);
    EXPECT_NE(set(other), 0) << "too late";
    EXPECT_EQ(fake_netif::patient_listeners(), 1u);
    close(fd);
    close(other);
}

int packet_socket() {
    return redirected::do_socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

int bind_packet(int fd, int index, uint16_t type) {
    struct sockaddr_ll addr = {};
    addr.sll_family = AF_PACKET;
    addr.sll_protocol = htons(type);
    addr.sll_ifindex = index;
    return minus_one(
        redirected::do_bind(fd, reinterpret_cast<const struct sockaddr*>(&addr), sizeof addr));
}

int join(int fd, uint16_t id, uint32_t members = 1) {
    struct fanout_args group = {};
    group.id = id;
    group.type_flags = PACKET_FANOUT_HASH;
    group.max_num_members = members;
    return minus_one(
        redirected::do_setsockopt(fd, SOL_PACKET, PACKET_FANOUT, &group, sizeof group));
}

TEST_F(Netif, GroupsHaveRoomForOne) {
    EXPECT_EQ(minus_one(packet_socket()), EPERM) << "unless a test asks for them";
    fake_netif::set_fanout(fake_netif::fanout::kept);
    const int first = packet_socket(), second = packet_socket();
    EXPECT_EQ(join(first, 7), EINVAL) << "not bound";
    for (const int fd : {first, second})
        EXPECT_EQ(bind_packet(fd, 5, 0x5FF), 0);
    EXPECT_EQ(join(first, 7), 0);
    EXPECT_EQ(join(second, 7), ENOSPC);
    close(first);
    EXPECT_EQ(join(second, 7), 0);
    EXPECT_EQ(join(second, 8), EALREADY);
    fake_netif::set_fanout(fake_netif::fanout::unkept);
    const int third = packet_socket();
    EXPECT_EQ(bind_packet(third, 5, 0x5FF), 0);
    EXPECT_EQ(join(third, 7), 0);
    close(second);
    close(third);
}

TEST_F(Netif, RefusesWrongPacketSockets) {
    fake_netif::set_fanout(fake_netif::fanout::kept);
    EXPECT_NONFATAL_FAILURE(redirected::do_socket(AF_PACKET, SOCK_RAW, 0), "socket(AF_PACKET)");
    const int fd = packet_socket();
    for (const uint16_t type : {0, ETH_P_ALL, 0x800})
        EXPECT_NONFATAL_FAILURE(EXPECT_EQ(bind_packet(fd, 5, type), EINVAL), "no frame has");
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(bind_packet(fd, 0, 0x5FF), EINVAL), "no frame has");
    EXPECT_EQ(bind_packet(fd, 5, 0x5FF), 0);
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(join(fd, 7, 2), EINVAL), "of one member");
    close(fd);
}

TEST_F(Netif, RefusesWrongNetlinkSockets) {
    EXPECT_NONFATAL_FAILURE(redirected::do_socket(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE),
                            "socket(AF_NETLINK)");
    const int fd = redirected::do_socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
    struct sockaddr_nl wrong = link_group();
    wrong.nl_pid = 1;
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(bind_to(fd, wrong), EINVAL), "port ID 0");
    EXPECT_EQ(fake_netif::listeners(), 0u);
    close(fd);
}

}  // namespace
