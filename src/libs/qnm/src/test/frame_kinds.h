// frame_kinds.h - announcements of every kind, by a card that is not known yet, and by one that is.
#pragma once

#include <string>
#include <vector>

#include "frames.h"
#include "public_calls.h"
#include "qnm.h"

// An announcement of one kind: what of it tells the kinds apart, and what the log calls them.
struct frame_kind {
    frames::announcement announcement;
    std::string kind;

    bool is_server() const { return announcement.host == 0; }
};

constexpr uint64_t k_new = 0x020000003000;
constexpr char k_new_text[] = "id=0x020000003000";

// Every subtype, card, card version and arrangement of the header.
inline std::vector<frame_kind> all_kinds() {
    std::vector<frame_kind> kinds;
    for (const uint8_t subtype : {0x10, 0x11, 0x18, 0x19}) {
        for (const uint8_t ver : {0, 1}) {
            if (subtype < 0x18 && ver != 0) continue;
            for (const bool vlan_change_mode : {false, true}) {
                frames::announcement it = {
                    .subtype = subtype, .mac = k_new, .ver = ver, .sw_status = {0, 0, 1}};
                it.vlan_change_mode = vlan_change_mode;
                kinds.push_back({it, "qnsv"});
                it.host = 1;
                kinds.push_back({it, "qnio"});
                it.sw_status[1] = 1;
                kinds.push_back({it, "qnio"});
            }
        }
    }
    return kinds;
}

inline std::string text_of(const frame_kind& it) {
    const frames::announcement& frame = it.announcement;
    return it.kind + " subtype " + std::to_string(frame.subtype) + " ver " +
           std::to_string(frame.ver) + " version " + std::to_string(frame.sw_status[1]) + " mode " +
           std::to_string(frame.vlan_change_mode);
}

// Whether the new card is known.
inline qnm_api_code_t look_up(const frame_kind& it) {
    qnm_qnsv_t server;
    qnm_qnio_t io;
    return it.is_server() ? qnm_get_qnsv(k_new, &server) : qnm_get_qnio(k_new, &io);
}

// What the tables say of its monitoring.
inline uint32_t ignore_state_of(const frame_kind& it) {
    const qnm::table_guard lock;
    uint32_t state = QNM_IGNORE;
    if (it.is_server()) {
        _qnm_get_qnsv(k_new, nullptr, &state, nullptr, QNM_VALID_IGNORE_STATE);
    } else {
        _qnm_get_qnio(k_new, nullptr, &state, nullptr, QNM_VALID_IGNORE_STATE);
    }
    return state;
}

// Comes back when the event thread has been woken for the frame, which may fail.
inline void deliver_and_wake(public_calls& at, const frames::frame_t& frame, int port = 0) {
    const auto woken = [] { return fail::count(fail::call::pthread_cond_signal); };
    const auto before = woken();
    at.deliver(frame, port);
    EXPECT_TRUE(wait_until([&] { return woken() > before; }));
}

// The card known again as from its first announcement.
inline void learn_anew(public_calls& at, const frame_kind& it) {
    qnm_delete_qnsv(k_new);
    qnm_delete_qnio(k_new);
    deliver_and_wake(at, frames::build(it.announcement));
}

// The same, and its monitoring stopped and restarted: the next frame begins its record afresh.
inline void learn_and_restart(public_calls& at, const frame_kind& it) {
    learn_anew(at, it);
    EXPECT_EQ(qnm_stop_monitor(k_new), QNM_API_SUCCESS);
    EXPECT_EQ(qnm_restart_monitor(k_new), QNM_API_SUCCESS);
    EXPECT_EQ(ignore_state_of(it), QNM_WATCH_RESTART);
}

// The same card with everything changed that raises an event, by its other port.
inline frames::frame_t changed(const frame_kind& it) {
    frames::announcement next = it.announcement;
    next.info = 0x03;
    next.sw_status[2] = 0x03;
    frames::frame_t frame = frames::build(next);
    frame[it.is_server() ? frames::down_port(0) + 1 : 29] |= 0x02;
    return frame;
}

inline qnm_api_code_t announce_change(public_calls& at, const frame_kind& it) {
    at.deliver(changed(it), 1);
    return look_up(it);
}
