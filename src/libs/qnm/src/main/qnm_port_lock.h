// qnm_port_lock.h - at most one manager accesses cards by an interface.
//
// All managers on one interface send from the same address with the same tags, so that one takes
// the other's answers. The one that sends the first frame to a card has the interface until it
// stops; others are refused access, and may listen.
#pragma once

extern "C" {

// Before the port's first frame, on a thread of the port's network namespace. A failure is told
// when cards are accessed.
void _qnm_port_lock_open(int port, int if_index);

// Makes sure that this manager alone accesses cards by the port: 0, or EBUSY with a line that names
// the process which does. After the first success it costs a look at a flag. Any thread.
int _qnm_port_lock_take(int port);

// Looks after those who have asked for this manager; from time to time, of one thread.
void _qnm_port_lock_serve(void);

// After the port's last frame. A closed port is left alone.
void _qnm_port_lock_close(int port);

}  // extern "C"
