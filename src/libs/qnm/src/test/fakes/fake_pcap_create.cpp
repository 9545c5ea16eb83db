// fake_pcap_create.cpp - the optional half of the fake libpcap; see fake_pcap_create.h.

#include "fake_pcap_create.h"

#include <gtest/gtest.h>

#include <array>
#include <map>
#include <mutex>
#include <utility>

#include "fake_pcap_handle.h"

namespace fake_pcap {
namespace {

constexpr std::size_t k_steps = static_cast<std::size_t>(step::activate) + 1;

std::mutex g_mutex;  // guards all below
std::vector<std::pair<pcap_t*, create_call>> g_calls;
std::array<std::optional<int>, k_steps> g_next_result;

// Needs the mutex: takes the result that was ordered for this step.
std::optional<int> take_result(step which) {
    return std::exchange(g_next_result[static_cast<std::size_t>(which)], std::nullopt);
}

create_call* call_of(const pcap_t* handle) {
    for (auto& [made, call] : g_calls) {
        if (made == handle) return &call;
    }
    return nullptr;
}

int set(pcap_t* handle, const char* caller, step which, std::optional<int> create_call::*setting,
        int value) {
    if (checked(handle, handle_state::created, caller) == nullptr) return PCAP_ERROR_ACTIVATED;
    const std::lock_guard lock(g_mutex);
    const int result = take_result(which).value_or(0);
    if (result >= 0) call_of(handle)->*setting = value;
    return result;
}

}  // namespace

std::vector<create_call> create_calls() {
    const std::lock_guard lock(g_mutex);
    std::vector<create_call> calls;
    for (const auto& entry : g_calls)
        calls.push_back(entry.second);
    return calls;
}

void set_next_result(step which, int result) {
    const std::lock_guard lock(g_mutex);
    g_next_result[static_cast<std::size_t>(which)] = result;
}

void reset_create() {
    const std::lock_guard lock(g_mutex);
    g_calls.clear();
    g_next_result.fill(std::nullopt);
}

}  // namespace fake_pcap

using fake_pcap::create_call;
using fake_pcap::step;

pcap_t* pcap_create(const char* device, char* errbuf) {
    if (device == nullptr || *device == '\0' || errbuf == nullptr) {
        ADD_FAILURE() << "pcap_create: no device name or no error buffer";
        return nullptr;
    }
    errbuf[0] = '\0';
    const std::lock_guard lock(fake_pcap::g_mutex);
    if (fake_pcap::take_result(step::create).has_value()) return nullptr;
    pcap_t* handle = fake_pcap::make_handle(device);
    create_call call;
    call.name = device;
    fake_pcap::g_calls.emplace_back(handle, call);
    return handle;
}

int pcap_set_snaplen(pcap_t* p, int value) {
    return fake_pcap::set(p, "pcap_set_snaplen", step::snaplen, &create_call::snaplen, value);
}

int pcap_set_promisc(pcap_t* p, int value) {
    return fake_pcap::set(p, "pcap_set_promisc", step::promisc, &create_call::promisc, value);
}

int pcap_set_timeout(pcap_t* p, int value) {
    return fake_pcap::set(p, "pcap_set_timeout", step::timeout, &create_call::timeout_ms, value);
}

int pcap_set_immediate_mode(pcap_t* p, int value) {
    return fake_pcap::set(p, "pcap_set_immediate_mode", step::immediate_mode,
                          &create_call::immediate_mode, value);
}

int pcap_set_buffer_size(pcap_t* p, int value) {
    return fake_pcap::set(p, "pcap_set_buffer_size", step::buffer_size, &create_call::buffer_size,
                          value);
}

int pcap_activate(pcap_t* p) {
    if (fake_pcap::checked(p, fake_pcap::handle_state::created, "pcap_activate") == nullptr) {
        return PCAP_ERROR_ACTIVATED;
    }
    const std::lock_guard lock(fake_pcap::g_mutex);
    const int result = fake_pcap::take_result(step::activate).value_or(0);
    if (result < 0) return result;
    create_call* call = fake_pcap::call_of(p);
    call->activated = true;
    constexpr int k_default_snaplen = 262144;
    fake_pcap::activate(p, call->snaplen.value_or(k_default_snaplen));
    return result;
}
