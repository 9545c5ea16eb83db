// qnm_completion.h - completion tags: which register read an arriving Completion answers.
//
// The life of a tag: _qnm_get_tag(); for each frame sent _qnm_set_comp_recv_wait(), wait with
// _qnm_sigwait_comp(), fetch with _qnm_get_readreg(); at last _qnm_release_tag() or
// _qnm_rest_tag(). A tag outside tag_min to tag_max is warned about and refused.
#pragma once

#include <cstdint>

extern "C" {

int _qnm_cmp_init(void);  // 0 or EPROTO
int _qnm_cmp_fini(void);  // always 0; no thread may still use tags

// Wakes every thread that waits for a Completion; from now on waits end at once.
void _qnm_cmp_wake(void);

// 0 with a tag of the caller's own; -1 when none is free or tag_out is null.
int _qnm_get_tag(int* tag_out);

// Releases a tag. Always 0.
int _qnm_release_tag(int tag);

// Releases the tag of a frame that was not answered. The tag rests for a second, so that a late
// answer finds no new owner, unless half of the tags rest already, no other tag is free, or fewer
// than 64 tags are configured. Always 0.
int _qnm_rest_tag(int tag);

// From now on a Completion from the card dst_mac by this port is accepted for the tag. One that has
// been accepted already stays accepted.
void _qnm_set_comp_recv_wait(int tag, uint64_t dst_mac, int port);

// 0 when the Completion has been accepted, before or during the wait, or all waits have been woken;
// ETIMEDOUT after timeout milliseconds, with 0 at once; EPROTO when the wait failed.
int _qnm_sigwait_comp(int tag, uint32_t timeout);

// Reports that a Completion has arrived. It is accepted if it is awaited from this card and by this
// port, else ignored. Always 0.
int _qnm_recv_comp(int tag, int port, uint64_t src_mac, uint32_t data);

// 0 with the value; ENOENT when the Completion has not arrived; EPROTO.
int _qnm_get_readreg(int tag, uint32_t* data_out);

}  // extern "C"
