// frames.h - what cards send, as bytes, built by hand for the tests of the receive path.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

namespace frames {

using frame_t = std::vector<unsigned char>;

struct announcement {
    uint8_t subtype = 0x10;
    uint64_t mac = 0x020000001000;
    uint8_t host = 0;
    uint8_t ver = 0;
    uint8_t info = 0;
    uint16_t tci = 0x800A;
    uint8_t flow_id = 0x21;
    uint8_t link_status = 0x33;
    uint8_t sw_status[3] = {0x44, 0x00, 0x00};
    bool vlan_change_mode = false;
    size_t length = 0;  // 0: the least one of its kind
};

inline size_t least_length(const announcement& it) {
    if (it.host == 0) return it.subtype >= 0x18 ? 496 : 272;
    if (it.host != 1) return 28;
    return (it.sw_status[1] & 0x0F) == 1 ? 46 : 44;
}

inline void put_mac(frame_t& frame, size_t at, uint64_t mac) {
    for (size_t i = 0; i < 6; i++)
        frame[at + i] = static_cast<unsigned char>(mac >> (40 - 8 * i));
}

inline void put_header(frame_t& frame, const announcement& it) {
    memset(frame.data(), 0xFF, 6);
    put_mac(frame, 6, it.mac);
    const unsigned char tag[] = {0x81, 0x00, static_cast<unsigned char>(it.tci >> 8),
                                 static_cast<unsigned char>(it.tci)};
    const unsigned char type[] = {0x88, 0xB6};
    memcpy(frame.data() + (it.vlan_change_mode ? 14 : 12), tag, sizeof tag);
    memcpy(frame.data() + (it.vlan_change_mode ? 12 : 16), type, sizeof type);
}

inline frame_t build(const announcement& it) {
    frame_t frame(it.length != 0 ? it.length : least_length(it));
    frame.resize(frame.size() < 28 ? 28 : frame.size());
    put_header(frame, it);
    frame[18] = it.subtype;
    frame[20] = it.flow_id;
    frame[21] = it.ver;
    frame[22] = it.info;
    frame[23] = it.host;
    frame[24] = it.link_status;
    memcpy(frame.data() + 25, it.sw_status, 3);
    if (it.length != 0) frame.resize(it.length);
    return frame;
}

// A Completion; the data bytes lie as given.
struct completion {
    uint8_t tag = 0;
    uint64_t mac = 0x020000001000;
    unsigned char data[4] = {};
    bool vlan_change_mode = false;
    uint64_t destination = 0xFFFFFFFFFFFF;
};

inline frame_t build_completion(const completion& it) {
    frame_t frame(28);
    put_header(frame, {.mac = it.mac, .vlan_change_mode = it.vlan_change_mode});
    put_mac(frame, 0, it.destination);
    frame[18] = 0x20;
    frame[23] = it.tag;
    memcpy(frame.data() + 24, it.data, sizeof it.data);
    return frame;
}

// Where a downstream port of a server card starts.
inline size_t down_port(size_t number) {
    return 48 + 28 * number;
}

}  // namespace frames
