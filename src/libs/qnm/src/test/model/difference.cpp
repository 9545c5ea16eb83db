// difference.cpp - see difference.h.

#include "difference.h"

#include <cstddef>
#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <vector>

#include "qnm_blacklist.h"
#include "qnm_counters.h"
#include "qnm_qn_info.h"
#include "qnm_root.h"
#include "steps.h"

namespace {

using model::kind;

// ---- Counters -----------------------------------------------------------------------------------

struct counter_row {
    const char* name;
    size_t offset;
    size_t width;
    size_t count;
};

// A counter, or an array of them.
#define COUNTERS(field, count) \
    { #field, offsetof(qnm_sd_stats_t, field), sizeof(qnm_sd_stats_t::field) / count, count }

constexpr counter_row k_counters[] = {
    COUNTERS(est_stats_p0, QNM_STATS_TYPE_MAX),
    COUNTERS(est_stats_p1, QNM_STATS_TYPE_MAX),
    COUNTERS(est_api_code, QNM_API_CODE_MAX),
    COUNTERS(est_func_code, (int{QNM_STATS_FUNC_MAX} * int{QNM_API_CODE_MAX})),
    COUNTERS(est_evt, QNM_EVT_MAX),
    COUNTERS(est_alloc_err, 1),
    COUNTERS(est_sv_node_al, 1),
    COUNTERS(est_sv_node_fr, 1),
    COUNTERS(est_io_node_al, 1),
    COUNTERS(est_io_node_fr, 1),
    COUNTERS(est_bl_node_al, 1),
    COUNTERS(est_bl_node_fr, 1),
    COUNTERS(est_evt_node_al, 1),
    COUNTERS(est_evt_node_fr, 1),
    COUNTERS(est_wreg_node_al, 1),
    COUNTERS(est_wreg_node_fr, 1),
    COUNTERS(est_idlist_al, 1),
    COUNTERS(est_idlist_fr, 1),
    COUNTERS(est_cbinfo_al, 1),
    COUNTERS(est_cbinfo_fr, 1),
    COUNTERS(est_addrs_al, 1),
    COUNTERS(est_addrs_fr, 1),
    COUNTERS(est_cb_call, 1),
    COUNTERS(est_cb_return, 1),
    COUNTERS(est_port0_down_total, 1),
    COUNTERS(est_port1_down_total, 1),
};

constexpr size_t counters_size() {
    size_t size = 0;
    for (const counter_row& row : k_counters)
        size += row.width * row.count;
    return size;
}

// The table names every counter: only the padding at the end is left.
static_assert((counters_size() + 7) / 8 * 8 == sizeof(qnm_sd_stats_t));

uint64_t value_of(const qnm_sd_stats_t& counters, const counter_row& row, size_t i) {
    uint64_t value = 0;
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&counters);
    memcpy(&value, bytes + row.offset + i * row.width, row.width);
    return value;
}

std::string counter_difference(const qnm_sd_stats_t& expected) {
    if (memcmp(&qnm_stats, &expected, counters_size()) == 0) return "";
    std::ostringstream out;
    for (const counter_row& row : k_counters) {
        for (size_t i = 0; i < row.count; i++) {
            const uint64_t is = value_of(qnm_stats, row, i);
            const uint64_t wanted = value_of(expected, row, i);
            if (is != wanted) {
                out << row.name << "[" << i << "] is " << is << ", not " << wanted << "\n";
            }
        }
    }
    return out.str();
}

// ---- Cards --------------------------------------------------------------------------------------

const void* own_record(const model::card& it, const qnm::qnsv_kind&) {
    return &it.server;
}

const void* own_record(const model::card& it, const qnm::qnio_kind&) {
    return &it.io;
}

// The bytes of two records that differ.
std::string byte_differences(const void* a, const void* b, size_t size) {
    if (memcmp(a, b, size) == 0) return "";
    const auto* const is = static_cast<const unsigned char*>(a);
    const auto* const wanted = static_cast<const unsigned char*>(b);
    std::ostringstream out;
    for (size_t at = 0; at < size; at++) {
        if (is[at] == wanted[at]) continue;
        out << " byte " << at << " is " << unsigned{is[at]} << ", not " << unsigned{wanted[at]}
            << ";";
    }
    return out.str();
}

std::string word_difference(const char* name, uint32_t is, uint32_t wanted) {
    if (is == wanted) return "";
    return std::string(" ") + name + " is " + std::to_string(is) + ", not " +
           std::to_string(wanted) + ";";
}

template <typename Kind>
std::string card_difference(const typename Kind::node& node, uint64_t id, const model::card& it) {
    const std::string text =
        byte_differences(&(node.*Kind::card), own_record(it, Kind{}),
                         sizeof(typename Kind::record)) +
        byte_differences(&(node.*Kind::heard), it.heard, sizeof it.heard) +
        word_difference("ignore state", node.*Kind::ignore_state, it.ignore_state) +
        word_difference("check count", node.*Kind::check_count, it.check_count);
    if (text.empty()) return "";
    std::ostringstream out;
    out << Kind::name << " 0x" << std::hex << id << ":" << text << "\n";
    return out.str();
}

// The map's cards in their order against those of the model in theirs.
template <typename Kind>
std::string cards_difference(const std::map<uint64_t, model::card>& expected) {
    std::string text;
    qnm_rbtree_t* const tree = &(qnm_qn.*Kind::tree);
    qnm_rbnode_t* links = _qnm_rbtree_next(tree, nullptr);
    for (const auto& [id, it] : expected) {
        const auto* const node = reinterpret_cast<const typename Kind::node*>(links);
        if (node == nullptr || (node->*Kind::card.*Kind::com_dev).ecd_id != id) {
            return text + Kind::name + " cards are others, or in another order\n";
        }
        text += card_difference<Kind>(*node, id, it);
        links = _qnm_rbtree_next(tree, links);
    }
    return links == nullptr ? text : text + Kind::name + " cards are more\n";
}

// The totals equal what the model's table holds.
template <typename Kind>
std::string totals_difference(kind which, const std::map<uint64_t, model::card>& expected) {
    uint32_t groups[QNM_GROUP_MAX + 1] = {};
    for (const auto& [id, it] : expected)
        groups[dev_of(which, it).ecd_vlan_id]++;
    std::string text;
    if (qnm_qn.*Kind::total != expected.size()) {
        text = std::string(Kind::name) + " total is " + std::to_string(qnm_qn.*Kind::total) + "\n";
    }
    if (memcmp(qnm_qn.*Kind::groups, groups, sizeof groups) == 0) return text;
    return text + Kind::name + " group counts are others\n";
}

template <typename Kind>
std::string table_difference(kind which, const model::state& expected) {
    return cards_difference<Kind>(expected.tables[which]) +
           totals_difference<Kind>(which, expected.tables[which]);
}

// ---- The rest -----------------------------------------------------------------------------------

// Its size follows from the counters.
std::string blacklist_difference(const std::set<uint64_t>& expected) {
    const qnm::blacklist_guard lock;
    std::ostringstream out;
    std::vector<uint64_t> ids = steps::known_ids();
    ids.insert(ids.end(), expected.begin(), expected.end());
    for (const uint64_t id : ids) {
        uint32_t listed = 2;  // neither answer
        _qnm_get_monitor_state(id, &listed);
        if (listed != (expected.contains(id) ? 1U : 0U)) {
            out << "monitor state of 0x" << std::hex << id << " is " << listed << "\n";
        }
    }
    return out.str();
}

std::string link_difference(const model::state& expected) {
    std::string text;
    for (int port = 0; port < 2; port++) {
        const uint32_t seen = qnm::load(qnm_root.er_port_info[port].epi_link_state);
        if (seen != (expected.link_seen[port] ? 1U : 0U)) {
            text +=
                "link state of port " + std::to_string(port) + " is " + std::to_string(seen) + "\n";
        }
    }
    return text;
}

}  // namespace

std::string difference(const model::state& expected) {
    const qnm::table_guard lock;
    return table_difference<qnm::qnsv_kind>(model::k_server, expected) +
           table_difference<qnm::qnio_kind>(model::k_io, expected) +
           counter_difference(expected.counters) + blacklist_difference(expected.blacklist) +
           link_difference(expected);
}
