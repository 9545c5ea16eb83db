// model.h - what the library has to do with frames, time, links and calls, written as plainly as
// possible.
//
// One thread, ordinary maps and sets, no locks, nothing shared with the library but the public
// records and the record of the counters. It prefers plain code to fast code, and has offsets of
// its own into frames, so that a mistake in the library's structures shows.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <vector>

#include "frames.h"
#include "qnm.h"
#include "qnm_counters.h"

namespace model {

using frames::frame_t;

// The two kinds of card; also the index of their tables.
enum kind { k_server, k_io };
constexpr kind k_kinds[] = {k_server, k_io};

constexpr uint32_t k_watch = 0, k_ignore = 1, k_restart = 2;

struct settings {
    uint32_t check_interval;  // ms
    uint32_t expire_time;     // ms
    uint32_t flag_interval;   // ms
    uint32_t update_evt_mask;
    uint32_t id_list_upper_limit;
    uint32_t ports;
    uint16_t ether_type;
    uint64_t broadcast_mac;
    uint64_t port_mac[2];
};

// The record of the card's kind is filled, the other one stays zero.
struct card {
    qnm_qnsv_t server = {};
    qnm_qnio_t io = {};
    uint32_t ignore_state = k_watch;
    uint32_t check_count = 0;
    uint64_t heard[2][2] = {};  // per port and path, in uptime
};

struct event {
    qnm_evt_type_t type;
    uint64_t id;
};

// The three flags of the manager, active low.
struct flags {
    uint32_t init = 0;
    uint32_t start = 0;
    uint32_t fini = 1;
};

struct state {
    settings set;
    uint64_t now;     // ms of the wall clock
    uint64_t uptime;  // ms that have passed, whatever the wall clock was set to
    flags manager;
    std::map<uint64_t, card> tables[2];  // by kind
    std::set<uint64_t> blacklist;
    std::set<uint64_t> write_locks;
    std::deque<event> queue;
    std::vector<int> callbacks[QNM_EVT_MAX];  // numbers of registrations, in order
    bool link_up[2] = {true, true};           // as the interfaces have it
    bool link_seen[2] = {true, true};         // as the watcher has read it
    uint64_t failing_allocation = 0;          // the n-th from now fails; 0: none
    qnm_sd_stats_t counters = {};
};

// What an ID-list call has done to the caller's pointer.
enum class list { untouched, null, given };

// A frame that was sent by a port; its tag is 0.
struct sent_frame {
    int port;
    frame_t frame;
    bool operator==(const sent_frame&) const = default;
};

// Everything that a step returns.
struct outcome {
    int result = 0;
    list pointer = list::untouched;
    uint32_t num = 0;
    std::vector<uint64_t> ids = {};
    std::vector<unsigned char> record = {};
    std::vector<sent_frame> sent = {};
    bool operator==(const outcome&) const = default;
};

const qnm_com_dev_t& dev_of(kind which, const card& it);

// ---- What happens to the library ----------------------------------------------------------------

// A frame arrives; card table, counters and events follow. Returns the result of handling it.
int receive(state& s, int port, const frame_t& frame);

// The keepalive loop sleeps this often, then a stop is requested. After the first sleep the process
// stands still for this long.
void run_keepalive(state& s, uint32_t sleeps, uint64_t standstill);

// The link watcher gets one notification. A port whose query fails is skipped.
void notify_link(state& s, bool query_fails);

// The event thread empties the queue. react(number, event) is called for each registration.
template <typename React>
void deliver(state& s, React react) {
    if (s.manager.fini != 1) return;
    for (; !s.queue.empty(); s.counters.est_evt_node_fr++) {
        const event next = s.queue.front();
        s.queue.pop_front();
        for (const int number : s.callbacks[next.type]) {
            s.counters.est_cb_call++;
            react(number, next);
            s.counters.est_cb_return++;
        }
    }
}

// ---- Public calls -------------------------------------------------------------------------------

// Which cards an ID-list call wants.
enum class wanted { all, updated, group };

struct list_request {
    kind which;
    wanted cards;
    uint64_t value;  // time or group ID
    uint32_t num;    // as passed in
    bool null_list;  // null pointers are passed
    bool null_num;
};

outcome list_ids(state& s, const list_request& request);
outcome free_list(state& s, bool null_list);
outcome get(state& s, kind which, uint64_t id, bool null_record);
outcome forget(state& s, kind which, uint64_t id);
outcome stop_monitor(state& s, uint64_t id);
outcome restart_monitor(state& s, uint64_t id);

enum class access_call { read, write, set_vlanid, reset };

// A call for a card that answers a Register Read by the paths in reach: bit 2 * port + path. No
// call repeats a frame or waits for an announcement.
struct access {
    access_call call = access_call::read;
    uint32_t argument = 0;  // address, VLAN ID or status
    uint32_t data = 0;      // answered or written
    bool live_check = false;
    bool null_data = false;
    uint32_t reach = 0;
};

outcome use_card(state& s, uint64_t id, const access& request);

outcome register_callback(state& s, int type, int number, bool null_argument);
outcome unregister_callback(state& s, int type, int number);  // number -1: a null handle

// ---- Stop and restart ---------------------------------------------------------------------------

// All units end: everything is freed, and the counters say so.
void finish(state& s);

// They start again and have read the links.
void begin(state& s);

}  // namespace model
