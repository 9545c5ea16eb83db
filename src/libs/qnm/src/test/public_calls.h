// public_calls.h - every exported function, ready to be called: a running manager with a card of
// each kind that answers, and a table by name.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "answering_card.h"
#include "failing.h"
#include "frames.h"

struct public_calls : failing {
    static constexpr uint64_t k_server = 0x020000001000, k_io = 0x020000002000;
    static constexpr uint16_t k_group = 10, k_new_group = 100;

    answering_card server{k_server};
    std::map<uint32_t, uint32_t> memory;  // of its EEPROM, by address
    uint64_t* ids = nullptr;
    qnm_cbid_t registration = nullptr;

    public_calls() {
        server.on_write(k_control, [this](uint32_t command) { obey(command); });
        // A new VLAN ID is announced at once, and known when the send has returned.
        fake_pcap::on_send("port0", [this](const fake_pcap::frame_t& frame) {
            if (frame[18] == 0x80) deliver(server_frame(k_new_group));
        });
    }

    // ---- The cards ----

    static constexpr uint32_t k_control = 0x5010, k_address = 0x5014, k_read_data = 0x5018,
                              k_write_data = 0x501C, k_bit_lock = 0x50F0;

    void obey(uint32_t command) {
        uint32_t& word = memory[server.get(k_address)];
        if (command == 0x80000001) server.set(k_read_data, word);
        if (command == 0x80000003) word = server.get(k_write_data);
        server.set(k_control, command == 0 ? 0x40000000 : 0x10000000);
    }

    static frames::frame_t server_frame(uint16_t group) {
        return frames::build({.mac = k_server, .tci = static_cast<uint16_t>(0x8000 | group)});
    }

    static frames::frame_t io_frame() {
        return frames::build({.mac = k_io, .host = 1, .sw_status = {0, 1, 0}});
    }

    // Takes a frame in, and waits until that is done; a manager that ends may leave it.
    void deliver(const frames::frame_t& frame, int port = 0) {
        const std::string taken =
            "_qnm_recv_frame: end. port_num=" + std::to_string(port) + ", ret=0";
        const size_t before = logs.count(k_trace, taken);
        fake_pcap::push_frame(ports::name(port), frame);
        EXPECT_TRUE(
            wait_until([&] { return logs.count(k_trace, taken) > before || !qnm::is_running(); }));
    }

    // Both cards known and as they were.
    void prepare() {
        deliver(server_frame(k_group));
        deliver(io_frame());
        server.set(k_control, 0x40000000);
        server.set(k_bit_lock, 0);
        server.set(k_plain, 0);
    }

    // ---- For the table ----

    static constexpr uint32_t k_plain = 0x10;  // an ordinary register
    static constexpr qnm_retry_t k_retry = {.er_retry_count = 1, .er_retry_interval = 50};

    template <typename List>
    qnm_api_code_t list(List call) {
        uint32_t num = 0;
        ids = nullptr;
        const qnm_api_code_t ret = call(&ids, &num);
        EXPECT_EQ(ids != nullptr, ret == QNM_API_SUCCESS);
        qnm_free_idlist(ids);
        return ret;
    }

    static void ignore_event(uint64_t, qnm_evt_type_t, void*) {}

    qnm_api_code_t add_callback() {
        return qnm_register_callback(QNM_EVT_NEWDEVINFO, ignore_event, nullptr, &registration);
    }

    qnm_api_code_t make_list() {
        uint32_t num = 0;
        return qnm_get_qnsvids(&ids, &num);
    }
};

// An exported function, called so that it succeeds. What it needs is made by before.
struct public_call {
    using act = qnm_api_code_t (*)(public_calls& at);
    const char* name;
    act run;
    act before = nullptr;
};

inline qnm_api_code_t no_result(public_calls&) {
    return QNM_API_SUCCESS;
}

#define LOG_CALL(name)                   \
    {                                    \
#name, [](public_calls& at) {          \
            name("%s %d", "text", 1);          \
            return no_result(at);              \
        } \
    }
#define COMPARE_CALL(name)               \
    {                                    \
#name, [](public_calls& at) {          \
            EXPECT_EQ(name(&at, &at), 0);      \
            return no_result(at);              \
        } \
    }
#define LIST_CALL(name, ...)                                                           \
    {                                                                                  \
#name, [](public_calls& at) {                                                        \
            return at.list([](uint64_t** ids, uint32_t* num) { return name(__VA_ARGS__); }); \
        } \
    }

inline const public_call k_public_calls[] = {
    LIST_CALL(qnm_get_qnsvids, ids, num),
    LIST_CALL(qnm_get_qnioids, ids, num),
    LIST_CALL(qnm_get_update_qnsvids, 0, ids, num),
    LIST_CALL(qnm_get_update_qnioids, 0, ids, num),
    LIST_CALL(qnm_get_group_qnsvids, public_calls::k_group, ids, num),
    LIST_CALL(qnm_get_group_qnioids, public_calls::k_group, ids, num),
    {"qnm_free_idlist", [](public_calls& at) { return qnm_free_idlist(at.ids); },
     [](public_calls& at) { return at.make_list(); }},
    {"qnm_get_qnsv",
     [](public_calls& at) {
         qnm_qnsv_t card;
         return qnm_get_qnsv(at.k_server, &card);
     }},
    {"qnm_get_qnio",
     [](public_calls& at) {
         qnm_qnio_t card;
         return qnm_get_qnio(at.k_io, &card);
     }},
    {"qnm_delete_qnsv", [](public_calls& at) { return qnm_delete_qnsv(at.k_server); }},
    {"qnm_delete_qnio", [](public_calls& at) { return qnm_delete_qnio(at.k_io); }},
    {"qnm_stop_monitor", [](public_calls& at) { return qnm_stop_monitor(at.k_server); },
     [](public_calls& at) { return qnm_restart_monitor(at.k_server); }},
    {"qnm_restart_monitor", [](public_calls& at) { return qnm_restart_monitor(at.k_server); },
     [](public_calls& at) { return qnm_stop_monitor(at.k_server); }},
    {"qnm_register_callback", [](public_calls& at) { return at.add_callback(); }},
    {"qnm_unregister_callback",
     [](public_calls& at) { return qnm_unregister_callback(at.registration); },
     [](public_calls& at) { return at.add_callback(); }},
    {"qnm_read_register",
     [](public_calls& at) {
         uint32_t data = 0;
         return qnm_read_register(at.k_server, at.k_plain, &data, &at.k_retry, 0);
     }},
    {"qnm_write_register",
     [](public_calls& at) {
         return qnm_write_register(at.k_server, at.k_plain, 5, &at.k_retry, QNM_FLAG_VERIFY);
     }},
    {"qnm_modify_register",
     [](public_calls& at) {
         return qnm_modify_register(at.k_server, at.k_plain, 3, 3, &at.k_retry, QNM_FLAG_VERIFY);
     }},
    {"qnm_dump_register",
     [](public_calls& at) {
         uint32_t data[3];
         size_t len = sizeof data;
         return qnm_dump_register(at.k_server, 0, sizeof data, data, &len, &at.k_retry, 0);
     }},
    {"qnm_read_eeprom",
     [](public_calls& at) {
         uint32_t data = 0;
         return qnm_read_eeprom(at.k_server, 8, &data, &at.k_retry, 0);
     }},
    {"qnm_write_eeprom",
     [](public_calls& at) {
         return qnm_write_eeprom(at.k_server, 8, 5, &at.k_retry, QNM_FLAG_VERIFY);
     }},
    {"qnm_dump_eeprom",
     [](public_calls& at) {
         uint32_t data = 0;
         size_t len = sizeof data;
         return qnm_dump_eeprom(at.k_server, 8, 12, &data, &len, &at.k_retry, 0);
     }},
    {"qnm_unlock_eeprom", [](public_calls& at) { return qnm_unlock_eeprom(at.k_server); },
     [](public_calls& at) {
         at.server.set(at.k_bit_lock, 8);  // by another party
         return QNM_API_SUCCESS;
     }},
    {"qnm_set_vlanid",
     [](public_calls& at) {
         return qnm_set_vlanid(at.k_server, at.k_new_group, nullptr, QNM_FLAG_VERIFY);
     }},
    {"qnm_send_resetframe",
     [](public_calls& at) { return qnm_send_resetframe(at.k_server, 1, nullptr, 0); }},
    {"qnm_write_mmspage",
     [](public_calls& at) {
         uint32_t page[32] = {};
         return qnm_write_mmspage(at.k_io, 0, page, 0);
     }},
    {"qnm_set_loglevel", [](public_calls&) { return qnm_set_loglevel(QNM_LOGLVL_TRACE); }},
    {"qnm_stdump", [](public_calls&) { return qnm_stdump(1); }},
    {"qnm_start_manager", [](public_calls&) { return qnm_start_manager(); }},
    {"qnm_err2retcode", [](public_calls&) { return qnm_err2retcode(0); }},
    {"qnm_log_init", [](public_calls& at) { return qnm_log_init(at.dir.path().c_str()); }},
    COMPARE_CALL(qnm_rbtree_int32_compare),
    COMPARE_CALL(qnm_rbtree_uint32_compare),
    COMPARE_CALL(qnm_rbtree_int64_compare),
    COMPARE_CALL(qnm_rbtree_uint64_compare),
    LOG_CALL(qnm_log_fatal),
    LOG_CALL(qnm_log_error),
    LOG_CALL(qnm_log_warn),
    LOG_CALL(qnm_log_info),
    LOG_CALL(qnm_log_debug),
    LOG_CALL(qnm_log_trace),
    LOG_CALL(qnm_syslog_fatal),
    LOG_CALL(qnm_syslog_error),
    LOG_CALL(qnm_syslog_warn),
    LOG_CALL(qnm_syslog_info),
    LOG_CALL(qnm_syslog_debug),
    LOG_CALL(qnm_syslog_trace),
    LOG_CALL(qnm_statslog),
};

#undef LOG_CALL
#undef COMPARE_CALL
#undef LIST_CALL

inline const public_call& public_call_of(const std::string& name) {
    for (const public_call& row : k_public_calls) {
        if (name == row.name) return row;
    }
    throw std::logic_error("no public call " + name);
}

// The cards and what the call needs besides.
inline void prepare_for(public_calls& at, const public_call& row) {
    at.prepare();
    EXPECT_TRUE(row.before == nullptr || row.before(at) == QNM_API_SUCCESS);
}

// One way of failing, under one call, from the first occurrence to the last.
inline void sweep_call(public_calls& at, const public_call& row, const failure& how,
                       const consequences& expected) {
    SCOPED_TRACE(row.name);
    at.sweep(
        how, [&] { prepare_for(at, row); }, [&] { return row.run(at); }, expected);
}
