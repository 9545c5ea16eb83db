// The full-screen view on screens of several sizes.
#include "top/layout.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/sample_cards.h"

namespace qnmctl {
namespace {

constexpr std::uint64_t now_ms = 1'700'000'010'000;
constexpr std::uint64_t first_id = 0x020000003000;

std::vector<card> many_cards(std::uint64_t count) {
    std::vector<card> made;
    for (std::uint64_t at = 0; at < count; ++at) {
        qnm_qnio_t one = sample_device();
        one.eio_com_dev.ecd_id = first_id + at;
        one.eio_com_dev.ecd_recvtime[1][1] = now_ms - 1500;
        made.emplace_back(one);
    }
    return made;
}

top_model model_of(const std::vector<card>& cards) {
    top_model made;
    made.ports = {{.name = "eth1"}, {.name = "eth2"}};
    look_at_ports(made, {{"eth1", {true, 100, 0}}, {"eth2", {false, 0, 0}}}, 1);
    look_at_ports(made, {{"eth1", {true, 1350, 5}}}, 2);
    count_events(made, {{{}, QNM_EVT_CHANNELSTATECHANGE, first_id, std::nullopt}}, 0);
    look_at_cards(made, cards, from_milliseconds(now_ms), 1);
    look_at_cards(made, cards, from_milliseconds(now_ms), 2);
    return made;
}

std::string text_of(const std::vector<top_line>& lines) {
    std::string text;
    for (const top_line& one : lines)
        text += one.text + '\n';
    return text;
}

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

void press_all(top_model& model, const std::string& keys) {
    for (const char key : keys)
        press(model, key);
}

std::size_t selected_lines(const std::vector<top_line>& lines) {
    return static_cast<std::size_t>(
        std::count_if(lines.begin(), lines.end(),
                      [](const top_line& one) { return one.style == top_style::selected; }));
}

TEST(TopLayout, HasPortsEventsAndCardsAt80Columns) {
    top_model model = model_of({sample_server(), sample_device()});
    std::string text = text_of(top_lines(model, {80, 24}));
    text.erase(0, text.find("  ") + 2);  // the local time
    EXPECT_EQ(
        "2 cards: 1 QNSV, 1 QNIO; 2 connected\n"
        "port 0 eth1            up    frames/s in      1250 out       5.0\n"
        "port 1 eth2            there is no such interface\n"
        "events/s 0.5, 1 in all; last CHANNELSTATECHANGE 0x020000003000\n"
        "sort id; 2 shown\n"
        "ID             KIND TYPE  VLAN P0M0 P0M1 P1M0 P1M1  HEARD  EVENTS   EV/S\n"
        "0x020000001000 QNSV 1/10G   10    C    -    -    -    9 s       0    0.0\n"
        "0x020000003000 QNIO 40G     30    -    -    -    C  never       1    0.5\n"
        "\n\n\n\n\n\n\n\n\n\n\n\n\n\n\n"
        "? help  q end  Enter detail  / filter  t kind  c state  s sort  r reverse\n",
        text);
}

TEST(TopLayout, FitsEverySizeOnEveryPage) {
    top_model model = model_of(many_cards(2000));
    std::vector<card> servers = {sample_server()};
    top_model server = model_of(servers);
    const top_size sizes[] = {{80, 24}, {60, 15}, {200, 50}, {20, 5}, {3, 2}, {1, 1}, {0, 0}};
    for (const std::string keys : {"", "G", "/4", "?", "\r", "\rG"}) {
        for (top_model* const one : {&model, &server}) {
            one->page = top_page::cards;
            one->typed.reset();
            for (const char key : keys)
                press(*one, key == '\r' ? int{key_enter} : key);
            for (const top_size& size : sizes) {
                const std::vector<top_line> lines = top_lines(*one, size);
                EXPECT_LE(lines.size(), size.height) << keys;
                for (const top_line& line : lines)
                    EXPECT_LE(line.text.size(), size.width) << keys << ": " << line.text;
            }
        }
    }
}

TEST(TopLayout, ShowsAScreenOfTwoThousandCards) {
    top_model model = model_of(many_cards(2000));
    for (const top_size& size : {top_size{80, 24}, top_size{60, 15}, top_size{200, 50}}) {
        press(model, key_home);
        const std::vector<top_line> top = top_lines(model, size);
        EXPECT_EQ(size.height, top.size());
        EXPECT_EQ(size.height - 7, model.height);  // title, ports, events, order, heading, keys
        EXPECT_EQ(top_style::selected, top[6].style);
        EXPECT_EQ(1U, selected_lines(top));
        press(model, key_end);
        const std::vector<top_line> end = top_lines(model, size);
        EXPECT_EQ(size.height, end.size());
        EXPECT_EQ(top_style::selected, end[size.height - 2].style);
        EXPECT_TRUE(holds(end[size.height - 2].text, "0x0200000037cf")) << text_of(end);
        EXPECT_EQ(1U, selected_lines(end));
    }
}

TEST(TopLayout, HasTheSelectedCardOnTheScreenAfterItHasBecomeSmaller) {
    top_model model = model_of(many_cards(2000));
    top_lines(model, {200, 50});
    press(model, key_page_down);
    EXPECT_EQ(1U, selected_lines(top_lines(model, {60, 15})));
}

TEST(TopLayout, LeavesOutWhatIsWantedLeastWhereItIsNarrow) {
    top_model model = model_of(many_cards(1));
    EXPECT_TRUE(holds(text_of(top_lines(model, {200, 50})), "LAST EVENT"));
    const std::string narrow = text_of(top_lines(model, {60, 15}));
    EXPECT_FALSE(holds(narrow, "EV/S"));
    for (const char* const kept : {"P0M0", "P0M1", "P1M0", "P1M1", "HEARD", "EVENTS"})
        EXPECT_TRUE(holds(narrow, kept)) << narrow;
}

TEST(TopLayout, KeepsItsColumnsWhereverTheCardsAre) {
    std::vector<card> cards = many_cards(100);
    std::get<qnm_qnio_t>(cards.back()).eio_com_dev.ecd_vlan_id = 4094;
    top_model model = model_of(cards);
    const std::string heading = top_lines(model, {80, 24})[5].text;
    press(model, key_end);
    EXPECT_EQ(heading, top_lines(model, {80, 24})[5].text);
}

TEST(TopLayout, TellsHowLongACardIsSilent) {
    constexpr std::uint64_t second = 1000;
    const struct {
        std::uint64_t silent;
        const char* text;
    } expected[] = {{0, "0 s"},
                    {99 * second, "99 s"},
                    {120 * second, "2 min"},
                    {7200 * second, "2 h"},
                    {864'000 * second, "10 d"}};
    for (const auto& one : expected) {
        std::vector<card> cards = many_cards(1);
        std::get<qnm_qnio_t>(cards.front()).eio_com_dev.ecd_recvtime[1][1] = now_ms - one.silent;
        top_model model = model_of(cards);
        EXPECT_TRUE(holds(text_of(top_lines(model, {80, 24})), std::string(" ") + one.text))
            << one.text;
    }
}

TEST(TopLayout, MarksCardsThatHaveLostPaths) {
    std::vector<card> cards = many_cards(4);  // the first is selected
    auto& lost_one = std::get<qnm_qnio_t>(cards[1]).eio_com_dev;
    lost_one.ecd_recvtime[0][0] = 1;
    std::get<qnm_qnio_t>(cards[2]).eio_com_dev.ecd_state[1][1] = 0;
    top_model model = model_of(cards);
    const std::vector<top_line> lines = top_lines(model, {80, 24});
    EXPECT_EQ(top_style::warning, lines[7].style);
    EXPECT_TRUE(holds(lines[7].text, "D    -    -    C")) << lines[7].text;
    EXPECT_EQ(top_style::alarm, lines[8].style);
    EXPECT_EQ(top_style::plain, lines[9].style);
}

TEST(TopLayout, TellsWhatIsFilteredOut) {
    top_model model = model_of({sample_server(), sample_device()});
    press_all(model, "ttcsr/3000");
    press(model, key_enter);
    const std::string text = text_of(top_lines(model, {80, 24}));
    EXPECT_TRUE(
        holds(text, "sort kind reversed; 1 shown, only QNIO, only connected, filter \"3000\""))
        << text;
    EXPECT_FALSE(holds(text, "0x020000001000 ")) << text;
}

TEST(TopLayout, ShowsTheFilterThatIsTyped) {
    top_model model = model_of({sample_server()});
    press_all(model, "/ab");
    EXPECT_TRUE(holds(top_lines(model, {80, 24}).back().text, "/ab_"));
}

TEST(TopLayout, ShowsEveryFieldOfACard) {
    top_model model = model_of({sample_server()});
    press(model, key_enter);
    const std::string top = text_of(top_lines(model, {80, 24}));
    EXPECT_TRUE(top.starts_with("QNSV card 0x020000001000\n  last heard 9 s ago; 0 events")) << top;
    EXPECT_TRUE(holds(top, "path P0M0                        state.P0M0         connected")) << top;
    EXPECT_TRUE(holds(top, "lines 1 to 22 of ")) << top;
    press(model, key_end);
    const std::string end = text_of(top_lines(model, {80, 24}));
    EXPECT_TRUE(holds(end, "down port 7")) << end;
}

TEST(TopLayout, SaysThatTheCardOfTheDetailHasGone) {
    top_model model = model_of({sample_server()});
    press(model, key_enter);
    look_at_cards(model, {}, from_milliseconds(now_ms), 3);
    EXPECT_TRUE(holds(text_of(top_lines(model, {80, 24})), "no longer known"));
}

TEST(TopLayout, HasItsWholeHelpOnASmallScreen) {
    top_model model;
    press(model, '?');
    EXPECT_EQ(text_of(top_lines(model, {200, 50})), text_of(top_lines(model, {60, 15})));
    EXPECT_TRUE(holds(text_of(top_lines(model, {60, 15})), "q, Ctrl-C"));
}

TEST(TopLayout, HasNothingThatATerminalWouldTakeForSomethingElse) {
    top_model model;
    model.ports = {{.name = "e\033[2J\xC3\xA4"}};
    EXPECT_TRUE(holds(text_of(top_lines(model, {80, 24})), "port 0 e\\x1b[2J??"));
}

}  // namespace
}  // namespace qnmctl
