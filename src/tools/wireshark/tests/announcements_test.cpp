// Announcements of simulated cards of every kind: the dissector reads exactly what the library
// keeps of them, field by field.
#include <array>
#include <random>

#include "capture.h"
#include "cardsim.h"
#include "ports.h"
#include "qnm_frame.h"
#include "tshark.h"

namespace {

using cardsim::card;
using cardsim::card_kind;
using cardsim::card_speed;
using tshark::bytes;
using tshark::mac;
using tshark::number;
using tshark::row;

// ---- Cards --------------------------------------------------------------------------------------

// Every value of every field is random, so that no two fields can be mistaken for one another.
class random_values {
  public:
    template <typename Value>
    operator Value() {
        return static_cast<Value>(engine_());
    }

    template <std::size_t count>
    operator std::array<std::uint8_t, count>() {
        std::array<std::uint8_t, count> all;
        for (std::uint8_t& one : all)
            one = *this;
        return all;
    }

    operator bool() { return engine_() % 2 == 1; }
    std::uint64_t mac() { return engine_() & 0xFFFFFFFFFFFF; }

  private:
    std::mt19937_64 engine_{5};
};

cardsim::bridge any_bridge(random_values& any) {
    return {any, any, any, any, any, any, any, any, any, any};
}

card any_card(random_values& any, card_kind kind, card_speed speed, std::uint64_t id) {
    card made = make_card("card", kind, speed, id);
    made.vlan_id = static_cast<std::uint16_t>(any) & 0xFFF;
    made.vlan_change_mode = any;
    made.flow_id_da = any;
    made.flow_id = any;
    if (speed == card_speed::g40) made.ver = static_cast<std::uint8_t>(any) % 3;
    made.uid_switch = any;
    made.power = any;
    made.link_status = any;
    made.sw_status0 = any;
    made.version = any ? 1 : static_cast<std::uint8_t>(any) & 0xF;  // often a multi-root card
    made.port0_link = any;
    made.port1_link = any;
    made.pcie_presence = any;
    made.int_vector = any;
    made.up_port = any_bridge(any);
    for (cardsim::down_port& port : made.down_ports)
        port = {.port_status = any, .io_mac = any.mac(), .com_port = any_bridge(any)};
    made.io_substate = any;
    made.ser_mac = any.mac();
    made.device_id = any;
    made.vendor_id = any;
    made.class_code = static_cast<std::uint32_t>(any) & 0xFFFFFF;
    made.link0_fault = any;
    made.link1_fault = any;
    made.resource_id = any;
    return made;
}

// ---- The library's reading ----------------------------------------------------------------------

std::uint64_t mac_of(const std::uint8_t (&wire)[6]) {
    std::uint64_t value = 0;
    for (const std::uint8_t byte : wire)
        value = value << 8 | byte;
    return value;
}

// Bytes that the library ignores are read by its wire structures.
void put_wire(const frames::frame_t& frame, row& out) {
    const auto& com = qnm::view<qnw_devinfo_com_s>(frame.data()).com;
    out["type"] = {number(qnm_config.ether_type)};
    out["tpid"] = {number(qnm::k_vlan_tpid)};
    out["priority"] = {number(4)};
    out["cfi"] = {number(0)};
    out["subtype"] = {number(com.subtype)};
    out["flowid_da"] = {number(com.flowid_da)};
    out["info"] = {number(com.info)};
    out["host"] = {number(com.host)};
}

void put_dev(const qnm_com_dev_t& dev, row& out) {
    out["vlan_mode"] = {number(dev.ecd_vlan_mode)};
    out["vlan_id"] = {number(dev.ecd_vlan_id)};
    out["tci"] = {number(0x8000 | dev.ecd_vlan_id)};
    out["flowid_sa"] = {number(dev.ecd_flowid)};
    out["ver"] = {number(dev.ecd_type)};
    out["card_id"] = {mac(dev.ecd_id)};
    out["path"] = {number(dev.ecd_state[0][1])};  // the only path that has been heard
    out["uid_switch"] = {number(dev.ecd_uidsw)};
    out["power"] = {number(dev.ecd_power)};
    out["link_status"] = {number(dev.ecd_linkstatus)};
    out["sw_status"] = {bytes(dev.ecd_swstatus)};
    out["sw_status0"] = {number(dev.ecd_swstatus[0])};
    out["version"] = {number(dev.ecd_ver)};
    out["port0_link"] = {number(dev.ecd_port0_link)};
    out["port1_link"] = {number(dev.ecd_port1_link)};
    out["int_vector"] = {number(dev.ecd_int_vector)};
}

void put_bridge(const qnm_com_port_t& port, const std::string& prefix, row& out) {
    const auto put = [&](const char* name, std::uint64_t value) {
        out[prefix + name].push_back(number(value));
    };
    put("pri_bus_num", port.ecp_pri_bus_num);
    put("sec_bus_num", port.ecp_sec_bus_num);
    put("sub_bus_num", port.ecp_sub_bus_num);
    put("command", port.ecp_command);
    put("memory_base", port.ecp_memory_base);
    put("memory_limit", port.ecp_memory_limit);
    put("pre_memory_base", port.ecp_pre_memory_base);
    put("pre_memory_limit", port.ecp_pre_memory_limit);
    put("pre_base_upper", port.ecp_pre_base_upper);
    put("pre_limit_upper", port.ecp_pre_limit_upper);
}

qnm_com_port_t as_sent(const cardsim::bridge& sent) {
    return {.ecp_pre_base_upper = sent.pre_base_upper,
            .ecp_pre_limit_upper = sent.pre_limit_upper,
            .ecp_memory_base = sent.memory_base,
            .ecp_memory_limit = sent.memory_limit,
            .ecp_pre_memory_base = sent.pre_memory_base,
            .ecp_pre_memory_limit = sent.pre_memory_limit,
            .ecp_pri_bus_num = sent.pri_bus_num,
            .ecp_sec_bus_num = sent.sec_bus_num,
            .ecp_sub_bus_num = sent.sub_bus_num,
            .ecp_command = sent.command,
            .ecp_pad1 = {}};
}

// The library keeps the bridge of a downstream port only while a card is connected behind it; what
// the others announce is known from the card.
void put_qnsv(const qnm_qnsv_t& record, const card& sender, row& out) {
    put_dev(record.esv_com_dev, out);
    put_bridge(record.esv_up_port, "up_port.", out);
    const std::size_t ports = sender.speed == card_speed::g40 ? 16 : 8;
    for (std::size_t k = 0; k < ports; k++) {
        const qnm_down_port_t& port = record.esv_down_port[k];
        const bool connected = (port.edp_port_status[1] & 2) != 0;
        out["down_port.number"].push_back(number(k));
        out["down_port.port_status"].push_back(bytes(port.edp_port_status));
        out["down_port.connected"].push_back(number(connected));
        out["down_port.io_mac"].push_back(mac(mac_of(port.edp_io_mac)));
        put_bridge(connected ? port.edp_com_port : as_sent(sender.down_ports[k].com_port),
                   "down_port.", out);
    }
}

void put_qnio(const qnm_qnio_t& record, const card& sender, row& out) {
    put_dev(record.eio_com_dev, out);
    out["pcie_presence"] = {number(record.eio_pcie_presence)};
    out["link0_fault"] = {number(record.eio_link0fault)};
    out["link1_fault"] = {number(record.eio_link1fault)};
    out["io_substate"] = {bytes(record.eio_substate)};
    out["connected"] = {number((record.eio_substate[1] & 2) != 0)};
    out["ser_mac"] = {mac(mac_of(record.eio_sermacaddr))};
    out["device_id"] = {number(record.eio_device_id)};
    out["vendor_id"] = {number(record.eio_vendor_id)};
    out["class_code"] = {number(record.eio_class_code)};
    out["reserved"] = {"00"};
    if (sender.version == 1) out["resource_id"] = {number(record.eio_mr_resource_num)};
}

// ---- Tests --------------------------------------------------------------------------------------

struct announcements : ports {
    random_values any;
    capture taken;
    std::vector<row> expected;
    std::uint64_t next_id = 0x020000001000;

    // The library hears a card for the first time, and the capture with it.
    void hear(const card& sender, cardsim::message kind, std::size_t path) {
        const cardsim::frame_bytes frame = encode(sender, kind, path);
        taken.add(frame);
        receive(frame);
        const std::uint64_t source = sender.id | path;
        const std::uint64_t id = sender.ver != 0 ? source & ~std::uint64_t{1} : source;
        row& out = expected.emplace_back();
        put_wire(frame, out);
        std::size_t end = 0;
        if (sender.kind == card_kind::qnsv) {
            qnm_qnsv_t record;
            ASSERT_EQ(qnm_get_qnsv(id, &record), QNM_API_SUCCESS);
            put_qnsv(record, sender, out);
            end = frame.size();
        } else {
            qnm_qnio_t record;
            ASSERT_EQ(qnm_get_qnio(id, &record), QNM_API_SUCCESS);
            put_qnio(record, sender, out);
            end = sender.version == 1 ? sizeof(qnw_devinfo_mrio_s) : sizeof(qnw_devinfo_io_s);
        }
        if (end < frame.size()) out["padding"] = {bytes(std::span(frame).subspan(end))};
    }

    void hear_every_way(card_kind kind, card_speed speed) {
        for (const auto message : {cardsim::message::devinfo, cardsim::message::notify}) {
            for (std::size_t path = 0; path < path_count(speed); path++) {
                hear(any_card(any, kind, speed, next_id), message, path);
                next_id += 2;
            }
        }
    }
};

TEST_F(announcements, every_field_is_read_as_the_library_reads_it) {
    for (int round = 0; round < 12; round++) {
        for (const auto kind : {card_kind::qnsv, card_kind::qnio}) {
            for (const auto speed : {card_speed::g1_10, card_speed::g40})
                hear_every_way(kind, speed);
        }
    }
    const std::vector<row> read = tshark::read(taken);
    for (std::size_t i = 0; i < read.size(); i++) {
        // Items that only contain others have no value of their own.
        row found = read[i];
        found.erase("up_port");
        found.erase("down_port");
        EXPECT_EQ(found, expected[i]) << "frame " << i + 1;
    }
}

}  // namespace
