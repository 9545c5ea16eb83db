// public_header.cpp - the public header in C++20: C linkage, and enumerations that hold any number.

#include "qnm.h"

#include <cstdio>
#include <string_view>
#include <type_traits>

static_assert(std::is_same_v<std::underlying_type_t<qnm_api_code_t>, int>);
static_assert(std::is_same_v<std::underlying_type_t<qnm_log_level_t>, int>);
static_assert(std::is_same_v<std::underlying_type_t<qnm_evt_type_t>, int>);
static_assert(std::is_standard_layout_v<qnm_qnsv_t> && std::is_trivial_v<qnm_qnsv_t>);
static_assert(std::is_standard_layout_v<qnm_qnio_t> && std::is_trivial_v<qnm_qnio_t>);

// No call has these in its type, so the description of the ABI lacks them; they are checked here.
static_assert(QNM_FLAG_LIVECHECK == 1 && QNM_FLAG_VERIFY == 2 && QNM_FLAG_FORCELOCK == 4);
static_assert(std::is_same_v<qnm_ptr_t, void*>);

extern "C" int check_public_header_in_cpp(void);

namespace {

// The same as in C, where each text is checked.
int check_texts() {
    const std::string_view retcode = qnm_retcode_text(QNM_API_ETIMEDOUT);
    const std::string_view event = qnm_event_name(QNM_EVT_CHANNELSTATECHANGE);
    const std::string_view unknown_retcode = qnm_retcode_text(static_cast<qnm_api_code_t>(-1));
    const std::string_view unknown_event = qnm_event_name(static_cast<qnm_evt_type_t>(99));
    if (retcode == "no answer in time" && event == "CHANNELSTATECHANGE" &&
        unknown_retcode == "unknown result code" && unknown_event == "unknown event type") {
        return 0;
    }
    std::puts("a text is another one in C++");
    return 1;
}

}  // namespace

// Returns the number of failures.
int check_public_header_in_cpp(void) {
    if (qnm_set_loglevel(static_cast<qnm_log_level_t>(99)) == QNM_API_SUCCESS) {
        std::printf("qnm_set_loglevel(99) succeeds\n");
        return 1;
    }
    return check_texts();
}
