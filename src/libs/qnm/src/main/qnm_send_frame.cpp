// qnm_send_frame.cpp - the senders: one frame to one card, sent once.
//
// Every frame is built on the sender's stack, in the same way around its message: path, header in
// the card's arrangement, subtype and flow IDs, and two counters once it has left. A sender only
// fills in its message. Retries and answers are up to its caller.

#include "qnm_send_frame.h"

#include <cerrno>
#include <cstring>

#include "qnm_config.h"
#include "qnm_counters.h"
#include "qnm_frame.h"
#include "qnm_port_lock.h"
#include "qnm_root.h"
#include "qnm_socket.h"
#include "qnm_util.h"

namespace {

constexpr uint8_t k_second_mac_bit = 0x01;

struct send_path {
    int port;
    int mac_bit;
};

// How the senders differ, beside the message.
struct sender {
    const char* name;
    const char* no_path;  // what it logs about a card that is connected nowhere
    uint8_t subtype;
    bool to_broadcast;
    qnm_stats_type_t counter;
};

constexpr char k_no_path[] = "Send port error.";

constexpr sender k_reset_sender = {"_qnm_send_reset", k_no_path, qnm::k_reset, true,
                                   QNM_STATS_T_RESET};
constexpr sender k_mms_sender = {"_qnm_send_mms", k_no_path, qnm::k_mms_write, false,
                                 QNM_STATS_T_MMS};
constexpr sender k_vlanset_sender = {"_qnm_send_vlanset", k_no_path, qnm::k_vlanset_type0, false,
                                     QNM_STATS_T_VLANSET};
constexpr sender k_regwrite_sender = {"_qnm_send_regwrite", k_no_path, qnm::k_register_write, false,
                                      QNM_STATS_T_REGW};
constexpr sender k_regread_sender = {"_qnm_send_regread", "Sendable port don't exist.",
                                     qnm::k_register_read, false, QNM_STATS_T_REGR};

int _check_send_port_mac(const qnm_com_dev_t& dev, send_path* path) {
    for (int port = 0; port < 2; port++) {
        for (int mac_bit = 0; mac_bit < 2; mac_bit++) {
            if (dev.ecd_state[port][mac_bit] != 1) continue;
            *path = {port, mac_bit};
            return 0;
        }
    }
    return ENOLINK;
}

void put_destination(const qnm_com_dev_t& dev, int mac_bit, uint8_t (&dmac)[6]) {
    memcpy(dmac, dev.ecd_macaddr, sizeof dmac);
    if (mac_bit == 1) dmac[5] |= k_second_mac_bit;
}

// The header in either arrangement.
template <typename Header>
void put_header(const qnm_com_dev_t& dev, const send_path& path, Header& header) {
    put_destination(dev, path.mac_bit, header.dmac);
    _qnm_uint64_to_mac(qnm_root.er_port_info[path.port].epi_mac, header.smac);
    qnm::put_be16(header.tpid, qnm::k_vlan_tpid);
    qnm::put_be16(header.tci, static_cast<uint16_t>(qnm::k_priority << 8 |
                                                    (dev.ecd_vlan_id & qnm::k_vlan_id_mask)));
    qnm::put_be16(header.type, qnm_config.ether_type);
}

// Puts the header in front of the message, sends the frame by the card's path and counts it.
int send_message(const sender& self, const qnm_com_dev_t& dev, unsigned char* frame, size_t length,
                 int* port_out) {
    send_path path;
    if (_check_send_port_mac(dev, &path) != 0) {
        qnm_log_error("%s: %s", self.name, self.no_path);
        return ENOLINK;
    }
    if (dev.ecd_vlan_mode == 0) {
        put_header(dev, path, qnm::view<quillnet_header_s>(frame));
    } else {
        put_header(dev, path, qnm::view<vm_ether_header_s>(frame));
    }
    if (self.to_broadcast) {
        _qnm_uint64_to_mac(qnm_config.broadcast_mac, qnm::view<quillnet_header_s>(frame).dmac);
    }
    int err = _qnm_port_lock_take(path.port);
    if (err != 0) return err;
    err = _qnm_send(path.port, frame, length);
    if (err != 0) {
        qnm_log_error("%s: Failed to _qnm_send(). err=%d", self.name, err);
        return err;
    }
    *port_out = path.port;
    _qnm_stats_count_frame(path.port, self.counter);
    _qnm_stats_count_frame(path.port, QNM_STATS_T_TOTAL);
    return 0;
}

// The same for a frame whose message, common to all kinds, begins with subtype and flow IDs.
template <typename Message, size_t Length>
int send_frame(const sender& self, const qnm_com_dev_t& dev, Message& message,
               unsigned char (&frame)[Length], int* port_out = nullptr) {
    int port = 0;
    message.subtype = self.subtype;
    message.flowid_da = qnm::k_no_flowid;
    message.flowid_sa = qnm::k_no_flowid;
    return send_message(self, dev, frame, Length, port_out != nullptr ? port_out : &port);
}

}  // namespace

extern "C" {

int _qnm_get_send_path(const qnm_com_dev_t* dev, uint64_t* dst_mac_out, int* port_out) {
    send_path path;
    if (_check_send_port_mac(*dev, &path) != 0) return ENOLINK;
    uint8_t dmac[6];
    put_destination(*dev, path.mac_bit, dmac);
    _qnm_mac_to_uint64(dmac, dst_mac_out);
    *port_out = path.port;
    return 0;
}

int _qnm_send_reset(const qnm_com_dev_t* com_dev, uint8_t status) {
    unsigned char frame[qnm::k_send_size] = {};
    qnet_com_reset_s& reset = qnm::view<qnw_reset_s>(frame).reset;
    reset.status = status;
    return send_frame(k_reset_sender, *com_dev, reset, frame);
}

int _qnm_send_mms(const qnm_com_dev_t* com_dev, uint32_t page, const uint32_t* data) {
    unsigned char frame[sizeof(qnw_mms_write_s)] = {};
    qnw_mms_write_s& mms = qnm::view<qnw_mms_write_s>(frame);
    qnm::put_be32(mms.address, page);
    memcpy(mms.data, data, sizeof mms.data);
    return send_frame(k_mms_sender, *com_dev, mms, frame);
}

int _qnm_send_vlanset(const qnm_com_dev_t* com_dev, uint16_t vlan_id) {
    unsigned char frame[qnm::k_send_size] = {};
    qnet_com_vlanset0_s& vlanset = qnm::view<qnw_vlanset_type0_s>(frame).vlanset;
    qnm::put_be16(vlanset.vlan_id, vlan_id);
    return send_frame(k_vlanset_sender, *com_dev, vlanset, frame);
}

int _qnm_send_regwrite(const qnm_com_dev_t* com_dev, uint32_t address, uint32_t data) {
    unsigned char frame[qnm::k_send_size] = {};
    qnet_com_regw_s& regw = qnm::view<qnw_register_write_s>(frame).regw;
    qnm::put_be32(regw.com.address, qnm::encode_register_address(address));
    memcpy(regw.data, &data, sizeof regw.data);
    return send_frame(k_regwrite_sender, *com_dev, regw.com, frame);
}

int _qnm_send_regread(const qnm_com_dev_t* com_dev, uint32_t address, uint8_t tag,
                      uint64_t* dst_mac_out, int* port_out) {
    unsigned char frame[qnm::k_send_size] = {};
    qnet_com_register_s& regr = qnm::view<qnw_register_read_s>(frame).regr.com;
    regr.tag = tag;
    qnm::put_be32(regr.address, qnm::encode_register_address(address));
    const int err = send_frame(k_regread_sender, *com_dev, regr, frame, port_out);
    if (err == 0) _qnm_mac_to_uint64(qnm::view<quillnet_header_s>(frame).dmac, dst_mac_out);
    return err;
}

}  // extern "C"
