// qnm_completion.h - completion tags: which register read an arriving Completion answers.
//
// The life of a tag: _qnm_get_tag(); for each frame sent _qnm_set_comp_recv_wait(), wait with
// _qnm_sigwait_comp(), fetch with _qnm_get_readreg(); at last _qnm_release_tag() or
// _qnm_rest_tag(). A tag outside tag_min to tag_max is warned about and refused.
#pragma once

#include <cstdint>

extern "C" {

int _qnm_cmp_init(void);  // 0 or EPROTO
int _qnm_cmp_fini(void);  // always 0; nobody may wait or ask any more

// Wakes every thread that waits for a Completion; from now on no wait lasts.
void _qnm_cmp_wake(void);

// 0 with a tag of the caller's own; -1 when none is free or tag_out is null.
int _qnm_get_tag(int* tag_out);

// Gives a tag back. Always 0.
int _qnm_release_tag(int tag);

// The same after a frame that stayed unanswered: the tag rests for a second, unless half of them do
// or no other is left, so that the late answer finds no new owner. Where there are fewer than 64
// tags, none rests. Always 0.
int _qnm_rest_tag(int tag);

// Lets the Completion in that the card with dst_mac sends by the port. One that has been accepted
// already stays accepted.
void _qnm_set_comp_recv_wait(int tag, uint64_t dst_mac, int port);

// 0 when the Completion has been accepted, before or during the wait, or all waits have been woken;
// ETIMEDOUT after timeout milliseconds, with 0 at once; EPROTO when the wait failed.
int _qnm_sigwait_comp(int tag, uint32_t timeout);

// A Completion has arrived: accepted when it is awaited, from this card and by this port, else
// ignored. Always 0.
int _qnm_recv_comp(int tag, int port, uint64_t src_mac, uint32_t data);

// 0 with the value; ENOENT when the Completion has not arrived; EPROTO.
int _qnm_get_readreg(int tag, uint32_t* data_out);

}  // extern "C"
