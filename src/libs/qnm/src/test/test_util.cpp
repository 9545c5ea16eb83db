// test_util.cpp - result codes, ID and MAC conversion, clocks and file tests.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "config_file.h"
#include "fail.h"
#include "qnm_util.h"

namespace {

using namespace std::chrono_literals;
using mac_t = std::array<uint8_t, 6>;

constexpr mac_t k_mac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
constexpr std::chrono::microseconds k_moment = 1234567890987654us;  // 2009-02-13 23:31:30 UTC

// ---- Result codes -------------------------------------------------------------------------------

TEST(err2retcode, maps_each_internal_code_and_everything_else_to_eproto) {
    const std::map<int, qnm_api_code_t> codes = {
        {0, QNM_API_SUCCESS},  {22, QNM_API_EINVAL}, {34, QNM_API_ERANGE}, {2, QNM_API_ENOENT},
        {67, QNM_API_ENOLINK}, {12, QNM_API_ENOMEM}, {71, QNM_API_EPROTO}, {110, QNM_API_ETIMEDOUT},
        {16, QNM_API_EBUSY},   {38, QNM_API_ENOSYS}};
    for (int err = -200; err <= 200; err++) {
        const auto row = codes.find(err);
        EXPECT_EQ(qnm_err2retcode(err), row != codes.end() ? row->second : QNM_API_EPROTO) << err;
    }
}

TEST(err2retcode, has_no_code_for_the_ends_of_the_range) {
    EXPECT_EQ(qnm_err2retcode(INT32_MAX), QNM_API_EPROTO);
    EXPECT_EQ(qnm_err2retcode(INT32_MIN), QNM_API_EPROTO);
}

// ---- ID and MAC ---------------------------------------------------------------------------------

mac_t to_mac(void (*convert)(uint64_t, uint8_t*), uint64_t value) {
    mac_t mac = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    convert(value, mac.data());
    return mac;
}

TEST(mac, is_a_number_with_the_first_byte_most_significant) {
    uint64_t value = UINT64_MAX;
    _qnm_mac_to_uint64(k_mac.data(), &value);
    EXPECT_EQ(value, 0x001122334455u);
    const mac_t other = {0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54};
    _qnm_mac_to_uint64(other.data(), &value);
    EXPECT_EQ(value, 0x0000FEDCBA987654u);
}

TEST(mac, yields_an_id_with_or_without_its_lowest_bit) {
    uint64_t id = UINT64_MAX;
    _qnm_mac2id(k_mac.data(), &id, 1);
    EXPECT_EQ(id, 0x001122334454u);
    _qnm_mac2id(k_mac.data(), &id, 0xFF);
    EXPECT_EQ(id, 0x001122334454u);
    _qnm_mac2id(k_mac.data(), &id, 0);
    EXPECT_EQ(id, 0x001122334455u);
}

TEST(mac, with_a_clear_lowest_bit_yields_the_same_id_either_way) {
    const mac_t even = {0x00, 0x11, 0x22, 0x33, 0x44, 0x54};
    for (const uint8_t clear : {0, 1}) {
        uint64_t id = 0;
        _qnm_mac2id(even.data(), &id, clear);
        EXPECT_EQ(id, 0x001122334454u);
    }
}

TEST(mac, comes_from_the_low_48_bits_of_a_number) {
    EXPECT_EQ(to_mac(_qnm_uint64_to_mac, 0xFFFF001122334455), k_mac);
    EXPECT_EQ(to_mac(_qnm_id2mac, 0xFFFF001122334455), k_mac);
    EXPECT_EQ(to_mac(_qnm_id2mac, 0x0000FEDCBA987654), (mac_t{0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54}));
}

// ---- Clocks -------------------------------------------------------------------------------------

// Runs the test with this TZ and puts the old one back.
class timezone_guard {
  public:
    explicit timezone_guard(const char* zone) {
        const char* const before = getenv("TZ");
        had_ = before != nullptr;
        if (had_) before_ = before;
        setenv("TZ", zone, 1);
        tzset();
    }
    ~timezone_guard() {
        if (had_) {
            setenv("TZ", before_.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    timezone_guard(const timezone_guard&) = delete;
    timezone_guard& operator=(const timezone_guard&) = delete;

  private:
    bool had_ = false;
    std::string before_;
};

class Clock : public testing::Test {
  protected:
    Clock() { fail::set_wall_clock(k_moment); }

    fail::guard fail_;
};

TEST_F(Clock, shows_milliseconds_and_microseconds_of_the_wall_clock) {
    EXPECT_EQ(_qnm_get_usec_timenow(), 1234567890987654u);
    EXPECT_EQ(_qnm_get_usec_timenow_lin(), 1234567890987654u);
    EXPECT_EQ(_qnm_get_msec_timenow(), 1234567890987u);
    EXPECT_EQ(_qnm_get_msec_timenow_lin(), 1234567890987u);
}

TEST_F(Clock, counts_a_millisecond_when_it_is_complete) {
    fail::advance_wall_clock(345us);
    EXPECT_EQ(_qnm_get_msec_timenow(), 1234567890987u);
    fail::advance_wall_clock(1us);
    EXPECT_EQ(_qnm_get_msec_timenow(), 1234567890988u);
}

using nowstr_t = int (*)(char* buf, size_t len);

class NowString : public Clock, public testing::WithParamInterface<nowstr_t> {};

INSTANTIATE_TEST_SUITE_P(both_names, NowString,
                         testing::Values(_qnm_get_nowstr, _qnm_get_nowstr_lin));

TEST_P(NowString, is_the_local_time) {
    char text[64];
    {
        const timezone_guard zone("UTC0");
        EXPECT_EQ(GetParam()(text, sizeof text), 0);
        EXPECT_STREQ(text, "2009-02-13 23:31:30");
    }
    const timezone_guard zone("EAST-5:30");
    EXPECT_EQ(GetParam()(text, sizeof text), 0);
    EXPECT_STREQ(text, "2009-02-14 05:01:30");
}

TEST_P(NowString, needs_20_bytes) {
    const timezone_guard zone("UTC0");
    char text[20];
    EXPECT_EQ(GetParam()(text, 20), 0);
    EXPECT_STREQ(text, "2009-02-13 23:31:30");
    EXPECT_EQ(GetParam()(text, 19), EPROTO);
    EXPECT_EQ(GetParam()(text, 0), EPROTO);
}

TEST_P(NowString, is_empty_when_the_time_cannot_be_converted) {
    char text[20] = "before";
    fail::nth(fail::call::localtime_r, 1, EOVERFLOW);
    EXPECT_EQ(GetParam()(text, sizeof text), EPROTO);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(fail::count(fail::call::strftime), 0u);
}

TEST_P(NowString, leaves_a_buffer_of_no_bytes_alone_when_the_time_cannot_be_converted) {
    char text[20] = "before";
    fail::nth(fail::call::localtime_r, 1, EOVERFLOW);
    EXPECT_EQ(GetParam()(text, 0), EPROTO);
    EXPECT_STREQ(text, "before");
}

TEST(wall_clock, is_zero_when_it_cannot_be_read) {
    const fail::guard fail;
    for (auto* const now : {_qnm_get_usec_timenow, _qnm_get_usec_timenow_lin, _qnm_get_msec_timenow,
                            _qnm_get_msec_timenow_lin}) {
        fail::nth(fail::call::gettimeofday, 1, EFAULT);
        EXPECT_EQ(now(), 0u);
    }
}

// ---- Deadlines and sleep ------------------------------------------------------------------------

std::chrono::nanoseconds since_boot(const struct timespec& time) {
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

TEST(since_boot, counts_the_time_in_which_the_machine_was_suspended) {
    const fail::guard guard;
    fail::set_monotonic_clock(std::chrono::milliseconds(1500));
    fail::suspend_machine(std::chrono::milliseconds(700));
    EXPECT_EQ(_qnm_get_msec_monotonic(), 1500U);
    EXPECT_EQ(_qnm_get_msec_since_boot(), 2200U);
}

TEST(since_boot, is_the_monotonic_clock_where_the_kernel_does_not_have_it) {
    const fail::guard guard;
    fail::set_monotonic_clock(std::chrono::milliseconds(1500));
    fail::suspend_machine(std::chrono::milliseconds(700));
    fail::nth(fail::call::clock_gettime, 1, EINVAL);
    EXPECT_EQ(_qnm_get_msec_since_boot(), 1500U);
}

std::chrono::nanoseconds monotonic_now() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return since_boot(now);
}

TEST(deadline, lies_ahead_on_the_monotonic_clock_with_whole_seconds_carried) {
    const fail::guard fail;
    // 999 needs the carry in all but the first millisecond of a second.
    for (const uint32_t ms : {0u, 1u, 999u, 999u, 1000u, 1999u, 1999u, UINT32_MAX}) {
        struct timespec deadline = {};
        const std::chrono::nanoseconds before = monotonic_now();
        ASSERT_EQ(_qnm_get_deadline(ms, &deadline), 0);
        const std::chrono::nanoseconds after = monotonic_now();
        EXPECT_GE(since_boot(deadline), before + std::chrono::milliseconds(ms));
        EXPECT_LE(since_boot(deadline), after + std::chrono::milliseconds(ms));
        EXPECT_GE(deadline.tv_nsec, 0);
        EXPECT_LT(deadline.tv_nsec, 1000000000);
    }
}

TEST(deadline, fails_with_the_clock) {
    const fail::guard fail;
    struct timespec deadline = {};
    fail::nth(fail::call::clock_gettime, 1, EINVAL);
    EXPECT_EQ(_qnm_get_deadline(1, &deadline), EPROTO);
}

class Sleep : public testing::Test {
  protected:
    Sleep() {
        fail::on_sleep([this](std::chrono::nanoseconds time) { slept_.push_back(time); });
    }

    fail::guard fail_;
    std::vector<std::chrono::nanoseconds> slept_;
};

TEST_F(Sleep, lasts_as_long_as_asked) {
    _qnm_msleep(1);
    _qnm_msleep(1500);
    EXPECT_EQ(slept_, (std::vector<std::chrono::nanoseconds>{1ms, 1500ms}));
}

TEST_F(Sleep, goes_on_after_a_signal_up_to_the_same_moment) {
    fail::nth(fail::call::clock_nanosleep, 1, EINTR);
    fail::nth(fail::call::clock_nanosleep, 2, EINTR);
    _qnm_msleep(250);
    EXPECT_EQ(fail::count(fail::call::clock_nanosleep), 3u);
    EXPECT_EQ(fail::count(fail::call::clock_gettime), 1u);
    EXPECT_EQ(slept_, (std::vector<std::chrono::nanoseconds>{250ms}));
}

TEST_F(Sleep, ends_at_once_without_a_clock) {
    fail::nth(fail::call::clock_gettime, 1, EINVAL);
    _qnm_msleep(250);
    EXPECT_TRUE(slept_.empty());
}

// ---- Files --------------------------------------------------------------------------------------

class Files : public testing::Test {
  protected:
    std::string path(const char* name) const { return dir_.path() + "/" + name; }

    install_dir dir_{"tag_min = 0\n"};
    fail::guard fail_;
};

TEST_F(Files, of_no_name_do_not_exist) {
    EXPECT_EQ(_qnm_file_exist(nullptr), -1);
    EXPECT_EQ(_qnm_dir_exist(nullptr), -1);
    EXPECT_EQ(fail::count(fail::call::stat), 0u);
}

TEST_F(Files, that_are_missing_do_not_exist) {
    EXPECT_EQ(_qnm_file_exist(path("missing").c_str()), -1);
    EXPECT_EQ(_qnm_dir_exist(path("missing").c_str()), -1);
    EXPECT_EQ(_qnm_file_exist(""), -1);
}

TEST_F(Files, are_told_from_directories) {
    EXPECT_EQ(_qnm_file_exist(dir_.conf().c_str()), 0);
    EXPECT_EQ(_qnm_dir_exist(dir_.conf().c_str()), -1);
    EXPECT_EQ(_qnm_file_exist(dir_.path().c_str()), -1);
    EXPECT_EQ(_qnm_dir_exist(dir_.path().c_str()), 0);
}

TEST_F(Files, are_looked_at_behind_a_symbolic_link) {
    std::filesystem::create_symlink(dir_.conf(), path("file"));
    std::filesystem::create_symlink(dir_.path(), path("directory"));
    std::filesystem::create_symlink(path("missing"), path("dangling"));
    EXPECT_EQ(_qnm_file_exist(path("file").c_str()), 0);
    EXPECT_EQ(_qnm_dir_exist(path("directory").c_str()), 0);
    EXPECT_EQ(_qnm_file_exist(path("dangling").c_str()), -1);
}

TEST_F(Files, do_not_exist_when_their_state_cannot_be_read) {
    fail::always(fail::call::stat, EACCES);
    EXPECT_EQ(_qnm_file_exist(dir_.conf().c_str()), -1);
    EXPECT_EQ(_qnm_dir_exist(dir_.path().c_str()), -1);
}

// The file type of a socket contains both bits, that of a pipe neither.
TEST_F(Files, are_judged_by_one_mode_bit_alone) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path("socket").copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address), 0);
    close(fd);
    EXPECT_EQ(_qnm_file_exist(path("socket").c_str()), 0);
    EXPECT_EQ(_qnm_dir_exist(path("socket").c_str()), 0);

    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    EXPECT_EQ(_qnm_file_exist(path("pipe").c_str()), -1);
    EXPECT_EQ(_qnm_dir_exist(path("pipe").c_str()), -1);
}

}  // namespace
