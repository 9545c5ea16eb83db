// fake_pcap_create.h - the optional half of the fake libpcap: pcap_create, pcap_activate and the
// five pcap_set_ calls between them.
//
// The library must also work with a libpcap that lacks these, so a test has them only when it asks
// (qnm_add_unit_test(... PCAP_CREATE)). A handle made here and activated is one of fake_pcap.h in
// all other respects. A setting after activation, or activation twice, is reported as a failure of
// the test, as misuse of the other calls is.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace fake_pcap {

// What has been asked of one handle; a setting that was never made has no value.
struct create_call {
    std::string name;
    std::optional<int> snaplen;
    std::optional<int> promisc;
    std::optional<int> timeout_ms;
    std::optional<int> immediate_mode;
    std::optional<int> buffer_size;
    bool activated = false;
};

// The steps that can be made to fail; create returns null, the others return the result given.
enum class step { create, snaplen, promisc, timeout, immediate_mode, buffer_size, activate };

std::vector<create_call> create_calls();

// The next such call returns this result (below 0 for a failure, above 0 for a warning).
void set_next_result(step which, int result);

void reset_create();

}  // namespace fake_pcap
