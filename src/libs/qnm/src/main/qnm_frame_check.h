// qnm_frame_check.h - whether a received frame is a message for managers, and if not, why.
//
// This unit looks only at bytes: it allocates nothing, takes no lock and writes no log. The receive
// path drops frames by its verdict; qnmctl links it too, to say what the receive path does with a
// frame.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// Why a frame is dropped.
typedef enum qnm_frame_reason {
    QNM_FRAME_TAKEN,  // it is not
    QNM_FRAME_TOO_SHORT,
    QNM_FRAME_PRIORITY,
    QNM_FRAME_ETHER_TYPE,
    QNM_FRAME_TPID,
    QNM_FRAME_SUBTYPE,
    QNM_FRAME_SIZE,
    QNM_FRAME_VER,
    QNM_FRAME_HOST,
} qnm_frame_reason_t;

// A received frame. Fields that were not captured are not checked and count as correct.
typedef struct qnm_frame_bytes {
    const unsigned char* data;
    size_t captured;  // bytes at data
    size_t length;    // on the wire, captured or more
} qnm_frame_bytes_t;

// One of the two arrangements of the header: the offsets of its words.
typedef struct qnm_header_layout {
    uint8_t vlan_mode;  // 1: that of the VLAN-tag change mode
    size_t type;
    size_t tpid;
    size_t tci;
} qnm_header_layout_t;

// A message for managers.
typedef struct qnm_frame_kind {
    uint8_t subtype;
    const char* label;    // "1G/10G DEVINFO"
    size_t server_size;   // of an announcement by a QNSV card; 0 for other messages
    bool only_version_0;  // other versions use another subtype
} qnm_frame_kind_t;

typedef struct qnm_frame_verdict {
    qnm_frame_reason_t reason;
    const qnm_header_layout_t* layout;
    const qnm_frame_kind_t* kind;  // nullptr if its subtype was not reached or is unknown
    unsigned value;                // what the field that the reason is about has in the frame
    size_t length;                 // of the frame, where it is too small
    size_t needed;
} qnm_frame_verdict_t;

// The texts of a reason. That of a single frame contains the values of its verdict.
typedef struct qnm_frame_reason_row {
    qnm_frame_reason_t reason;
    const char* name;   // that of the field, as in the dissector
    const char* title;  // of all frames that are dropped for it
    void (*print)(const qnm_frame_verdict_t& verdict, char* text, size_t size);
} qnm_frame_reason_row_t;

// Texts of reasons are shorter.
#define QNM_FRAME_TEXT_SIZE 128

extern "C" {

// Judges a frame up to its version. The checks run in the order in which the header has the fields,
// and the first that fails is the reason.
qnm_frame_verdict_t _qnm_check_frame(const qnm_frame_bytes_t* frame, uint16_t ether_type);

// For an announcement that passed: checks whether the kind of card is known.
void _qnm_check_frame_host(const qnm_frame_bytes_t* frame, qnm_frame_verdict_t* verdict);

// The rows of all reasons but QNM_FRAME_TAKEN, in ascending order.
const qnm_frame_reason_row_t* _qnm_frame_reasons(size_t* count);

// Why the frame was dropped, at most QNM_FRAME_TEXT_SIZE bytes with the zero at the end: "priority
// is not 100(bit). pri=0xA0". Empty for a frame that is taken.
void _qnm_frame_reason_text(const qnm_frame_verdict_t* verdict, char* text);

}  // extern "C"

namespace qnm {

inline std::span<const qnm_frame_reason_row_t> frame_reasons() {
    size_t count = 0;
    const qnm_frame_reason_row_t* const first = _qnm_frame_reasons(&count);
    return {first, count};
}

}  // namespace qnm
