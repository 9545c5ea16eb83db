// INT, TERM and HUP as input: every wait of a program has their descriptor beside its own, so that
// it ends by returning, and what it has made is removed.
//
// They are blocked in all threads. One that waits stays readable until it is taken, so it ends the
// waits that follow as well, in whatever thread.
#pragma once

namespace tools {

// Before any thread is started. Returns the descriptor; -1 with errno when there is none to be had.
int open_end_signals();

// The same descriptor; -1, which no wait ends at, before it was opened.
int end_signals();

// Whether one waits.
bool is_end_signalled(int signals);

// Takes the one that waits, and its number; 0 when there is none. Whoever has obeyed it puts it
// back when his own work is over, so that later waits end, too.
int take_end_signal(int signals);
void return_end_signal(int number);

// Waits until `fd` is ready for `events`, has failed or is hung up; false when a signal came first.
bool wait_until_ready(int fd, short events, int signals);

}  // namespace tools
