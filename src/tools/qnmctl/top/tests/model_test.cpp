// Order, filter, selection, keys and rates of the full-screen view.
#include "top/model.h"

#include <gtest/gtest.h>

#include <set>

#include "tests/sample_cards.h"

namespace qnmctl {
namespace {

constexpr std::uint64_t now_ms = 1'700'000'010'000;

// A QNSV card, 1/10G, in VLAN 10, connected on P0M0; or a QNIO card, 40G, in VLAN 30, on P1M1.
card card_of(bool server, std::uint64_t id) {
    if (server) {
        qnm_qnsv_t made = sample_server();
        made.esv_com_dev.ecd_id = id;
        return made;
    }
    qnm_qnio_t made = sample_device();
    made.eio_com_dev.ecd_id = id;
    return made;
}

qnm_com_dev_t& part_of(card& of) {
    auto* const server = std::get_if<qnm_qnsv_t>(&of);
    return server != nullptr ? server->esv_com_dev : std::get<qnm_qnio_t>(of).eio_com_dev;
}

class TopModel : public testing::Test {
  protected:
    TopModel() { set_height(model, 10, 0); }

    void look() { look_at_cards(model, cards, from_milliseconds(now_ms), seconds += 1); }
    void look(std::vector<card> at) {
        cards = std::move(at);
        look();
    }
    void event(std::uint64_t id, std::uint64_t times = 1) {
        for (std::uint64_t time = 0; time < times; ++time)
            count_events(model, {{{}, QNM_EVT_UPDATEDEVINFO, id, std::nullopt}}, 0);
    }
    void press(const std::string& keys) {
        for (const char key : keys)
            qnmctl::press(model, key);
    }
    void press(int key) { qnmctl::press(model, key); }
    void look_at_many(std::uint64_t count) {
        cards.clear();
        for (std::uint64_t id = 1; id <= count; ++id)
            cards.push_back(card_of(false, id));
        look();
    }

    using ids = std::vector<std::uint64_t>;

    top_model model;
    std::vector<card> cards;
    double seconds = 0;
};

TEST(TopRate, IsThatOfTheLastSeconds) {
    rate of;
    of.look(1, 100);
    EXPECT_EQ(0, of.per_second());
    of.look(2, 110);
    EXPECT_EQ(10, of.per_second());
    for (int second = 3; second <= 7; ++second)
        of.look(second, 110);
    EXPECT_EQ(0, of.per_second());
}

TEST(TopRate, TakesACountThatGoesBackForOneThatBeganAnew) {
    rate of;
    of.look(1, 100);
    of.look(2, 200);
    of.look(3, 5);
    EXPECT_EQ(0, of.per_second());
    of.look(4, 7);
    EXPECT_EQ(2, of.per_second());
}

TEST(TopRate, HoldsWhereNoTimeHasPassed) {
    rate of;
    of.look(1, 1);
    of.look(1, 2);
    EXPECT_EQ(0, of.per_second());
}

TEST_F(TopModel, ShowsCardsById) {
    look({card_of(false, 3), card_of(true, 2), card_of(false, 1)});
    EXPECT_EQ((ids{1, 2, 3}), model.shown);
}

TEST_F(TopModel, SortsByEveryOrderAndRound) {
    std::vector<card> at = {card_of(false, 1), card_of(true, 2), card_of(false, 3)};
    part_of(at[0]).ecd_vlan_id = 20;
    part_of(at[2]).ecd_vlan_id = 5;
    part_of(at[2]).ecd_type = 0;
    part_of(at[0]).ecd_state[0][0] = 1;  // two paths
    part_of(at[2]).ecd_state[1][1] = 0;  // none
    part_of(at[0]).ecd_recvtime[0][0] = now_ms - 1;
    part_of(at[1]).ecd_recvtime[0][0] = now_ms - 50;
    part_of(at[2]).ecd_recvtime[0][0] = 0;  // never
    look(at);
    event(2, 5);
    event(3, 9);
    look();
    event(1, 1);
    event(2, 2);
    for (int more = 0; more < 5; ++more)
        look();
    const struct {
        top_order order;
        ids shown;
    } expected[] = {
        {top_order::id, {1, 2, 3}},     {top_order::kind, {2, 1, 3}},
        {top_order::type, {2, 3, 1}},   {top_order::vlan, {3, 2, 1}},
        {top_order::paths, {3, 2, 1}},  {top_order::heard, {3, 2, 1}},
        {top_order::events, {3, 2, 1}}, {top_order::rate, {2, 1, 3}},
    };
    for (const auto& one : expected) {
        EXPECT_EQ(one.order, model.order);
        EXPECT_EQ(one.shown, model.shown) << top_order_words[static_cast<int>(one.order)];
        press("s");
    }
    EXPECT_EQ(top_order::id, model.order);
    press("r");
    EXPECT_EQ((ids{3, 2, 1}), model.shown);
    press("S");
    EXPECT_EQ(top_order::rate, model.order);
    EXPECT_FALSE(model.reversed);
}

// As when text is pasted: every key redraws all cards.
TEST_F(TopModel, TakesNoFilterThatIsEndless) {
    press('/');
    for (int count = 0; count < 1000; ++count)
        press('x');
    EXPECT_EQ(std::string(256, 'x'), *model.typed);
}

TEST_F(TopModel, FiltersByKindAndConnection) {
    std::vector<card> at = {card_of(true, 1), card_of(false, 2), card_of(false, 3)};
    part_of(at[2]).ecd_state[1][1] = 0;
    look(at);
    press("t");
    EXPECT_EQ((ids{1}), model.shown);
    press("t");
    EXPECT_EQ((ids{2, 3}), model.shown);
    press("c");
    EXPECT_EQ((ids{2}), model.shown);
    press("c");
    EXPECT_EQ((ids{3}), model.shown);
    press("ct");
    EXPECT_EQ((ids{1, 2, 3}), model.shown);
}

TEST_F(TopModel, FiltersByWordsWhileTheyAreTyped) {
    look({card_of(true, 0x0200000000AB), card_of(false, 0x0200000000AC), card_of(false, 3)});
    press("/0AB");
    EXPECT_EQ((ids{0x0200000000AB}), model.shown);
    press(key_backspace);
    EXPECT_EQ((ids{0x0200000000AB, 0x0200000000AC}), model.shown);
    press(" 40g");
    EXPECT_EQ((ids{0x0200000000AC}), model.shown);
    press(key_enter);
    EXPECT_FALSE(model.typed);
    EXPECT_EQ("0A 40g", model.filter.text);
    press("/");
    press(key_clear);
    EXPECT_EQ(3U, model.shown.size());
    press("vlan10");
    EXPECT_EQ((ids{0x0200000000AB}), model.shown);
    press(key_escape);  // as before
    EXPECT_EQ((ids{0x0200000000AC}), model.shown);
    press(key_escape);
    EXPECT_EQ(3U, model.shown.size());
    EXPECT_FALSE(model.quit);
    press("/00:00:ac");
    EXPECT_EQ((ids{0x0200000000AC}), model.shown);
}

TEST_F(TopModel, KeepsTheSelectedCardWhenTheOrderChanges) {
    look({card_of(false, 10), card_of(false, 20), card_of(false, 30)});
    press("j");
    ASSERT_EQ(20U, model.selected);
    cards.push_back(card_of(false, 5));
    look();
    EXPECT_EQ(20U, model.selected);
    EXPECT_EQ(2U, model.at);
    press("r");
    EXPECT_EQ(20U, model.selected);
    EXPECT_EQ(1U, model.at);
}

TEST_F(TopModel, StaysOnTheFirstCardUntilTheSelectionIsMoved) {
    look({card_of(false, 10)});
    look({card_of(false, 5), card_of(false, 10)});
    EXPECT_EQ(5U, model.selected);
    press("j");
    look({card_of(false, 1), card_of(false, 5), card_of(false, 10)});
    EXPECT_EQ(10U, model.selected);
    press(key_home);
    look({card_of(false, 0), card_of(false, 1), card_of(false, 5)});
    EXPECT_EQ(0U, model.selected);
}

TEST_F(TopModel, SelectsTheNeighbourOfACardThatIsNoLongerShown) {
    look({card_of(false, 10), card_of(false, 20), card_of(false, 30)});
    press("G");
    look({card_of(false, 10), card_of(false, 20)});
    EXPECT_EQ(20U, model.selected);
    look({});
    EXPECT_TRUE(model.shown.empty());
    press(key_enter);
    EXPECT_EQ(top_page::cards, model.page);
}

TEST_F(TopModel, KeepsTheSelectedCardOnTheScreen) {
    look_at_many(2000);
    press(key_page_down);
    EXPECT_EQ(10U, model.selected);
    EXPECT_EQ(0U, model.first);
    press("j");
    EXPECT_EQ(1U, model.first);
    press("G");
    EXPECT_EQ(2000U, model.selected);
    EXPECT_EQ(1990U, model.first);
    press(key_page_up);
    EXPECT_EQ(1990U, model.first);
    EXPECT_EQ(1990U, model.at);
    press("k");
    EXPECT_EQ(1989U, model.first);
    set_height(model, 3000, 0);
    EXPECT_EQ(0U, model.first);
    set_height(model, 4, 0);
    EXPECT_LE(model.first, model.at);
    EXPECT_LT(model.at, model.first + 4);
    look_at_many(3);
    EXPECT_EQ(0U, model.first);
    EXPECT_EQ(2U, model.at);
}

TEST_F(TopModel, KeepsTheDetailOfACardThatTheFilterNoLongerLetsThrough) {
    look({card_of(false, 10), card_of(false, 20)});
    press("cj");
    press(key_enter);
    ASSERT_EQ(top_page::detail, model.page);
    part_of(cards[1]).ecd_state[1][1] = 0;
    look();
    EXPECT_EQ((ids{10}), model.shown);
    EXPECT_EQ(20U, model.selected);
    press(key_escape);
    EXPECT_EQ(top_page::cards, model.page);
    EXPECT_EQ(10U, model.selected);
}

TEST_F(TopModel, ScrollsTheDetail) {
    look({card_of(true, 10)});
    press(key_enter);
    set_height(model, 10, 25);
    press("jjj");
    EXPECT_EQ(3U, model.detail_first);
    press("G");
    EXPECT_EQ(15U, model.detail_first);
    press("g");
    EXPECT_EQ(0U, model.detail_first);
    EXPECT_EQ(10U, model.selected);
}

TEST_F(TopModel, GoesBackStepByStep) {
    look({card_of(true, 10)});
    press("/qnsv");
    press(key_enter);
    press(key_enter);
    press("?");
    ASSERT_EQ(top_page::help, model.page);
    press("q");  // any key
    EXPECT_EQ(top_page::cards, model.page);
    press(key_escape);
    EXPECT_EQ("", model.filter.text);
    EXPECT_FALSE(model.quit);
    press(key_escape);
    EXPECT_TRUE(model.quit);
}

TEST_F(TopModel, EndsByItsKey) {
    press("/q");
    EXPECT_FALSE(model.quit);
    press(key_enter);
    press("q");
    EXPECT_TRUE(model.quit);
}

TEST_F(TopModel, CountsEventsOfCardsThatAreNotSeenYet) {
    look({});
    event(7, 3);
    look({card_of(false, 7)});
    EXPECT_EQ(3U, shown_card(model, 0).events);
    EXPECT_EQ(3, shown_card(model, 0).event_rate.per_second());
    EXPECT_EQ(3, model.event_rate.per_second());
    EXPECT_EQ(QNM_EVT_UPDATEDEVINFO, shown_card(model, 0).last_event);
    count_events(model, {}, 5);
    EXPECT_EQ(8U, model.events);
    EXPECT_EQ(5U, model.lost_events);
}

TEST_F(TopModel, HasACardOfTwoKindsOnceAsItIsNow) {
    std::vector<card> at = {card_of(true, 7), card_of(false, 7)};
    part_of(at[0]).ecd_updatetime = 2;
    part_of(at[1]).ecd_updatetime = 1;
    look(at);
    ASSERT_EQ((ids{7}), model.shown);
    EXPECT_STREQ("QNSV", kind_text(*shown_card(model, 0).record));
}

TEST_F(TopModel, HasRatesOfThePortsThatAreThere) {
    model.ports = {{.name = "a"}, {.name = "b"}};
    look_at_ports(model, {{"a", {true, 10, 20}}}, 1);
    look_at_ports(model, {{"a", {true, 15, 40}}, {"b", {false, 1, 1}}}, 2);
    EXPECT_EQ(5, model.ports[0].received.per_second());
    EXPECT_EQ(20, model.ports[0].sent.per_second());
    EXPECT_EQ(0, model.ports[1].sent.per_second());
    ASSERT_TRUE(model.ports[1].now);
    look_at_ports(model, {}, 3);
    EXPECT_FALSE(model.ports[0].now);
    EXPECT_EQ(0, model.ports[0].received.per_second());
}

TEST(TopKeys, AreTakenOnceAndTold) {
    std::set<int> taken;
    ASSERT_NE(nullptr, top_keys().front().shown);
    for (const top_key_row& row : top_keys()) {
        EXPECT_EQ(row.shown == nullptr, row.help == nullptr);
        for (const int key : row.keys)
            EXPECT_TRUE(key == 0 || taken.insert(key).second) << key;
    }
}

TEST(PortCounts, HaveTheLoopbackInterfaceOfEveryMachine) {
    EXPECT_TRUE(read_port_counts().contains("lo"));
}

}  // namespace
}  // namespace qnmctl
