// qnm_port_lock.h - at most one manager accesses cards by an interface.
//
// All managers on one interface send from the same address with the same tags, so each would take
// the other's answers. The one that sends the first frame to a card holds the interface until it
// stops; the others are refused access and may only listen.
#pragma once

extern "C" {

// Before the port's first frame, on a thread of the port's network namespace. A failure is told
// when cards are accessed.
void _qnm_port_lock_open(int port, int if_index);

// Makes sure that only this manager accesses cards by the port: 0, or EBUSY with a log line that
// names the process that does. After the first success it only reads a flag. Any thread.
int _qnm_port_lock_take(int port);

// Serves those who have asked which manager holds the ports. One thread calls it from time to time.
void _qnm_port_lock_serve(void);

// After the port's last frame. A closed port is left alone.
void _qnm_port_lock_close(int port);

}  // extern "C"
