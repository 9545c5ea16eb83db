// fail.cpp - where the calls of the code under test arrive; see fail.h.
//
// The first half decides what happens to a call, the second half has one function per call, named
// fail_<call>, with the call's own parameters and result. The code below calls the C library
// directly: only the library under test is redirected.

#include "fail.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>

#include "fake_netif.h"

namespace fail {
namespace {

// ---- What is ordered ----------------------------------------------------------------------------

enum class kind { minus_one, code, null, zero };

constexpr kind k_kinds[] = {
#define FAIL_CALL(name, how) kind::how,
#define FAIL_ALIAS(symbol, name)
#include "fail_calls.def"
#undef FAIL_CALL
#undef FAIL_ALIAS
};

constexpr const char* k_names[] = {
#define FAIL_CALL(name, how) #name,
#define FAIL_ALIAS(symbol, name)
#include "fail_calls.def"
#undef FAIL_CALL
#undef FAIL_ALIAS
};

constexpr std::size_t k_calls = std::size(k_kinds);

// The counter and the flag are relaxed atomics, so that a call that nothing was ordered for
// synchronises nothing.
struct order_t {
    std::atomic<std::uint64_t> count{0};
    std::atomic<bool> armed{false};
    // Guarded by g_mutex:
    std::map<std::uint64_t, int> nth;  // by the call's number
    std::optional<int> always;
    hook_t hook;
};

std::mutex g_mutex;
order_t g_orders[k_calls];

// Guarded by g_mutex; only read while the call is armed.
std::map<std::uint64_t, poll_result> g_poll_results;
poll_hook_t g_poll_hook;
sleep_hook_t g_sleep_hook;

constexpr std::int64_t k_real_clock = -1;
std::atomic<std::int64_t> g_wall_clock_us{k_real_clock};
std::atomic<std::int64_t> g_monotonic_us{k_real_clock};
std::atomic<std::int64_t> g_suspended_us{0};

order_t& order(call which) {
    return g_orders[static_cast<std::size_t>(which)];
}

// Needs the mutex.
void update_armed(call which) {
    order_t& it = order(which);
    bool armed = !it.nth.empty() || it.always.has_value() || it.hook != nullptr;
    if (which == call::poll) armed = armed || !g_poll_results.empty() || g_poll_hook != nullptr;
    if (which == call::clock_nanosleep) armed = armed || g_sleep_hook != nullptr;
    it.armed.store(armed, std::memory_order_relaxed);
}

// Needs the mutex: takes the entry for the number of this call out of a script.
template <typename Value>
std::optional<Value> take(std::map<std::uint64_t, Value>& script, std::uint64_t number) {
    const auto due = script.extract(number);
    if (due.empty()) return std::nullopt;
    return due.mapped();
}

// ---- The decision about one call ----------------------------------------------------------------

struct visit {
    std::uint64_t number;
    bool armed;
};

visit enter(call which) {
    order_t& it = order(which);
    return {it.count.fetch_add(1, std::memory_order_relaxed) + 1,
            it.armed.load(std::memory_order_relaxed)};
}

outcome decide(call which, const visit& now) {
    if (!now.armed) return pass;
    hook_t hook;
    {
        const std::lock_guard lock(g_mutex);
        hook = order(which).hook;
    }
    if (hook != nullptr) {
        if (const outcome decided = hook(now.number); decided.has_value()) return decided;
    }
    const std::lock_guard lock(g_mutex);
    if (const auto err = take(order(which).nth, now.number); err.has_value()) return err;
    return order(which).always;
}

// Reports an error number as this call does; 0 is success.
template <call Which, typename Result>
Result report(int err) {
    constexpr kind how = k_kinds[static_cast<std::size_t>(Which)];
    if constexpr (how == kind::code) {
        return err;
    } else {
        if (err == 0) return Result{};
        errno = err;
        if constexpr (how == kind::minus_one) return Result(-1);
        return Result{};
    }
}

// Runs one call: the ordered outcome, or what the call otherwise does.
template <call Which, typename Otherwise>
auto run(const Otherwise& otherwise) {
    using result_t = std::invoke_result_t<Otherwise>;
    const outcome decided = decide(Which, enter(Which));
    return decided.has_value() ? report<Which, result_t>(*decided) : otherwise();
}

// ---- Calls with more to decide than success or failure ------------------------------------------

int play_poll(const poll_result& script, struct pollfd* fds, nfds_t nfds) {
    if (script.result < 0) {
        errno = script.err;
        return script.result;
    }
    for (nfds_t i = 0; i < nfds; i++) {
        fds[i].revents = i < script.revents.size() ? script.revents[i] : short{0};
    }
    return script.result;
}

std::optional<poll_result> decide_poll(std::uint64_t number, struct pollfd* fds, nfds_t nfds,
                                       int timeout_ms) {
    poll_hook_t hook;
    {
        const std::lock_guard lock(g_mutex);
        if (auto due = take(g_poll_results, number); due.has_value()) return due;
        hook = g_poll_hook;
    }
    return hook != nullptr ? hook({fds, nfds}, timeout_ms) : std::nullopt;
}

// Frees the mutex for a millisecond, as any wait does. If it slept with the mutex, a thread that
// polls its condition this way would keep the others out.
void wait_briefly(pthread_cond_t* cond, pthread_mutex_t* mutex) {
    constexpr long k_millisecond = 1'000'000;
    constexpr long k_second = 1'000'000'000;
    struct timespec soon;
    clock_gettime(CLOCK_MONOTONIC, &soon);  // the clock of every condition of the library
    soon.tv_nsec += k_millisecond;
    soon.tv_sec += soon.tv_nsec / k_second;
    soon.tv_nsec %= k_second;
    pthread_cond_timedwait(cond, mutex, &soon);
}

std::chrono::nanoseconds to_ns(const struct timespec& t) {
    return std::chrono::seconds(t.tv_sec) + std::chrono::nanoseconds(t.tv_nsec);
}

// What this thread last read from the monotonic clock.
constinit thread_local struct timespec t_last_monotonic = {0, 0};

std::optional<struct timespec> steady_clock(clockid_t clock) {
    std::int64_t us = g_monotonic_us.load(std::memory_order_relaxed);
    if (us == k_real_clock || (clock != CLOCK_MONOTONIC && clock != CLOCK_BOOTTIME)) {
        return std::nullopt;
    }
    if (clock == CLOCK_BOOTTIME) us += g_suspended_us.load(std::memory_order_relaxed);
    return timespec{static_cast<time_t>(us / 1000000), static_cast<long>(us % 1000000) * 1000};
}

std::optional<struct timeval> wall_clock() {
    const std::int64_t us = g_wall_clock_us.load(std::memory_order_relaxed);
    if (us == k_real_clock) return std::nullopt;
    return timeval{static_cast<time_t>(us / 1000000), static_cast<suseconds_t>(us % 1000000)};
}

// ---- Addresses of the test's own ----------------------------------------------------------------

const pid_t k_test = getpid();  // that of children, too

// An abstract Unix address with the test's process behind the name.
struct own_unix_address {
    struct sockaddr_un address;
    socklen_t length;
    const struct sockaddr* get() const {
        return reinterpret_cast<const struct sockaddr*>(&address);
    }
};

std::optional<own_unix_address> own_address(const struct sockaddr* addr, socklen_t len) {
    constexpr std::size_t k_path = offsetof(struct sockaddr_un, sun_path);
    if (addr == nullptr || len <= k_path || addr->sa_family != AF_UNIX) return std::nullopt;
    const auto* const wanted = reinterpret_cast<const struct sockaddr_un*>(addr);
    if (wanted->sun_path[0] != '\0') return std::nullopt;
    const std::string name =
        std::string(wanted->sun_path + 1, len - k_path - 1) + "." + std::to_string(k_test);
    own_unix_address own = {};
    own.address.sun_family = AF_UNIX;
    name.copy(own.address.sun_path + 1, sizeof own.address.sun_path - 1);
    own.length = static_cast<socklen_t>(k_path + 1 + name.size());
    return own;
}

}  // namespace

// ---- The test's side ----------------------------------------------------------------------------

const char* name_of(call which) {
    return k_names[static_cast<std::size_t>(which)];
}

void nth(call which, unsigned n, int err) {
    const std::lock_guard lock(g_mutex);
    order_t& it = order(which);
    it.nth[it.count + n] = err;
    update_armed(which);
}

void always(call which, int err) {
    const std::lock_guard lock(g_mutex);
    order(which).always = err;
    update_armed(which);
}

void on(call which, hook_t hook) {
    const std::lock_guard lock(g_mutex);
    order(which).hook = std::move(hook);
    update_armed(which);
}

void clear(call which) {
    const std::lock_guard lock(g_mutex);
    order_t& it = order(which);
    it.nth.clear();
    it.always.reset();
    it.hook = nullptr;
    update_armed(which);
}

std::uint64_t count(call which) {
    return order(which).count;
}

bool all_used() {
    const std::lock_guard lock(g_mutex);
    return g_poll_results.empty() && std::all_of(std::begin(g_orders), std::end(g_orders),
                                                 [](const order_t& it) { return it.nth.empty(); });
}

void reset() {
    for (std::size_t i = 0; i < k_calls; i++)
        clear(static_cast<call>(i));
    const std::lock_guard lock(g_mutex);
    g_poll_results.clear();
    g_poll_hook = nullptr;
    g_sleep_hook = nullptr;
    g_wall_clock_us = k_real_clock;
    g_monotonic_us = k_real_clock;
    g_suspended_us = 0;
    for (std::size_t i = 0; i < k_calls; i++) {
        g_orders[i].count = 0;
        update_armed(static_cast<call>(i));
    }
}

guard::~guard() {
    {
        const std::lock_guard lock(g_mutex);
        for (std::size_t i = 0; i < k_calls; i++) {
            for (const auto& [number, err] : g_orders[i].nth) {
                ADD_FAILURE() << "call " << number << " of " << k_names[i]
                              << "() was to fail but did not come";
            }
        }
        for (const auto& [number, result] : g_poll_results) {
            ADD_FAILURE() << "call " << number << " of poll() had a result but did not come";
        }
    }
    reset();
}

poll_result poll_events(std::vector<short> revents) {
    const auto ready =
        std::count_if(revents.begin(), revents.end(), [](short r) { return r != 0; });
    return {static_cast<int>(ready), 0, std::move(revents)};
}

void poll_nth(unsigned n, const poll_result& result) {
    const std::lock_guard lock(g_mutex);
    g_poll_results[order(call::poll).count + n] = result;
    update_armed(call::poll);
}

void on_poll(poll_hook_t hook) {
    const std::lock_guard lock(g_mutex);
    g_poll_hook = std::move(hook);
    update_armed(call::poll);
}

void set_wall_clock(std::chrono::microseconds since_epoch) {
    g_wall_clock_us = since_epoch.count();
}

void advance_wall_clock(std::chrono::microseconds by) {
    if (g_wall_clock_us == k_real_clock) throw std::logic_error("fail: wall clock is not set");
    g_wall_clock_us += by.count();
}

void set_monotonic_clock(std::chrono::microseconds since_boot) {
    g_monotonic_us = since_boot.count();
}

void advance_monotonic_clock(std::chrono::microseconds by) {
    if (g_monotonic_us == k_real_clock) throw std::logic_error("fail: monotonic clock is not set");
    g_monotonic_us += by.count();
}

void suspend_machine(std::chrono::microseconds duration) {
    g_suspended_us += duration.count();
}

void on_sleep(sleep_hook_t hook) {
    const std::lock_guard lock(g_mutex);
    g_sleep_hook = std::move(hook);
    update_armed(call::clock_nanosleep);
}

std::size_t open_descriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries))) - 1;  // its own
}

}  // namespace fail

// ---- The library's side -------------------------------------------------------------------------

using fail::call;
using fail::own_address;
using fail::run;

extern "C" {

int fail_accept4(int fd, struct sockaddr* addr, socklen_t* len, int flags) {
    return run<call::accept4>([&] { return accept4(fd, addr, len, flags); });
}

int fail_bind(int fd, const struct sockaddr* addr, socklen_t len) {
    return run<call::bind>([&] {
        if (const auto own = own_address(addr, len)) return bind(fd, own->get(), own->length);
        const std::optional<int> answer = fake_netif::answer_bind(fd, addr, len);
        return answer.has_value() ? *answer : bind(fd, addr, len);
    });
}

int fail_clock_gettime(clockid_t clock, struct timespec* now) {
    const int result = run<call::clock_gettime>([&] {
        const std::optional<struct timespec> set = fail::steady_clock(clock);
        if (!set.has_value()) return clock_gettime(clock, now);
        *now = *set;
        return 0;
    });
    if (result == 0 && clock == CLOCK_MONOTONIC) fail::t_last_monotonic = *now;
    return result;
}

int fail_clock_nanosleep(clockid_t clock, int flags, const struct timespec* request,
                         struct timespec* remain) {
    return run<call::clock_nanosleep>([&] {
        fail::sleep_hook_t hook;
        if (fail::order(call::clock_nanosleep).armed.load(std::memory_order_relaxed)) {
            const std::lock_guard lock(fail::g_mutex);
            hook = fail::g_sleep_hook;
        }
        if (hook == nullptr) return clock_nanosleep(clock, flags, request, remain);
        const bool absolute = (flags & TIMER_ABSTIME) != 0;
        hook(fail::to_ns(*request) -
             (absolute ? fail::to_ns(fail::t_last_monotonic) : std::chrono::nanoseconds(0)));
        return 0;
    });
}

// What the library gives it is a number, not a pointer.
int fail_fcntl(int fd, int command, ...) {
    va_list args;
    va_start(args, command);
    const int arg = va_arg(args, int);
    va_end(args);
    return run<call::fcntl>([&] { return fcntl(fd, command, arg); });
}

int fail_fcntl64(int fd, int command, ...) __attribute__((alias("fail_fcntl")));

FILE* fail_fdopen(int fd, const char* mode) {
    return run<call::fdopen>([&] { return fdopen(fd, mode); });
}

char* fail_fgets(char* buf, int size, FILE* stream) {
    return run<call::fgets>([&] { return fgets(buf, size, stream); });
}

char* fail_fgets_chk(char* buf, size_t, int size, FILE* stream) {
    return fail_fgets(buf, size, stream);
}

FILE* fail_fopen(const char* path, const char* mode) {
    return run<call::fopen>([&] { return fopen(path, mode); });
}

FILE* fail_fopen64(const char* path, const char* mode) {
    return fail_fopen(path, mode);
}

int fail_fstat(int fd, struct stat* st) {
    return run<call::fstat>([&] { return fstat(fd, st); });
}

int fail_fstat64(int fd, struct stat* st) {
    return fail_fstat(fd, st);
}

int fail_getsockopt(int fd, int level, int option, void* value, socklen_t* len) {
    return run<call::getsockopt>([&] {
        const std::optional<int> answer =
            fake_netif::answer_getsockopt(fd, level, option, value, len);
        return answer.has_value() ? *answer : getsockopt(fd, level, option, value, len);
    });
}

int fail_gettimeofday(struct timeval* now, void* zone) {
    return run<call::gettimeofday>([&] {
        const std::optional<struct timeval> set = fail::wall_clock();
        if (!set.has_value()) return gettimeofday(now, static_cast<struct timezone*>(zone));
        *now = *set;
        return 0;
    });
}

int fail_ioctl(int fd, unsigned long request, ...) {
    va_list args;
    va_start(args, request);
    void* arg = va_arg(args, void*);
    va_end(args);
    return run<call::ioctl>([&] { return fake_netif::answer_ioctl(fd, request, arg); });
}

struct tm* fail_localtime_r(const time_t* when, struct tm* result) {
    return run<call::localtime_r>([&] { return localtime_r(when, result); });
}

// The library creates no files, so there is no mode.
int fail_open(const char* path, int flags, ...) {
    return run<call::open>([&] { return open(path, flags); });
}

int fail_open64(const char* path, int flags, ...) __attribute__((alias("fail_open")));

int fail_pipe(int ends[2]) {
    return run<call::pipe>([&] { return pipe(ends); });
}

int fail_poll(struct pollfd* fds, nfds_t nfds, int timeout_ms) {
    const fail::visit now = fail::enter(call::poll);
    if (now.armed) {
        if (const fail::outcome decided = fail::decide(call::poll, now); decided.has_value()) {
            return fail::report<call::poll, int>(*decided);
        }
        if (const auto script = fail::decide_poll(now.number, fds, nfds, timeout_ms);
            script.has_value()) {
            return fail::play_poll(*script, fds, nfds);
        }
    }
    return poll(fds, nfds, timeout_ms);
}

int fail_poll_chk(struct pollfd* fds, nfds_t nfds, int timeout_ms, size_t) {
    return fail_poll(fds, nfds, timeout_ms);
}

int fail_pthread_cond_destroy(pthread_cond_t* cond) {
    return run<call::pthread_cond_destroy>([&] { return pthread_cond_destroy(cond); });
}

int fail_pthread_cond_init(pthread_cond_t* cond, const pthread_condattr_t* attr) {
    return run<call::pthread_cond_init>([&] { return pthread_cond_init(cond, attr); });
}

int fail_pthread_cond_signal(pthread_cond_t* cond) {
    return run<call::pthread_cond_signal>([&] { return pthread_cond_signal(cond); });
}

int fail_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                const struct timespec* deadline) {
    const fail::outcome decided =
        fail::decide(call::pthread_cond_timedwait, fail::enter(call::pthread_cond_timedwait));
    if (!decided.has_value()) return pthread_cond_timedwait(cond, mutex, deadline);
    if (decided == fail::done) fail::wait_briefly(cond, mutex);
    return *decided;
}

int fail_pthread_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mutex) {
    return run<call::pthread_cond_wait>([&] { return pthread_cond_wait(cond, mutex); });
}

int fail_pthread_condattr_init(pthread_condattr_t* attr) {
    return run<call::pthread_condattr_init>([&] { return pthread_condattr_init(attr); });
}

int fail_pthread_condattr_setclock(pthread_condattr_t* attr, clockid_t clock) {
    return run<call::pthread_condattr_setclock>(
        [&] { return pthread_condattr_setclock(attr, clock); });
}

int fail_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*routine)(void*),
                        void* arg) {
    return run<call::pthread_create>([&] { return pthread_create(thread, attr, routine, arg); });
}

int fail_pthread_join(pthread_t thread, void** result) {
    return run<call::pthread_join>([&] { return pthread_join(thread, result); });
}

int fail_pthread_mutex_destroy(pthread_mutex_t* mutex) {
    return run<call::pthread_mutex_destroy>([&] { return pthread_mutex_destroy(mutex); });
}

int fail_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attr) {
    return run<call::pthread_mutex_init>([&] { return pthread_mutex_init(mutex, attr); });
}

int fail_pthread_mutex_lock(pthread_mutex_t* mutex) {
    return run<call::pthread_mutex_lock>([&] { return pthread_mutex_lock(mutex); });
}

int fail_pthread_sigmask(int how, const sigset_t* set, sigset_t* before) {
    return run<call::pthread_sigmask>([&] { return pthread_sigmask(how, set, before); });
}

ssize_t fail_read(int fd, void* buf, size_t count) {
    return run<call::read>([&] { return read(fd, buf, count); });
}

ssize_t fail_read_chk(int fd, void* buf, size_t count, size_t) {
    return fail_read(fd, buf, count);
}

ssize_t fail_recv(int fd, void* buf, size_t count, int flags) {
    return run<call::recv>([&] { return recv(fd, buf, count, flags); });
}

ssize_t fail_recv_chk(int fd, void* buf, size_t count, size_t, int flags) {
    return fail_recv(fd, buf, count, flags);
}

int fail_connect(int fd, const struct sockaddr* addr, socklen_t len) {
    return run<call::connect>([&] {
        const auto own = own_address(addr, len);
        return own ? connect(fd, own->get(), own->length) : connect(fd, addr, len);
    });
}

int fail_kill(pid_t pid, int signal) {
    return run<call::kill>([&] { return kill(pid, signal); });
}

int fail_listen(int fd, int backlog) {
    return run<call::listen>([&] { return listen(fd, backlog); });
}

int fail_pthread_atfork(void (*prepare)(), void (*parent)(), void (*child)()) {
    return run<call::pthread_atfork>([&] { return pthread_atfork(prepare, parent, child); });
}

int fail_setsockopt(int fd, int level, int option, const void* value, socklen_t len) {
    return run<call::setsockopt>([&] {
        const std::optional<int> answer =
            fake_netif::answer_setsockopt(fd, level, option, value, len);
        return answer.has_value() ? *answer : setsockopt(fd, level, option, value, len);
    });
}

int fail_socket(int domain, int type, int protocol) {
    return run<call::socket>([&] {
        if (domain == AF_NETLINK) return fake_netif::answer_netlink_socket(type, protocol);
        if (domain == AF_PACKET) return fake_netif::answer_packet_socket(type, protocol);
        return socket(domain, type, protocol);
    });
}

int fail_stat(const char* path, struct stat* st) {
    return run<call::stat>([&] { return stat(path, st); });
}

// struct stat and struct stat64 are one layout on the 64-bit machines that this runs on.
int fail_stat64(const char* path, struct stat* st) {
    return fail_stat(path, st);
}

size_t fail_strftime(char* buf, size_t size, const char* format, const struct tm* when) {
    return run<call::strftime>([&] { return strftime(buf, size, format, when); });
}

time_t fail_time(time_t* result) {
    return run<call::time>([&] {
        const std::optional<struct timeval> set = fail::wall_clock();
        if (!set.has_value()) return time(result);
        if (result != nullptr) *result = set->tv_sec;
        return set->tv_sec;
    });
}

ssize_t fail_write(int fd, const void* buf, size_t count) {
    return run<call::write>([&] { return write(fd, buf, count); });
}

}  // extern "C"
