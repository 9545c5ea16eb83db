// qnm_linkdown.h - the thread that follows the link state of the ports.
#pragma once

extern "C" {

// Thread entry; arg is not used. Ends on the terminate pipe, the stop flag or a fatal error.
void* _qnm_watch_linkstate(void* arg);

// The watch loop.
void _qnm_watch_linkstate_lin(void);

}  // extern "C"
