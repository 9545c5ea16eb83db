// SIGINT, SIGTERM and SIGHUP as input. Every wait of a program includes their descriptor, so the
// program ends by returning and cleans up after itself.
//
// The signals are blocked in all threads. A pending one stays readable until it is taken, so it
// also ends all later waits, in any thread.
#pragma once

namespace tools {

// To be called before any thread is started. Returns the descriptor, or -1 with errno.
int open_end_signals();

// The same descriptor; -1, which poll() ignores, before it was opened.
int end_signals();

// Whether a signal is pending.
bool is_end_signalled(int signals);

// Takes a pending signal and returns its number; 0 when there is none. A caller that has acted on
// it returns it afterwards, so that later waits end as well.
int take_end_signal(int signals);
void return_end_signal(int number);

// Waits until `fd` is ready for `events`, has failed or was hung up. False: a signal came first.
bool wait_until_ready(int fd, short events, int signals);

}  // namespace tools
