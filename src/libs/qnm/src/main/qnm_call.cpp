// qnm_call.cpp - the count of public calls inside the library.
//
// A stop waits for the calls that are inside, so that nothing is taken down under them.

#include "qnm_call.h"

#include <atomic>

#include "qnm_root.h"
#include "qnm_util.h"

namespace {

uint32_t calls_inside;

}  // namespace

extern "C" {

int _qnm_enter_call(void) {
    if (!qnm::is_usable()) return 0;
    std::atomic_ref<uint32_t>(calls_inside)++;
    // A stop may have come between, and no longer have seen this call.
    if (qnm::is_usable()) return 1;
    _qnm_leave_call();
    return 0;
}

void _qnm_leave_call(void) {
    std::atomic_ref<uint32_t>(calls_inside)--;
}

void _qnm_wait_calls(void) {
    while (qnm::load(calls_inside) != 0)
        _qnm_msleep(1);
}

}  // extern "C"
