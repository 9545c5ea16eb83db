// The library's calls to simulated cards, captured: every request as its caller meant it, every
// Completion as the library received it, and which Completion answers which request.
//
// The library and the cards hand each other their frames on the calling thread.
#include <functional>

#include "capture.h"
#include "cardsim.h"
#include "ports.h"
#include "qnm_completion.h"
#include "tshark.h"

namespace {

using cardsim::card;
using cardsim::card_kind;
using cardsim::card_speed;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using tshark::duration;
using tshark::mac;
using tshark::number;
using tshark::row;
using tshark::words;

constexpr qnm_retry_t k_two_retries = {.er_retry_count = 2, .er_retry_interval = 1};
constexpr uint64_t k_slow = 0x020000001000;        // 1G/10G, heard on port 0
constexpr uint64_t k_fast = 0x020000001010;        // 40G, heard on port 1 by its second path
constexpr uint64_t k_changed = 0x020000001020;     // like the first, in the VLAN-tag change mode
constexpr uint64_t k_multi_root = 0x020000001030;  // a QNIO card that takes MMS pages

words value(const row& frame, const std::string& name) {
    const auto found = frame.find(name);
    return found != frame.end() ? found->second : words();
}

struct access : ports {
    capture taken;
    std::size_t lost_answers = 0;  // so many Completions are lost on their way
    cardsim::simulator cards{{port_of(0), port_of(1)}};

    access() {
        EXPECT_EQ(_qnm_cmp_init(), 0);
        for (int port = 0; port < 2; port++) {
            fake_pcap::on_send(name(port), [this, port](const fake_pcap::frame_t& frame) {
                taken.add(frame);
                cards.deliver(static_cast<std::size_t>(port), frame);
            });
        }
        add(make_card("slow", card_kind::qnsv, card_speed::g1_10, k_slow));
        card fast = make_card("fast", card_kind::qnsv, card_speed::g40, k_fast);
        fast.heard = {{{false, false}, {false, true}}};
        add(fast);
        card changed = make_card("changed", card_kind::qnsv, card_speed::g1_10, k_changed);
        changed.vlan_change_mode = true;
        add(changed);
        card multi_root = make_card("multi-root", card_kind::qnio, card_speed::g1_10, k_multi_root);
        multi_root.version = 1;
        add(multi_root);
        cards.announce_all();
        taken = capture();
    }

    ~access() override { _qnm_cmp_fini(); }

    void add(card added) {
        added.interval_ms = 0;
        added.vlan_id = static_cast<uint16_t>(added.id & 0xFFF);
        added.device.register_default = 0x12345678;
        cards.add(added);
    }

    cardsim::port port_of(int port) {
        return {.name = name(port),
                .send = [this, port](cardsim::frame_view frame) { return arrive(port, frame); },
                .receive = [] { return std::nullopt; }};
    }

    cardsim::send_report arrive(int port, cardsim::frame_view frame) {
        const bool is_answer = frame[18] == 0x20;
        if (is_answer && lost_answers > 0) {
            lost_answers--;
        } else {
            taken.add(frame);
            receive({frame.begin(), frame.end()}, port);
        }
        return {};
    }

    // The value, which the library must have received.
    static uint32_t read(uint64_t id, uint32_t addr) {
        uint32_t data = 0;
        EXPECT_EQ(qnm_read_register(id, addr, &data, &k_two_retries, 0), QNM_API_SUCCESS);
        return data;
    }

    static void read_in_vain(uint64_t id, uint32_t addr) {
        uint32_t data = 0;
        EXPECT_EQ(qnm_read_register(id, addr, &data, &k_two_retries, 0), QNM_API_ETIMEDOUT);
    }

    // In two passes, as in Wireshark, so that a request knows its answer.
    std::vector<row> rows(words options = {}) const {
        options.emplace_back("-2");
        return tshark::read(taken, options);
    }
};

// ---- Requests -----------------------------------------------------------------------------------

// A request as the simulated cards read it.
struct body_fields {
    row& out;

    void operator()(std::monostate) const { ADD_FAILURE() << "not a request"; }
    void operator()(const cardsim::register_read& it) const {
        out["tag"] = {number(it.tag)};
        out["address"] = {number(it.address)};
    }
    void operator()(const cardsim::register_write& it) const {
        out["tag"] = {number(it.tag)};
        out["address"] = {number(it.address)};
        out["data"] = {number(it.data)};
    }
    void operator()(const cardsim::vlan_set& it) const {
        out["set_type"] = {number(it.type)};
        out["new_vlan_id"] = {number(it.vlan_id)};
        out["reserved"] = {"0000"};
    }
    void operator()(const cardsim::reset& it) const { out["status"] = {number(it.status)}; }
    void operator()(const cardsim::mms_write& it) const {
        out["page"] = {number(it.page)};
        out["reserved"] = {"00"};
        for (const uint32_t word : it.data)
            out["word"].push_back(number(word));
    }
};

row fields_of(const cardsim::frame_bytes& frame) {
    const auto request = cardsim::decode(frame);
    if (!request.has_value()) return {};
    EXPECT_EQ(request->fault, "");
    row out;
    out["vlan_mode"] = {number(request->vlan_change_mode)};
    out["type"] = {number(cardsim::default_ether_type)};
    out["tpid"] = {number(0x8100)};
    out["tci"] = {number(request->tci)};
    out["priority"] = {number(request->tci >> 13)};
    out["cfi"] = {number(request->tci >> 12 & 1)};
    out["vlan_id"] = {number(request->tci & 0xFFF)};
    out["subtype"] = {number(request->subtype)};
    out["flowid_da"] = out["flowid_sa"] = {number(0xFF)};
    out["ver"] = out["info"] = {number(0)};
    std::visit(body_fields{out}, request->body);
    return out;
}

TEST_F(access, every_request_is_read_as_it_was_meant) {
    std::array<uint32_t, 32> page;
    for (uint32_t i = 0; i < page.size(); i++)
        page[i] = 0x01020304 * (i + 1);
    for (const uint64_t id : {k_slow, k_fast, k_changed}) {
        EXPECT_EQ(qnm_write_register(id, 0x2BCDEC, 0xCAFEBABE, &k_two_retries, 0), QNM_API_SUCCESS);
        EXPECT_EQ(qnm_set_vlanid(id, 0x678, &k_two_retries, 0), QNM_API_SUCCESS);
        EXPECT_EQ(qnm_send_resetframe(id, 0x5A, nullptr, 0), QNM_API_SUCCESS);
        read(id, 0x3FFFFC);
    }
    EXPECT_EQ(qnm_write_mmspage(k_multi_root, 1023, page.data(), 0), QNM_API_SUCCESS);

    const std::vector<row> all = rows();
    std::size_t requests = 0;
    for (std::size_t i = 0; i < all.size(); i++) {
        const row expected = fields_of(taken.frame(i + 1));
        if (expected.empty()) continue;
        requests++;
        for (const auto& [name, values] : expected)
            EXPECT_EQ(value(all[i], name), values) << name << " in frame " << i + 1;
        EXPECT_EQ(value(all[i], "dropped"), words()) << "a request is no mistake";
        EXPECT_FALSE(all[i].contains("expert.fault"));
    }
    EXPECT_EQ(requests, 13U);
    EXPECT_THAT(value(all[0], "address"), ElementsAre(number(0x2BCDEC)));
    EXPECT_THAT(value(all[0], "wire_address"), ElementsAre(number(0x02BC0DEC)));
    EXPECT_THAT(value(all[0], "data"), ElementsAre(number(0xCAFEBABE)));
}

// The note on each mistake in a request.
struct fault_row {
    std::size_t at;
    uint8_t byte;
    uint8_t subtype;
};

constexpr fault_row k_faults[] = {
    {14, 0xA0, 0x91}, {14, 0x90, 0x30}, {19, 0xFE, 0x80}, {20, 0x00, 0x90}, {21, 1, 0x91},
    {22, 1, 0x30},    {23, 1, 0x90},    {23, 1, 0x80},    {23, 1, 0x92},    {24, 0x04, 0x91},
    {26, 0x10, 0x90}, {26, 1, 0x80},    {59, 1, 0x91},    {24, 1, 0x30},
};

TEST_F(access, what_a_card_finds_wrong_with_a_request_is_noted) {
    words expected;
    const auto add_faulty = [&](const cardsim::frame_bytes& frame) {
        taken.add(frame);
        expected.push_back(cardsim::decode(frame).value().fault);
        EXPECT_NE(expected.back(), "");
    };
    for (const fault_row& fault : k_faults) {
        cardsim::frame_bytes frame(fault.subtype == 0x92 ? 156 : 60);
        const uint8_t head[] = {0x81, 0x00, 0x80, 0x0A, 0x88, 0xB6, fault.subtype, 0xFF, 0xFF};
        std::copy(std::begin(head), std::end(head), frame.begin() + 12);
        ASSERT_EQ(cardsim::decode(frame).value().fault, "");
        frame[fault.at] = fault.byte;
        add_faulty(frame);
        if (fault.at == 14) continue;
        frame[fault.at] = fault.at == 19 || fault.at == 20 ? 0xFF : 0;
        frame.resize(frame.size() - 1);
        add_faulty(frame);
    }
    const std::vector<row> all = rows();
    for (std::size_t i = 0; i < all.size(); i++) {
        EXPECT_TRUE(all[i].contains("expert.fault")) << expected[i];
        EXPECT_THAT(value(all[i], tshark::k_note), Contains(expected[i])) << "frame " << i + 1;
    }
}

// ---- Answers ------------------------------------------------------------------------------------

TEST_F(access, a_read_and_its_completion_know_each_other) {
    for (const uint64_t id : {k_slow, k_fast, k_changed}) {
        cards.write_register(id, 0x50F0, static_cast<uint32_t>(id));
        EXPECT_EQ(read(id, 0x50F0), static_cast<uint32_t>(id));
    }
    const std::vector<row> all = rows();
    ASSERT_EQ(all.size(), 6U);
    for (std::size_t asked = 1; asked < 6; asked += 2) {
        const row& question = all[asked - 1];
        const row& answer = all[asked];
        EXPECT_THAT(value(question, "response_in"), ElementsAre(number(asked + 1)));
        EXPECT_THAT(value(answer, "response_to"), ElementsAre(number(asked)));
        const std::string time = duration(taken.between(asked, asked + 1));
        EXPECT_THAT(value(question, "response_time"), ElementsAre(time));
        EXPECT_THAT(value(answer, "response_time"), ElementsAre(time));
        EXPECT_EQ(value(answer, "tag"), value(question, "tag"));
        EXPECT_THAT(value(answer, "address"), ElementsAre(number(0x50F0)));
        EXPECT_THAT(value(answer, "register"), ElementsAre("EEPROM bit lock"));
        EXPECT_EQ(value(answer, "dropped"), words());
    }
    EXPECT_THAT(value(all[1], "data"), ElementsAre(number(k_slow & 0xFFFFFFFF)));
    EXPECT_THAT(value(all[3], "data"), ElementsAre(number(k_fast & 0xFFFFFFFF)));
}

TEST_F(access, a_read_that_is_sent_again_names_the_one_before) {
    lost_answers = 2;
    EXPECT_EQ(read(k_slow, 0x100), 0x12345678U);
    const std::vector<row> all = rows();
    ASSERT_EQ(all.size(), 4U);
    EXPECT_EQ(value(all[0], "resend_of"), words());
    EXPECT_THAT(value(all[1], "resend_of"), ElementsAre(number(1)));
    EXPECT_THAT(value(all[2], "resend_of"), ElementsAre(number(2)));
    EXPECT_TRUE(all[2].contains("expert.resent"));
    EXPECT_THAT(value(all[3], "response_to"), ElementsAre(number(3)));
    EXPECT_THAT(value(all[3], "response_time"), ElementsAre(duration(taken.between(3, 4))));
    EXPECT_THAT(value(all[3], "first_response_time"), ElementsAre(duration(taken.between(1, 4))));
}

TEST_F(access, one_pass_is_enough_for_a_completion) {
    read(k_slow, 0x100);
    const std::vector<row> all = tshark::read(taken);
    ASSERT_EQ(all.size(), 2U);
    EXPECT_THAT(value(all[1], "response_to"), ElementsAre(number(1)));
    EXPECT_THAT(value(all[1], "response_time"), ElementsAre(duration(taken.between(1, 2))));
    EXPECT_FALSE(all[0].contains("expert.unanswered")) << "it is too early to tell";
}

TEST_F(access, a_read_that_stays_without_an_answer_is_noted) {
    read(k_slow, 0x100);
    lost_answers = 3;
    read_in_vain(k_slow, 0x104);
    const std::vector<row> all = rows();
    ASSERT_EQ(all.size(), 5U);
    for (std::size_t i = 0; i < all.size(); i++)
        EXPECT_EQ(all[i].contains("expert.unanswered"), i == 4) << "frame " << i + 1;
    EXPECT_THAT(value(all[0], "response_in"), ElementsAre(number(2)));
    EXPECT_THAT(value(all[1], "response_time"), ElementsAre(duration(taken.between(1, 2))));
}

TEST_F(access, a_second_completion_is_not_taken) {
    cards.set("slow", "duplicate_answers", "1000");
    read(k_slow, 0x100);
    const std::vector<row> all = rows();
    ASSERT_EQ(all.size(), 3U);
    EXPECT_THAT(value(all[1], "response_to"), ElementsAre(number(1)));
    EXPECT_EQ(value(all[2], "response_to"), words());
    EXPECT_TRUE(all[2].contains("expert.repeated"));
    EXPECT_THAT(value(all[2], "dropped"),
                ElementsAre("The Register Read in frame 1 was answered in frame 2."));
}

// The library's line without the function that logs it.
std::string logged(const log_capture& logs, const std::string& func) {
    for (const std::string& text : logs.texts()) {
        if (text.starts_with(func + ": ")) return text.substr(func.size() + 2);
    }
    return "";
}

TEST_F(access, a_completion_of_another_address_is_not_taken) {
    cards.set("fast", "wrong_mac", "1000");
    logs.clear();
    read_in_vain(k_fast, 0x100);
    const std::string line = logged(logs, "_qnm_recv_comp");
    EXPECT_THAT(line, HasSubstr("MAC address"));
    const std::vector<row> all = rows();
    ASSERT_EQ(all.size(), 6U);
    for (std::size_t answer = 1; answer < 6; answer += 2) {
        EXPECT_TRUE(all[answer].contains("expert.mac"));
        EXPECT_THAT(value(all[answer], "dropped"), ElementsAre(line));
        EXPECT_EQ(value(all[answer], "response_to"), words());
        EXPECT_EQ(value(all[answer - 1], "response_in"), words());
    }
}

TEST_F(access, a_completion_that_nobody_waits_for_is_noted) {
    cards.set("slow", "wrong_tag", "1000");
    read_in_vain(k_slow, 0x100);
    for (const row& frame : rows()) {
        const bool is_answer = value(frame, "subtype") == words{number(0x20)};
        EXPECT_EQ(frame.contains("expert.unasked"), is_answer);
        EXPECT_EQ(value(frame, "dropped"), words()) << "the question may be older than the capture";
    }
}

TEST_F(access, a_completion_with_a_tag_that_is_not_in_use_is_not_taken) {
    qnm_config.tag_max = 0x7F;
    cards.set("slow", "wrong_tag", "1000");
    logs.clear();
    read_in_vain(k_slow, 0x100);
    const std::string line = logged(logs, "_qnm_recv_comp");
    EXPECT_THAT(line, HasSubstr("Invalid tag. tag="));
    const std::vector<row> all = rows({"-o", "quillnet.tag_max:127"});
    EXPECT_TRUE(all.at(1).contains("expert.tag"));
    EXPECT_THAT(value(all.at(1), "dropped"), ElementsAre(line));
}

// A Completion that is dropped on arrival answers nothing.
TEST_F(access, a_dropped_completion_is_no_answer) {
    lost_answers = 1;
    std::size_t sent = 0;
    fake_pcap::on_send(name(0), [&](const fake_pcap::frame_t& question) {
        if (sent++ > 0) return;
        cardsim::frame_bytes answer;
        const cardsim::completion body = {
            .source = k_slow, .destination = k_port_mac[0], .tag = question[23], .value = 1};
        encode(cards.get("slow"), body, answer);
        answer[14] = 0xA0;
        taken.add(answer);
        receive(answer);
    });
    EXPECT_EQ(read(k_slow, 0x100), 0x12345678U);
    const std::vector<row> all = rows();
    ASSERT_EQ(all.size(), 4U);
    EXPECT_TRUE(all[1].contains("expert.priority"));
    EXPECT_THAT(value(all[3], "response_to"), ElementsAre(number(3)));
}

// Register Reads of several managers, as one capture of a mirror port has them.
cardsim::frame_bytes read_from(uint64_t manager, uint64_t id, uint8_t tag) {
    cardsim::frame_bytes frame(60);
    const uint8_t head[] = {0x81, 0x00, 0x80, 0x0A, 0x88, 0xB6, 0x91, 0xFF, 0xFF, 0, 0, tag};
    std::copy(std::begin(head), std::end(head), frame.begin() + 12);
    for (int i = 0; i < 6; i++) {
        frame[i] = static_cast<uint8_t>(id >> (40 - 8 * i));
        frame[6 + i] = static_cast<uint8_t>(manager >> (40 - 8 * i));
    }
    return frame;
}

struct managers : access {
    void ask(uint64_t manager, uint64_t id, uint8_t tag) { taken.add(read_from(manager, id, tag)); }

    void answer(uint64_t id, uint64_t manager, uint8_t tag) {
        cardsim::frame_bytes frame;
        encode(cards.get(k_slow),
               cardsim::completion{.source = id, .destination = manager, .tag = tag}, frame);
        taken.add(frame);
    }
};

TEST_F(managers, have_tags_of_their_own) {
    ask(0xA, k_slow, 7);
    ask(0xB, k_slow, 7);
    answer(k_slow, 0xB, 7);
    answer(k_slow, 0xA, 7);
    const std::vector<row> all = rows();
    EXPECT_THAT(value(all[2], "response_to"), ElementsAre(number(2)));
    EXPECT_THAT(value(all[3], "response_to"), ElementsAre(number(1)));
    EXPECT_EQ(value(all[1], "resend_of"), words());
}

TEST_F(managers, take_answers_to_a_group_or_to_nobody) {
    for (const uint64_t anybody : {cardsim::broadcast_mac, uint64_t{0x01005E000001}, uint64_t{0}}) {
        taken = capture();
        ask(0xA, k_slow, 7);
        ask(0xB, k_fast, 7);
        answer(k_slow, anybody, 7);
        answer(k_slow, anybody, 7);
        const std::vector<row> all = rows();
        EXPECT_THAT(value(all[2], "response_to"), ElementsAre(number(1)));
        EXPECT_TRUE(all[3].contains("expert.unasked"));
    }
}

TEST_F(managers, take_no_answer_to_another_one) {
    ask(0xA, k_slow, 7);
    answer(k_slow, 0xB, 7);
    answer(k_slow, 0xA, 7);
    const std::vector<row> all = rows();
    EXPECT_TRUE(all[1].contains("expert.unasked"));
    EXPECT_THAT(value(all[2], "response_to"), ElementsAre(number(1)));
}

TEST_F(managers, use_a_tag_again_for_another_read) {
    ask(0xA, k_slow, 7);
    ask(0xA, k_fast, 7);
    answer(k_fast, 0xA, 7);
    ask(0xA, k_fast, 7);
    answer(k_fast, 0xA, 7);
    const std::vector<row> all = rows();
    EXPECT_EQ(value(all[1], "resend_of"), words()) << "another card is another read";
    EXPECT_EQ(value(all[3], "resend_of"), words()) << "an answered read is over";
    EXPECT_EQ(value(all[0], "response_in"), words());
    EXPECT_THAT(value(all[2], "response_to"), ElementsAre(number(2)));
    EXPECT_THAT(value(all[4], "response_to"), ElementsAre(number(4)));
}

}  // namespace
