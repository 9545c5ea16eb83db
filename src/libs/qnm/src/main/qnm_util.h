// qnm_util.h - stateless helpers: ID and MAC conversion, clocks, file tests.
//
// Every function may be called from any thread. Internal functions of the library return 0 or a
// positive Linux errno value; only public calls turn that into a qnm_api_code_t, once, at their
// end, through qnm_err2retcode().
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "qnm.h"

namespace qnm {

constexpr size_t k_filename_size = 512;

}  // namespace qnm

extern "C" {

// Six MAC bytes, first byte most significant, as a number; the upper 16 bits are 0.
void _qnm_mac_to_uint64(const uint8_t mac[6], uint64_t* value);

// The same; with clear_low_bit set, the two MAC addresses of a two-path card yield one ID.
void _qnm_mac2id(const uint8_t mac[6], uint64_t* id, uint8_t clear_low_bit);

// The inverse; bits 63 to 48 are ignored. _qnm_id2mac is the same under the ID's name.
void _qnm_uint64_to_mac(uint64_t value, uint8_t mac[6]);
void _qnm_id2mac(uint64_t id, uint8_t mac[6]);

// Wall-clock time since the epoch.
uint64_t _qnm_get_msec_timenow(void);
uint64_t _qnm_get_msec_timenow_lin(void);
uint64_t _qnm_get_usec_timenow(void);
uint64_t _qnm_get_usec_timenow_lin(void);

// Local time as "2026-01-31 23:59:59" (20 bytes with its terminator). 0, or EPROTO when it does not
// fit or cannot be converted; buf is then empty in the latter case.
int _qnm_get_nowstr(char* buf, size_t len);
int _qnm_get_nowstr_lin(char* buf, size_t len);

// The point on the monotonic clock that lies ms milliseconds ahead. 0, or EPROTO when the clock
// fails.
int _qnm_get_deadline(uint32_t ms, struct timespec* deadline);

// Time on the monotonic clock, which no one sets. It stands still while the machine is suspended;
// that since boot goes on, where the kernel has it.
uint64_t _qnm_get_msec_monotonic(void);
uint64_t _qnm_get_msec_since_boot(void);

// Sleeps for ms milliseconds; a signal does not cut it short.
void _qnm_msleep(uint32_t ms);

// Keeps a descriptor to this program: one that the host executes does not inherit it.
void _qnm_close_on_exec(int fd);

// The name of a file of the installation in directory dir (null or empty: the default one). 0, or
// EPROTO when it does not fit into size bytes.
int _qnm_make_filename(const char* dir, const char* file, char* name, size_t size);

// 0 when path is a regular file (a directory), else -1. Only the one mode bit is tested.
int _qnm_file_exist(const char* path);
int _qnm_dir_exist(const char* path);

}  // extern "C"
