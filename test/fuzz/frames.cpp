// frames.cpp - any sequence of frames on both ports, with time that passes, link changes, public
// calls and failed allocations between them.
//
// The library's own loops run on this one thread: the receive loop until a port has no more frames,
// the keepalive loop for one check, the link watcher for one notification, the event thread until
// its queue is empty. So an input always means the same. After every step the tables have to agree
// with their totals, and in the end with the public calls and the counters.

#include <poll.h>

#include <algorithm>
#include <array>
#include <numeric>

#include "library.h"
#include "qnm_keepalive.h"
#include "qnm_linkdown.h"

namespace {

using fuzz::reader;
using fuzz::require;
using std::chrono::milliseconds;

constexpr std::size_t k_most_steps = 400;
constexpr std::size_t k_longest_frame = 9300;  // more than a jumbo frame
constexpr std::size_t k_most_dumps = 4;        // of thousands of lines each

std::uint32_t pending_events() {
    return qnm_stats.est_evt_node_al - qnm_stats.est_evt_node_fr;
}

// Counts an event as delivered; the last one ends the event thread's loop.
void take_event(std::uint64_t id, qnm_evt_type_t type, void* delivered) {
    require(id <= 0xFFFFFFFFFFFF, "an event names a card");
    static_cast<std::uint64_t*>(delivered)[type]++;
    if (pending_events() == 1) qnm::store(qnm_root.er_fini_flag, 0U);
}

struct network : fuzz::library {
    std::uint64_t now = k_now;
    std::uint64_t delivered[QNM_EVT_MAX] = {};
    bool notified = false;
    std::size_t dumps = 0;

    explicit network(qnm_log_level_t level) : library(level) {
        for (int port = 0; port < 2; port++)
            strcpy(qnm_config.ether_port_name[port], name(port).c_str());
        for (int type = 0; type < QNM_EVT_MAX; type++) {
            qnm_cbid_t handle = nullptr;
            qnm_register_callback(static_cast<qnm_evt_type_t>(type), take_event, delivered,
                                  &handle);
        }
        fail::on_poll([this](std::span<const struct pollfd> fds, int) { return answer_poll(fds); });
        // The check that follows the sleep is the last one.
        fail::on_sleep([](auto) { qnm::store(qnm_root.er_fini_flag, 0U); });
        qnm_config.devinfo_flag_check_interval = qnm_config.devinfo_check_interval;
    }

    // A port with frames, a notification for the watcher, or the order to end.
    std::optional<fail::poll_result> answer_poll(std::span<const struct pollfd> fds) {
        const int order = fds[1].fd;
        const bool is_watcher = order == qnm_terminate_fd_link[0];
        const int port = order == qnm_terminate_fd_recv[0][0] ? 0 : 1;
        if (is_watcher ? !std::exchange(notified, true) : fake_pcap::queued(name(port)) != 0) {
            if (is_watcher) fake_netif::notify();
            return fail::poll_events({POLLIN, 0});
        }
        const int end = is_watcher ? qnm_terminate_fd_link[1] : qnm_terminate_fd_recv[port][1];
        require(write(end, "a", 1) == 1, "the loop can be ended");
        return fail::poll_events({0, POLLIN});
    }

    static bool is_stopped() { return !qnm::is_running(); }
};

// ---- Steps --------------------------------------------------------------------------------------

// One of a few cards, or any.
std::uint64_t read_id(reader& in) {
    const std::uint8_t choice = in.u8();
    return choice < 0xF0 ? 0x020000001000 | (choice & 0x1F) : in.number(6);
}

// Frames that are held back arrive with the next one.
void arrive(network& net, reader& in, const frames::frame_t& frame) {
    const std::uint8_t how = in.u8();
    const int port = how & 1;
    fake_pcap::push_frame(net.name(port), frame);
    if ((how & 0xF0) != 0xF0) _qnm_recv_lin(port);
}

void put_payload(reader& in, frames::frame_t& frame) {
    const std::size_t start = 28 + in.u8();
    const fuzz::bytes payload = in.take(in.u8());
    if (start >= frame.size()) return;
    std::copy_n(payload.begin(), std::min(payload.size(), frame.size() - start),
                frame.begin() + static_cast<std::ptrdiff_t>(start));
}

void announce(network& net, reader& in) {
    constexpr std::uint8_t subtypes[] = {0x10, 0x11, 0x18, 0x19};
    frames::announcement it;
    it.subtype = subtypes[in.below(std::size(subtypes))];
    it.mac = read_id(in);
    const std::uint8_t kind = in.u8();
    it.host = kind < 0xF8 ? kind & 1 : kind;
    it.vlan_change_mode = (kind & 2) != 0;
    it.ver = in.u8();
    it.info = in.u8();
    it.tci = static_cast<std::uint16_t>(0x8000 | (in.u16() & 0x1FFF));
    it.flow_id = in.u8();
    it.link_status = in.u8();
    for (std::uint8_t& byte : it.sw_status)
        byte = in.u8();
    const int longer = static_cast<std::int8_t>(in.u8());
    it.length =
        static_cast<std::size_t>(std::max(0, static_cast<int>(frames::least_length(it)) + longer));
    frames::frame_t frame = frames::build(it);
    put_payload(in, frame);
    arrive(net, in, frame);
}

void complete(network& net, reader& in) {
    frames::completion it = {.tag = in.u8(), .mac = read_id(in)};
    const fuzz::bytes data = in.take(sizeof it.data);
    std::copy(data.begin(), data.end(), it.data);
    it.vlan_change_mode = in.flag();
    arrive(net, in, frames::build_completion(it));
}

// Nothing is valid by itself, not even the length. A few bytes make a long frame, because they are
// repeated.
void arrive_raw(network& net, reader& in) {
    frames::frame_t frame(in.u16() % k_longest_frame);
    const fuzz::bytes pattern = in.take(in.u8());
    for (std::size_t n = 0; n < frame.size() && !pattern.empty(); n++)
        frame[n] = pattern[n % pattern.size()];
    arrive(net, in, frame);
}

// A time-out, or, for the rarer results, the end of the port and of the manager.
void fail_capture(network& net, reader& in) {
    const std::uint8_t which = in.u8();
    fake_pcap::push_result(net.name(which & 1), which < 0xF0 ? 0 : -1 - (which >> 1 & 3));
    _qnm_recv_lin(which & 1);
}

void pass_time(network& net, reader& in) {
    net.now += in.u16();
    net.set_now(net.now);
}

void set_clock(network& net, reader& in) {
    net.now = std::uint64_t{in.u32()} * 1000;
    net.set_now(net.now);
}

void check_keepalive(network&, reader&) {
    _qnm_interval_check();
    set_running();
}

void change_link(network& net, reader& in) {
    const std::uint8_t which = in.u8();
    fake_netif::set_link(net.name(which & 1), (which & 2) != 0);
    net.notified = false;
    _qnm_watch_linkstate(nullptr);
}

void deliver_events(network&, reader&) {
    if (pending_events() == 0) return;
    _qnm_event_task(nullptr);
    require(pending_events() == 0, "all events are delivered");
    set_running();
}

void stop_monitor(network&, reader& in) {
    qnm_stop_monitor(read_id(in));
}

void restart_monitor(network&, reader& in) {
    qnm_restart_monitor(read_id(in));
}

void delete_card(network&, reader& in) {
    const bool server = in.flag();
    const std::uint64_t id = read_id(in);
    if (server) {
        qnm_delete_qnsv(id);
    } else {
        qnm_delete_qnio(id);
    }
}

void query_card(network&, reader& in) {
    const std::uint64_t id = read_id(in);
    qnm_qnsv_t qnsv = {};
    qnm_qnio_t qnio = {};
    if (qnm_get_qnsv(id, &qnsv) == QNM_API_SUCCESS) {
        require(qnsv.esv_com_dev.ecd_id == id, "a record is that of its ID");
    }
    if (qnm_get_qnio(id, &qnio) == QNM_API_SUCCESS) {
        require(qnio.eio_com_dev.ecd_id == id, "a record is that of its ID");
    }
}

// Lists with a limit, by all three ways to ask for one.
void query_lists(network& net, reader& in) {
    const std::uint32_t limit = in.u8();
    const std::uint16_t group = in.u16();
    const std::uint64_t since = net.now - in.u16();
    const auto query = [&](auto call) {
        std::uint64_t* ids = nullptr;
        std::uint32_t count = limit;
        const qnm_api_code_t ret = call(&ids, &count);
        if (ret == QNM_API_SUCCESS) {
            require((ids != nullptr) == (count != 0), "there is a list where there are cards");
            require(limit == 0 || count <= limit, "no list is longer than asked for");
            require(std::is_sorted(ids, ids + count), "lists are sorted");
        } else {
            require(ids == nullptr, "a failed query makes no list");
        }
        qnm_free_idlist(ids);
    };
    query([](auto... out) { return qnm_get_qnsvids(out...); });
    query([](auto... out) { return qnm_get_qnioids(out...); });
    query([=](auto... out) { return qnm_get_group_qnsvids(group, out...); });
    query([=](auto... out) { return qnm_get_group_qnioids(group, out...); });
    query([=](auto... out) { return qnm_get_update_qnsvids(since, out...); });
    query([=](auto... out) { return qnm_get_update_qnioids(since, out...); });
}

void dump_status(network& net, reader& in) {
    if (net.dumps++ >= k_most_dumps) return;
    qnm_stdump(in.u8());
    net.logs.clear();
}

void fail_allocation(network&, reader& in) {
    alloc::fail_nth(in.u8());
}

void toggle_start(network&, reader&) {
    qnm::store(qnm_root.er_start_flag, 1 - qnm::load(qnm_root.er_start_flag));
}

using step = void (*)(network&, reader&);

// Announcements are in the list more than once, because they are most of what arrives.
constexpr step k_steps[] = {announce,     announce,        announce,        announce,
                            complete,     arrive_raw,      fail_capture,    pass_time,
                            set_clock,    check_keepalive, change_link,     deliver_events,
                            stop_monitor, restart_monitor, delete_card,     query_card,
                            query_lists,  dump_status,     fail_allocation, toggle_start};

// ---- What has to hold ---------------------------------------------------------------------------

template <typename Kind>
qnm_api_code_t get_ids(std::uint64_t** ids, std::uint32_t* count) {
    if constexpr (std::is_same_v<Kind, qnm::qnsv_kind>) return qnm_get_qnsvids(ids, count);
    return qnm_get_qnioids(ids, count);
}

struct table_view {
    std::vector<std::uint64_t> ids;
    std::array<std::uint32_t, QNM_GROUP_MAX + 1> groups = {};
};

template <typename Kind>
void check_node(const typename Kind::node& node) {
    const qnm_com_dev_t& dev = node.*Kind::card.*Kind::com_dev;
    const std::uint32_t ignore_state = node.*Kind::ignore_state;
    std::uint32_t stopped = 0;
    _qnm_get_monitor_state(dev.ecd_id, &stopped);
    require(ignore_state <= QNM_WATCH_RESTART, "the ignore state is one of three");
    require((ignore_state == QNM_IGNORE) == (stopped == 1), "stopped cards are the listed ones");
    require(dev.ecd_vlan_id <= 0xFFF, "a VLAN ID has 12 bits");
    for (const auto& port : dev.ecd_state) {
        for (const std::uint32_t state : port)
            require(state <= 1, "a path is connected or not");
    }
}

template <typename Kind>
table_view walk_table() {
    const qnm::table_guard table_lock;
    const qnm::blacklist_guard blacklist_lock;
    table_view seen;
    qnm_rbtree_t* const tree = &(qnm_qn.*Kind::tree);
    for (qnm_rbnode_t* links = _qnm_rbtree_next(tree, nullptr); links != nullptr;
         links = _qnm_rbtree_next(tree, links)) {
        const auto& node = *reinterpret_cast<typename Kind::node*>(links);
        check_node<Kind>(node);
        const qnm_com_dev_t& dev = node.*Kind::card.*Kind::com_dev;
        seen.ids.push_back(dev.ecd_id);
        seen.groups[dev.ecd_vlan_id]++;
    }
    return seen;
}

template <typename Kind>
table_view check_table() {
    table_view seen = walk_table<Kind>();
    require(std::is_sorted(seen.ids.begin(), seen.ids.end(), std::less_equal()), "IDs ascend");
    require(qnm_qn.*Kind::total == seen.ids.size(), "the total is that of the table");
    require(std::equal(seen.groups.begin(), seen.groups.end(), qnm_qn.*Kind::groups),
            "the group counts are those of the table");
    require(qnm_stats.*Kind::allocated - qnm_stats.*Kind::freed == seen.ids.size(),
            "as many records are in memory as in the table");
    return seen;
}

template <typename Kind>
void check_list() {
    const table_view seen = check_table<Kind>();
    std::uint64_t* ids = nullptr;
    std::uint32_t count = 0;
    require(get_ids<Kind>(&ids, &count) == QNM_API_SUCCESS, "IDs can be asked for");
    require(std::equal(ids, ids + count, seen.ids.begin(), seen.ids.end()),
            "the list is that of the table");
    qnm_free_idlist(ids);
}

std::uint64_t sum(const std::uint64_t* first, const std::uint64_t* last) {
    return std::accumulate(first, last, std::uint64_t{0});
}

void check_frames(const std::uint64_t (&counted)[QNM_STATS_TYPE_MAX]) {
    require(counted[QNM_STATS_R_TOTAL] ==
                sum(counted + QNM_STATS_R_DEV, counted + QNM_STATS_R_COMP + 1),
            "the frames received are those of all kinds");
    require(sum(counted + QNM_STATS_T_TOTAL, counted + QNM_STATS_TYPE_MAX) == 0, "nothing is sent");
}

void check_counters(const network& net) {
    check_frames(qnm_stats.est_stats_p0);
    check_frames(qnm_stats.est_stats_p1);
    std::uint64_t calls = 0;
    for (const auto& codes : qnm_stats.est_func_code)
        calls += sum(codes, codes + QNM_API_CODE_MAX);
    require(calls == sum(qnm_stats.est_api_code, qnm_stats.est_api_code + QNM_API_CODE_MAX),
            "calls are counted in total as one by one");
    require(std::equal(net.delivered, net.delivered + QNM_EVT_MAX, qnm_stats.est_evt),
            "every event raised is delivered");
    require(qnm_stats.est_cb_call == qnm_stats.est_cb_return, "every callback has returned");
    require(qnm_stats.est_idlist_al == qnm_stats.est_idlist_fr, "every list is freed");
    require(pending_events() == 0, "no event is left in memory");
}

void take_step(network& net, reader& in) {
    k_steps[in.below(std::size(k_steps))](net, in);
    check_table<qnm::qnsv_kind>();
    check_table<qnm::qnio_kind>();
}

void configure(reader& in) {
    const std::uint8_t choice = in.u8();
    qnm_config.update_evt_mask = (choice & 1) != 0 ? 1 : 2;
    qnm_config.use_port_num_linux = (choice & 2) != 0 ? 1 : 2;
    qnm_config.id_list_upper_limit = (choice & 4) != 0 ? 3 : 0xFFFFFFFF;
    qnm_config.devinfo_expire_time = 1000U << (choice >> 3 & 3);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    reader in({data, size});
    // Few inputs ask for all lines, because those cost most of the time.
    network net(in.u8() < 0xE0 ? QNM_LOGLVL_WARN : QNM_LOGLVL_TRACE);
    configure(in);
    for (std::size_t n = 0; n < k_most_steps && !in.is_empty() && !net.is_stopped(); n++)
        take_step(net, in);
    alloc::all_used();
    qnm::store(internal_err, 0);
    set_flags(0, 0, 1);
    qnm_config.id_list_upper_limit = 0xFFFFFFFF;
    reader nothing({});
    deliver_events(net, nothing);
    check_list<qnm::qnsv_kind>();
    check_list<qnm::qnio_kind>();
    check_counters(net);
    return 0;
}
