// qnm_frame_check.cpp - the checks of a received frame, and the words for those that fail.

#include "qnm_frame_check.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "qnm_frame.h"

namespace {

using bytes = qnm_frame_bytes_t;
using verdict = qnm_frame_verdict_t;

constexpr size_t k_subtype_at = offsetof(qnw_devinfo_com_s, com.subtype);
constexpr size_t k_ver_at = offsetof(qnw_devinfo_com_s, com.ver);
constexpr size_t k_host_at = offsetof(qnw_devinfo_com_s, com.host);
constexpr size_t k_version_at = offsetof(qnw_devinfo_com_s, com.sw_status) + 1;

constexpr qnm_header_layout_t k_ordinary = {0, offsetof(quillnet_header_s, type),
                                            offsetof(quillnet_header_s, tpid),
                                            offsetof(quillnet_header_s, tci)};
constexpr qnm_header_layout_t k_change_mode = {1, offsetof(vm_ether_header_s, type),
                                               offsetof(vm_ether_header_s, tpid),
                                               offsetof(vm_ether_header_s, tci)};

constexpr qnm_frame_kind_t k_kinds[] = {
    {qnm::k_devinfo, "1G/10G DEVINFO", sizeof(qnw_devinfo_server_s), true},
    {qnm::k_notify, "1G/10G NOTIFY", sizeof(qnw_devinfo_server_s), true},
    {qnm::k_devinfo_40g, "40G DEVINFO", sizeof(qnw_devinfo_server_40g_s), false},
    {qnm::k_notify_40g, "40G NOTIFY", sizeof(qnw_devinfo_server_40g_s), false},
    {qnm::k_completion, "Completion", 0, false},
};

const qnm_frame_kind_t* find_kind(uint8_t subtype) {
    const auto* const row = std::ranges::find(k_kinds, subtype, &qnm_frame_kind_t::subtype);
    return row != std::end(k_kinds) ? row : nullptr;
}

// ---- Checks: each is false when the frame is dropped for it
// -----------------------------------------

bool drop(verdict& found, qnm_frame_reason_t reason, unsigned value) {
    found.reason = reason;
    found.value = value;
    return false;
}

bool has_byte(const bytes& frame, size_t at) {
    return at < frame.captured;
}

bool has_word(const bytes& frame, size_t at) {
    return at + 1 < frame.captured;
}

uint16_t word(const bytes& frame, size_t at) {
    return static_cast<uint16_t>(frame.data[at] << 8 | frame.data[at + 1]);
}

bool check_length(const bytes& frame, verdict& found) {
    if (frame.length >= qnm::k_min_recv_size) return true;
    return drop(found, QNM_FRAME_TOO_SHORT, 0);
}

bool check_priority(const bytes& frame, verdict& found) {
    const size_t at = found.layout->tci;
    if (!has_byte(frame, at)) return true;
    const uint8_t high = frame.data[at];
    if ((high & qnm::k_priority_mask) == qnm::k_priority) return true;
    return drop(found, QNM_FRAME_PRIORITY, high);
}

bool check_ether_type(const bytes& frame, uint16_t ether_type, verdict& found) {
    const size_t at = found.layout->type;
    if (!has_word(frame, at) || word(frame, at) == ether_type) return true;
    return drop(found, QNM_FRAME_ETHER_TYPE, word(frame, at));
}

bool check_tpid(const bytes& frame, verdict& found) {
    const size_t at = found.layout->tpid;
    if (!has_word(frame, at) || word(frame, at) == qnm::k_vlan_tpid) return true;
    return drop(found, QNM_FRAME_TPID, word(frame, at));
}

bool check_header(const bytes& frame, uint16_t ether_type, verdict& found) {
    if (found.layout->vlan_mode == 0) {
        return check_priority(frame, found) && check_ether_type(frame, ether_type, found);
    }
    return check_ether_type(frame, ether_type, found) && check_tpid(frame, found) &&
           check_priority(frame, found);
}

bool check_subtype(const bytes& frame, verdict& found) {
    if (!has_byte(frame, k_subtype_at)) return true;
    found.kind = find_kind(frame.data[k_subtype_at]);
    return found.kind != nullptr || drop(found, QNM_FRAME_SUBTYPE, frame.data[k_subtype_at]);
}

// The minimum length of an announcement. An unknown kind of card is dropped later.
size_t needed_size(const bytes& frame, const qnm_frame_kind_t& kind) {
    if (!has_byte(frame, k_host_at)) return qnm::k_min_recv_size;
    const uint8_t host = frame.data[k_host_at];
    if (host == qnm::k_host_qnsv) return kind.server_size;
    if (host != qnm::k_host_qnio || !has_byte(frame, k_version_at)) return qnm::k_min_recv_size;
    return (frame.data[k_version_at] & qnm::k_version_mask) == qnm::k_version_mr
               ? sizeof(qnw_devinfo_mrio_s)
               : sizeof(qnw_devinfo_io_s);
}

bool check_size(const bytes& frame, verdict& found) {
    if (found.kind->server_size == 0) return true;
    found.needed = needed_size(frame, *found.kind);
    return frame.length >= found.needed || drop(found, QNM_FRAME_SIZE, found.kind->subtype);
}

bool check_ver(const bytes& frame, verdict& found) {
    if (!found.kind->only_version_0 || !has_byte(frame, k_ver_at)) return true;
    return frame.data[k_ver_at] == 0 || drop(found, QNM_FRAME_VER, frame.data[k_ver_at]);
}

// ---- Texts --------------------------------------------------------------------------------------

// The end of a text that fits both arrangements of the header.
const char* arrangement(const verdict& found) {
    return found.layout->vlan_mode == 0 ? "" : "(VlanTag change mode)";
}

// Log readers know the spelling "Unknwon".
constexpr qnm_frame_reason_row_t k_reasons[] = {
    {QNM_FRAME_TOO_SHORT, "too_short", "The frame is too short",
     [](const verdict& found, char* text, size_t size) {
         snprintf(text, size, "Recv size is too short. len=%zu", found.length);
     }},
    {QNM_FRAME_PRIORITY, "priority", "The priority is not 4",
     [](const verdict& found, char* text, size_t size) {
         snprintf(text, size, "priority is not 100(bit).%s pri=0x%.2X", arrangement(found),
                  found.value);
     }},
    {QNM_FRAME_ETHER_TYPE, "ether_type", "The Ethernet type is another",
     [](const verdict& found, char* text, size_t size) {
         snprintf(text, size, "Ether type is mismatch.%s type=0x%.4X", arrangement(found),
                  found.value);
     }},
    {QNM_FRAME_TPID, "tpid", "There is no VLAN tag",
     [](const verdict& found, char* text, size_t size) {
         snprintf(text, size, "TPID type is mismatch.%s tpid=0x%.4X", arrangement(found),
                  found.value);
     }},
    {QNM_FRAME_SUBTYPE, "subtype", "Managers do not know the subtype",
     [](const verdict& found, char* text, size_t size) {
         snprintf(text, size, "Subtype is mismatch. subtype=0x%.2X", found.value);
     }},
    {QNM_FRAME_SIZE, "size", "The announcement is cut short",
     [](const verdict& found, char* text, size_t size) {
         snprintf(text, size,
                  "Recv size is not enough. subtype=0x%.2X, recv_size=%zu, msg_size=%zu",
                  found.value, found.length, found.needed);
     }},
    {QNM_FRAME_VER, "ver", "The card announces itself by 40G frames as well",
     [](const verdict& found, char* text, size_t size) {
         snprintf(text, size, "Drop %s to send from (ver=%u) QN card.", found.kind->label,
                  found.value);
     }},
    {QNM_FRAME_HOST, "host", "The kind of card is unknown",
     [](const verdict& found, char* text, size_t size) {
         snprintf(text, size, "Unknwon PEB. host=0x%.2X", found.value);
     }},
};

}  // namespace

extern "C" {

qnm_frame_verdict_t _qnm_check_frame(const qnm_frame_bytes_t* frame, uint16_t ether_type) {
    const bool ordinary =
        has_word(*frame, k_ordinary.tpid) && word(*frame, k_ordinary.tpid) == qnm::k_vlan_tpid;
    verdict found = {.reason = QNM_FRAME_TAKEN,
                     .layout = ordinary ? &k_ordinary : &k_change_mode,
                     .kind = nullptr,
                     .value = 0,
                     .length = frame->length,
                     .needed = 0};
    if (check_length(*frame, found) && check_header(*frame, ether_type, found) &&
        check_subtype(*frame, found) && found.kind != nullptr && check_size(*frame, found)) {
        check_ver(*frame, found);
    }
    return found;
}

void _qnm_check_frame_host(const qnm_frame_bytes_t* frame, qnm_frame_verdict_t* verdict) {
    const bool is_announcement = verdict->kind != nullptr && verdict->kind->server_size != 0;
    if (verdict->reason != QNM_FRAME_TAKEN || !is_announcement) return;
    if (!has_byte(*frame, k_host_at) || frame->data[k_host_at] <= qnm::k_host_qnio) return;
    drop(*verdict, QNM_FRAME_HOST, frame->data[k_host_at]);
}

const qnm_frame_reason_row_t* _qnm_frame_reasons(size_t* count) {
    *count = std::size(k_reasons);
    return k_reasons;
}

void _qnm_frame_reason_text(const qnm_frame_verdict_t* verdict, char* text) {
    text[0] = '\0';
    for (const qnm_frame_reason_row_t& row : k_reasons) {
        if (row.reason == verdict->reason) row.print(*verdict, text, QNM_FRAME_TEXT_SIZE);
    }
}

}  // extern "C"
