// library.cpp - see library.h.

#include "library.h"

#include <linux/sockios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "qnm_completion.h"
#include "qnm_keepalive.h"
#include "qnm_linkdown.h"

namespace {

using model::outcome;
using steps::step;
using steps::what;

// ---- Public calls -------------------------------------------------------------------------------

qnm_api_code_t call_list(const step& it, uint64_t** list, uint32_t* num) {
    const bool server = it.which == model::k_server;
    switch (it.cards) {
        case model::wanted::all:
            return server ? qnm_get_qnsvids(list, num) : qnm_get_qnioids(list, num);
        case model::wanted::updated:
            return server ? qnm_get_update_qnsvids(it.number, list, num)
                          : qnm_get_update_qnioids(it.number, list, num);
        default:
            break;
    }
    const auto group = static_cast<uint16_t>(it.number);
    return server ? qnm_get_group_qnsvids(group, list, num)
                  : qnm_get_group_qnioids(group, list, num);
}

template <typename Record>
outcome copy_record(qnm_api_code_t (*get)(uint64_t, Record*), const step& it) {
    Record record;
    memset(&record, 0x5A, sizeof record);
    outcome done = {.result = get(it.id, it.null_argument ? nullptr : &record)};
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&record);
    if (done.result == QNM_API_SUCCESS) done.record.assign(bytes, bytes + sizeof record);
    return done;
}

outcome forget(const step& it) {
    return {.result =
                it.which == model::k_server ? qnm_delete_qnsv(it.id) : qnm_delete_qnio(it.id)};
}

qnm_api_code_t call_card(uint64_t id, const model::access& it, uint32_t* data) {
    constexpr qnm_retry_t k_once = {.er_retry_count = 0, .er_retry_interval = 1};
    const uint32_t flags = it.live_check ? QNM_FLAG_LIVECHECK : 0;
    switch (it.call) {
        case model::access_call::read:
            return qnm_read_register(id, it.argument, data, &k_once, flags);
        case model::access_call::write:
            return qnm_write_register(id, it.argument, it.data, nullptr, flags);
        case model::access_call::set_vlanid:
            return qnm_set_vlanid(id, static_cast<uint16_t>(it.argument), &k_once, flags);
        default:
            break;
    }
    return qnm_send_resetframe(id, static_cast<unsigned char>(it.argument), nullptr, flags);
}

constexpr size_t k_subtype_at = 18, k_tag_at = 23;
constexpr unsigned char k_register_read = 0x91;

}  // namespace

library::library() {
    qnm::store(g_log_level, QNM_LOGLVL_FATAL);
    fail::set_monotonic_clock(std::chrono::milliseconds(k_uptime));
    EXPECT_EQ(_qnm_cmp_init(), 0);
    EXPECT_EQ(pipe(qnm_terminate_fd_link), 0);
    for (int port = 0; port < 2; port++)
        strcpy(qnm_config.ether_port_name[port], name(port).c_str());
    for (int registration = 0; registration < steps::k_recorders_end; registration++)
        listeners_.push_back({this, registration});
    for (int port = 0; port < 2; port++) {
        fake_pcap::on_send(
            name(port), [this, port](const fake_pcap::frame_t& frame) { take_sent(port, frame); });
    }
    fail::on_sleep([this](std::chrono::nanoseconds duration) { on_sleep(duration); });
    fail::on_poll([this](auto, int) {
        on_poll();
        return std::nullopt;
    });
    // The event thread waits when it has nothing to do, and is told to end then. A read waits when
    // it has no answer, and none comes.
    fail::on(fail::call::pthread_cond_timedwait, [this](auto) {
        if (delivers_) qnm::store(qnm_root.er_fini_flag, 0U);
        return fail::outcome(ETIMEDOUT);
    });
}

library::~library() {
    for (int& fd : qnm_terminate_fd_link) {
        close(fd);
        fd = -1;
    }
    _qnm_cmp_fini();
}

void library::configure(const model::settings& set) {
    qnm_config.devinfo_check_interval = set.check_interval;
    qnm_config.devinfo_expire_time = set.expire_time;
    qnm_config.devinfo_flag_check_interval = set.flag_interval;
    qnm_config.update_evt_mask = set.update_evt_mask;
    qnm_config.id_list_upper_limit = set.id_list_upper_limit;
    qnm_config.use_port_num_linux = set.ports;
    qnm_config.ether_type = set.ether_type;
    qnm_config.broadcast_mac = set.broadcast_mac;
    qnm_config.frame_retry_count = 0;
    qnm_config.frame_retry_count_lc = 0;
}

// ---- The loops of the manager's threads ---------------------------------------------------------

void library::pass(std::chrono::nanoseconds duration) {
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(duration);
    fail::advance_wall_clock(us);
    fail::advance_monotonic_clock(us);
}

void library::on_sleep(std::chrono::nanoseconds duration) {
    pass(duration + standstill_);
    standstill_ = {};
    sleep_left_ -= duration;
    if (sleep_left_.count() <= 0) qnm::store(qnm_root.er_fini_flag, 0U);
}

// The watcher's first poll finds a notification, its second the stop.
void library::on_poll() {
    if (polls_++ == 0) {
        fake_netif::notify();
    } else {
        EXPECT_EQ(write(qnm_terminate_fd_link[1], "a", 1), 1);
    }
}

outcome library::run_keepalive(const step& it) {
    if (it.number == 0 || it.manager.fini != 1) {
        return {.result = it.manager.fini != 1 ? _qnm_interval_check() : 0};
    }
    const uint64_t ms = it.number * qnm_config.devinfo_flag_check_interval;
    sleep_left_ = std::chrono::milliseconds(ms);
    standstill_ = std::chrono::milliseconds(it.num);
    now_ += ms + it.num;
    return {.result = _qnm_interval_check()};
}

outcome library::change_link(const step& it) {
    fake_netif::set_link(name(it.port), it.number != 0);
    if (!it.notify) return {};
    polls_ = 0;
    fake_netif::fail_request(SIOCETHTOOL, it.query_fails ? EIO : 0);
    _qnm_watch_linkstate_lin();
    fake_netif::fail_request(SIOCETHTOOL, 0);
    return {};
}

std::vector<callback_call> library::deliver() {
    calls_.clear();
    delivers_ = true;
    _qnm_event_task(nullptr);
    delivers_ = false;
    set_running();
    return calls_;
}

void library::on_event(uint64_t id, qnm_evt_type_t type, void* arg) {
    const auto& [owner, registration] = *static_cast<listener*>(arg);
    owner->calls_.push_back(
        {registration, id, type, owner->dispatch(steps::reaction(registration, id))});
}

// ---- The steps ----------------------------------------------------------------------------------

outcome library::take_frame(const step& it) {
    return {.result = receive(it.frame, it.port)};
}

outcome library::take_no_frame(const step& it) {
    fake_pcap::push_result(name(it.port), static_cast<int>(it.number));
    return {.result = _qnm_recv_frame(it.port)};
}

outcome library::pass_time(const step& it) {
    now_ += it.number;
    pass(std::chrono::milliseconds(it.number));
    return {};
}

outcome library::set_clock(const step& it) {
    now_ += it.number;
    set_now(now_);
    return {};
}

outcome library::list_ids(const step& it) {
    uint64_t untouched = 0;
    uint64_t* ids = &untouched;
    outcome done = {.num = it.num};
    done.result =
        call_list(it, it.null_argument ? nullptr : &ids, it.null_num ? nullptr : &done.num);
    if (ids == &untouched) return done;
    done.pointer = ids == nullptr ? model::list::null : model::list::given;
    if (ids != nullptr) done.ids.assign(ids, ids + done.num);
    EXPECT_EQ(qnm_free_idlist(ids), QNM_API_SUCCESS);
    return done;
}

outcome library::get(const step& it) {
    return it.which == model::k_server ? copy_record(qnm_get_qnsv, it)
                                       : copy_record(qnm_get_qnio, it);
}

qnm_api_code_t library::register_for(int registration) {
    qnm_cbid_t handle = nullptr;
    const auto type = static_cast<qnm_evt_type_t>(steps::type_of(registration));
    listener& arg = listeners_[static_cast<size_t>(registration)];
    const qnm_api_code_t ret = qnm_register_callback(type, on_event, &arg, &handle);
    EXPECT_EQ(handle != nullptr, ret == QNM_API_SUCCESS);
    if (ret == QNM_API_SUCCESS) handles_[registration] = handle;
    return ret;
}

outcome library::use_callback(const step& it) {
    const int registration = static_cast<int>(it.number);
    const auto known = handles_.find(registration);
    if (known == handles_.end()) return {.result = register_for(registration)};
    const qnm_api_code_t ret = qnm_unregister_callback(known->second);
    if (ret == QNM_API_SUCCESS) handles_.erase(known);
    return {.result = ret};
}

outcome library::use_callback_wrongly(const step& it) {
    const auto type = static_cast<qnm_evt_type_t>(static_cast<int>(it.number));
    qnm_cbid_t handle = nullptr;
    const bool good_type = static_cast<uint32_t>(type) < QNM_EVT_MAX;
    const outcome done = {
        .result = qnm_register_callback(type, good_type ? nullptr : on_event, nullptr, &handle)};
    EXPECT_EQ(qnm_register_callback(type, on_event, nullptr, nullptr), done.result);
    EXPECT_EQ(qnm_unregister_callback(nullptr), done.result);
    EXPECT_EQ(handle, nullptr);
    return done;
}

// ---- Device access ------------------------------------------------------------------------------

void library::take_sent(int port, fake_pcap::frame_t frame) {
    const uint32_t path = 2 * static_cast<uint32_t>(port) + (frame[5] & 1);
    const bool is_read = frame[k_subtype_at] == k_register_read;
    if (is_read && (access_.reach >> path & 1) != 0) answer(port, frame);
    if (is_read) frame[k_tag_at] = 0;  // any that is free will do
    sent_.push_back({port, std::move(frame)});
}

// The card's answer arrives as a frame of its own before the send has returned.
void library::answer(int port, const fake_pcap::frame_t& request) {
    frames::completion it = {.tag = request[k_tag_at], .mac = 0};
    for (size_t i = 0; i < 6; i++)
        it.mac = it.mac << 8 | request[i];
    memcpy(it.data, &access_.data, sizeof it.data);
    frames::frame_t frame = frames::build_completion(it);
    frame[16] = static_cast<unsigned char>(qnm_config.ether_type >> 8);
    frame[17] = static_cast<unsigned char>(qnm_config.ether_type);
    EXPECT_EQ(receive(frame, port), 0);
}

outcome library::use_card(const step& it) {
    access_ = it.access;
    sent_.clear();
    outcome done;
    done.result = call_card(it.id, it.access, it.access.null_data ? nullptr : &done.num);
    done.sent = std::move(sent_);
    return done;
}

// ---- Stop and restart ---------------------------------------------------------------------------

void library::open_ports() {
    for (int port = 0; port < 2; port++) {
        qnm_port_info_t* const info = &qnm_root.er_port_info[port];
        _qnm_socket_close(info);
        EXPECT_EQ(_qnm_socket_open(name(port).c_str(), 0, info), 0);
    }
}

// In the manager's order. The record of the counters keeps their values from the end.
outcome library::restart() {
    _qnm_destroy_all_reg_lock_node();
    _qnm_reg_fini();
    _qnm_cmp_fini();
    _qnm_event_cb_fini();
    _qnm_blacklist_fini();
    _qnm_qn_fini();
    _qnm_stats_fini();
    handles_.clear();
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&qnm_stats);
    outcome done = {.record = {bytes, bytes + sizeof qnm_stats}};
    for (int (*const init)() : {_qnm_stats_init, _qnm_qn_init, _qnm_blacklist_init,
                                _qnm_event_cb_init, _qnm_cmp_init, _qnm_reg_init}) {
        EXPECT_EQ(init(), 0);
    }
    open_ports();
    for (int recorder = steps::k_registrations; recorder < steps::k_recorders_end; recorder++)
        EXPECT_EQ(register_for(recorder), QNM_API_SUCCESS);
    return done;
}

outcome library::dispatch(const step& it) {
    switch (it.what) {
        case what::frame:
            return take_frame(it);
        case what::no_frame:
            return take_no_frame(it);
        case what::time:
            return pass_time(it);
        case what::set_clock:
            return set_clock(it);
        case what::keepalive:
            return run_keepalive(it);
        case what::link:
            return change_link(it);
        case what::list:
            return list_ids(it);
        case what::free_list:
            return {.result = qnm_free_idlist(nullptr)};
        case what::get:
            return get(it);
        case what::forget:
            return forget(it);
        case what::stop_monitor:
            return {.result = qnm_stop_monitor(it.id)};
        case what::restart_monitor:
            return {.result = qnm_restart_monitor(it.id)};
        case what::callback:
            return use_callback(it);
        case what::wrong_callback:
            return use_callback_wrongly(it);
        case what::access:
            return use_card(it);
        case what::restart:
            return restart();
    }
    return {};
}

outcome library::apply(const step& it) {
    set_flags(it.manager.init, it.manager.start, it.manager.fini);
    alloc::fail_nth(it.failing_allocation);
    outcome done = dispatch(it);
    alloc::fail_nth(0);
    set_running();
    return done;
}
