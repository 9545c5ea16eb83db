// The fields of a card, and how their values are written.
#include "records/fields.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <set>

#include "output/text.h"
#include "tests/sample_cards.h"

namespace qnmctl {
namespace {

const field& find(const section& in, const std::string& name, const std::string& key = "") {
    const auto found = std::find_if(in.fields.begin(), in.fields.end(), [&](const field& of) {
        return of.name == name && (of.key != nullptr ? of.key : "") == key;
    });
    if (found == in.fields.end()) throw std::out_of_range(name + '.' + key);
    return *found;
}

std::string text_of(const card& of, const std::string& name, const std::string& key = "") {
    return value_text(find(sections(of).front(), name, key));
}

TEST(Sections, OfAServerCardAreItsOwnAndThoseOfItsPorts) {
    qnm_qnsv_t record = sample_server();
    EXPECT_EQ(2U + 8U, sections(record).size());
    record.esv_com_dev.ecd_type = 1;
    EXPECT_EQ(2U + 16U, sections(record).size());
    EXPECT_EQ("", section_title(sections(record)[0]));
    EXPECT_EQ("up port ", section_title(sections(record)[1]));
    EXPECT_EQ("down port 15 ", section_title(sections(record)[17]));
}

TEST(Sections, OfAnIoCardIsOne) {
    EXPECT_EQ(1U, sections(sample_device()).size());
}

TEST(Fields, AreNamedOnce) {
    for (const card& of : {card(sample_server()), card(sample_device())}) {
        for (const section& in : sections(of)) {
            std::set<std::string> names;
            for (const field& shown : in.fields) {
                const std::string key = shown.key != nullptr ? shown.key : "";
                EXPECT_TRUE(names.insert(shown.name + ('.' + key)).second) << shown.name << key;
            }
        }
    }
}

TEST(Fields, APathThatWasNeverHeardIsNotKnownToBeDisconnected) {
    qnm_qnio_t record{};
    record.eio_com_dev.ecd_recvtime[0][1] = 99;
    const json state = card_json(record).at("state");
    EXPECT_TRUE(state.at("P0M0").is_null());
    EXPECT_EQ("disconnected", state.at("P0M1"));
    EXPECT_EQ("disconnected", text_of(record, "state", "P0M1"));
    EXPECT_EQ("never heard", text_of(record, "state", "P0M0"));
}

// Every element of the record is in the place that its index convention says.
TEST(Fields, PathsAreNamedByPortThenPath) {
    constexpr const char* keys[2][2] = {{"P0M0", "P0M1"}, {"P1M0", "P1M1"}};
    for (int port = 0; port < 2; ++port) {
        for (int path = 0; path < 2; ++path) {
            qnm_qnio_t record{};
            record.eio_com_dev.ecd_state[port][path] = 1;
            record.eio_com_dev.ecd_recvtime[port][path] = 99;
            for (const auto& row : keys) {
                for (const char* const key : row) {
                    const bool same = key == keys[port][path];
                    EXPECT_EQ(same ? "connected" : "never heard", text_of(record, "state", key));
                    EXPECT_EQ(same ? 99U : 0U,
                              find(sections(record).front(), "recvtime", key).value);
                }
            }
        }
    }
}

TEST(Fields, ShowTheValuesOfTheRecord) {
    qnm_qnio_t record = sample_device();
    record.eio_substate[0] = 0x01;
    record.eio_substate[1] = 0x02;
    record.eio_sermacaddr[5] = 0x10;
    record.eio_link1fault = 1;
    record.eio_com_dev.ecd_swstatus[0] = 0xA1;
    record.eio_com_dev.ecd_int_vector = 0x0C;
    EXPECT_EQ("0x020000003000", text_of(record, "id"));
    EXPECT_EQ("40G", text_of(record, "type"));
    EXPECT_EQ("30", text_of(record, "vlan_id"));
    EXPECT_EQ("NORMAL", text_of(record, "vlan_mode"));
    EXPECT_EQ("a1 00 00", text_of(record, "swstatus"));
    EXPECT_EQ("0x0c", text_of(record, "int_vector"));
    EXPECT_EQ("connected", text_of(record, "connection"));
    EXPECT_EQ("01 02", text_of(record, "substate"));
    EXPECT_EQ("00:00:00:00:00:10", text_of(record, "sermacaddr"));
    EXPECT_EQ("cleared", text_of(record, "link0fault"));
    EXPECT_EQ("raised", text_of(record, "link1fault"));
    EXPECT_EQ("0x8086", text_of(record, "vendor_id"));
    EXPECT_EQ("0x020000", text_of(record, "class_code"));
    EXPECT_EQ("7", text_of(record, "mr_resource_num"));
    EXPECT_EQ("never", text_of(record, "recvtime", "P0M0"));
}

TEST(Fields, OfADownPortAreThatPortsOwn) {
    qnm_qnsv_t record = sample_server();
    record.esv_down_port[3].edp_port_status[1] = 0x02;
    record.esv_down_port[3].edp_io_mac[0] = 0x02;
    record.esv_down_port[3].edp_com_port.ecp_pre_base_upper = 0x12345678;
    record.esv_up_port.ecp_command = 7;
    const std::vector<section> all = sections(record);
    EXPECT_EQ("connected", value_text(find(all[5], "connection")));
    EXPECT_EQ("disconnected", value_text(find(all[4], "connection")));
    EXPECT_EQ("02:00:00:00:00:00", value_text(find(all[5], "io_mac")));
    EXPECT_EQ("0x12345678", value_text(find(all[5], "pre_base_upper")));
    EXPECT_EQ("0x07", value_text(find(all[1], "command")));
}

TEST(ValueJson, KeepsNumbersAndHasTimesAsTexts) {
    qnm_qnsv_t record = sample_server();
    record.esv_com_dev.ecd_int_vector = 12;
    record.esv_com_dev.ecd_swstatus[0] = 0x80;
    record.esv_com_dev.ecd_swstatus[2] = 1;
    const section own = sections(record).front();
    EXPECT_EQ(json(10), value_json(find(own, "vlan_id")));
    EXPECT_EQ(json(iso_time_text(from_milliseconds(1'700'000'000'123))),
              value_json(find(own, "recvtime", "P0M0")));
    EXPECT_EQ(json(), value_json(find(own, "recvtime", "P0M1"))) << "never";
    EXPECT_EQ(json("0x020000001000"), value_json(find(own, "id")));
    EXPECT_EQ(json("02:00:00:00:10:00"), value_json(find(own, "macaddr")));
    EXPECT_EQ(json(12), value_json(find(own, "int_vector")));
    EXPECT_EQ(json({0x80, 0, 1}), value_json(find(own, "swstatus")));
}

}  // namespace
}  // namespace qnmctl
