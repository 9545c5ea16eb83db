// fail.h - system calls that fail, or do something else, on demand.
//
// Mechanism: the build copies the static library with the symbols of fail_calls.def renamed
// (objcopy --redefine-syms), so that its calls, and only its calls, go to fail.cpp. The linker's
// --wrap would also redirect the calls of GoogleTest, of the test and of the fakes, and count and
// fail their mutexes and clocks with the rest. So a test may use every call freely; count() counts
// the code under test alone.
//
// Without a request each call does what it always does, except that
//   - ioctl, netlink and packet sockets and PACKET_VERSION are answered by fake_netif.h;
//   - an abstract Unix address is one of the test's own, whatever other tests run beside it;
//   - gettimeofday and time show the wall clock set here, if one is set;
//   - clock_gettime shows the monotonic clock set here, if one is set;
//   - a sleep runs the function given to on_sleep, if one is given, and does not sleep.
//
// Order of decision for one call: the hook of on(), the failure due by nth(), then always(); then,
// for poll only, the result due by poll_nth(), and the hook of on_poll().
//
// An undisturbed call takes no lock and orders no memory between threads, so that the fakes hide no
// data race from ThreadSanitizer. Hooks run on the calling thread with no lock held.
//
// Use one fail::guard per test: it starts clean, and at its end a failure that was ordered and
// never happened fails the test.
#pragma once

#include <poll.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

namespace fail {

enum class call {
#define FAIL_CALL(name, kind) name,
#define FAIL_ALIAS(symbol, name)
#include "fail_calls.def"
#undef FAIL_CALL
#undef FAIL_ALIAS
};

inline constexpr call k_all_calls[] = {
#define FAIL_CALL(name, kind) call::name,
#define FAIL_ALIAS(symbol, name)
#include "fail_calls.def"
#undef FAIL_CALL
#undef FAIL_ALIAS
};

const char* name_of(call which);

// The n-th call from now (1 = the next) fails with this error number. May be given several times.
void nth(call which, unsigned n, int err);

// Every call fails with this error number until clear() or reset().
void always(call which, int err);

// Ends nth, always and on for this call; its count goes on.
void clear(call which);

// Calls since reset(), failed ones included.
std::uint64_t count(call which);

// Everything ordered by nth() and poll_nth() has happened.
bool all_used();

// Back to real behaviour: no failures, hooks or scripts, real clocks, all counts 0. Needs that no
// thread is inside the code under test.
void reset();

class guard {
  public:
    guard() { reset(); }
    ~guard();
    guard(const guard&) = delete;
    guard& operator=(const guard&) = delete;
};

// ---- Any call: a hook ---------------------------------------------------------------------------

// What a hook decides: go on to the real call (nullopt), or skip it and report this error number;
// 0 reports success (a result of 0), for example a wake-up from a wait without a signal; a wait
// with a deadline gives its mutex away for a millisecond first.
using outcome = std::optional<int>;
inline constexpr outcome pass = std::nullopt;
inline constexpr outcome done = 0;

// Runs before every call of this kind with the call's number since reset(), 1 for the first.
using hook_t = std::function<outcome(std::uint64_t number)>;
void on(call which, hook_t hook);

// ---- poll ---------------------------------------------------------------------------------------

struct poll_result {
    int result = 0;  // -1 sets errno to err
    int err = 0;
    std::vector<short> revents;  // of the entries in order; missing ones are 0
};

// A poll that returns these events at once; the result is the number of entries with events.
poll_result poll_events(std::vector<short> revents);

void poll_nth(unsigned n, const poll_result& result);

// Decides every poll; nullopt means the real one. The entries carry what the caller asked for.
using poll_hook_t =
    std::function<std::optional<poll_result>(std::span<const struct pollfd> fds, int timeout_ms)>;
void on_poll(poll_hook_t hook);

// ---- Time ---------------------------------------------------------------------------------------

// Wall clock since the epoch; it stands still until it is set or advanced again. advance_wall_clock
// needs a clock that is set.
void set_wall_clock(std::chrono::microseconds since_epoch);
void advance_wall_clock(std::chrono::microseconds by);

// The monotonic clock and the time since boot; they stand still until they are set or advanced
// again. A machine that is suspended advances the time since boot alone. A wait until a time of a
// clock that is set ends at once, or never.
void set_monotonic_clock(std::chrono::microseconds since_boot);
void advance_monotonic_clock(std::chrono::microseconds by);
void suspend_machine(std::chrono::microseconds duration);

// Called in place of every clock_nanosleep with the time to sleep. For a sleep until an absolute
// time that is the time from the calling thread's last look at the monotonic clock, and thus
// exactly what the caller has added to it.
using sleep_hook_t = std::function<void(std::chrono::nanoseconds duration)>;
void on_sleep(sleep_hook_t hook);

// ---- Leaks --------------------------------------------------------------------------------------

std::size_t open_descriptors();  // of the whole process, for a comparison of before and after

}  // namespace fail
