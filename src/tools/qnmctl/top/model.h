// What the full-screen view is about: the cards in their order, what is filtered out, which card is
// selected, and rates. Neither manager nor terminal is needed here.
//
// All input comes from outside: cards, ports, events, keys, the size of the screen. The model
// decides what is shown, and layout.h makes lines of it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "cards/arrangement.h"
#include "output/text.h"
#include "records/condition.h"
#include "records/event_text.h"
#include "records/fields.h"
#include "top/ports.h"

namespace qnmctl {

// How often a second a counter was raised during the last seconds.
class rate {
  public:
    void look(double seconds, std::uint64_t count);
    double per_second() const;  // 0 until there were two looks
    bool is_new() const { return looks_.empty(); }

  private:
    struct seen {
        double seconds;
        std::uint64_t count;
    };
    std::vector<seen> looks_ = {};
};

struct top_port {
    std::string name = {};
    std::optional<port_counts> now = {};  // nothing: there is no such interface
    rate received = {};
    rate sent = {};
};

struct top_card {
    std::optional<card> record = {};  // nothing: not seen by a look
    std::uint64_t events = 0;
    rate event_rate = {};
    std::optional<qnm_evt_type_t> last_event = {};
};

enum class top_page { cards, detail, help };

// What the cards are sorted by; the first ones are those of card_order.
enum class top_order { id, kind, type, vlan, paths, heard, events, rate };

struct top_model {
    // What was seen.
    std::vector<top_port> ports = {};
    std::map<std::uint64_t, top_card> cards = {};
    wall_time now = {};
    double looked = 0;  // seconds, at the cards
    std::uint64_t events = 0;
    std::uint64_t lost_events = 0;
    rate event_rate = {};
    std::optional<observed> last_event = {};

    // How it is to be shown.
    card_filter filter = {};
    top_order order = top_order::id;
    bool reversed = false;
    top_page page = top_page::cards;
    std::optional<std::string> typed = {};  // the filter, while it is being typed
    bool quit = false;

    // What follows from both: the cards in their order, and the part of them on the screen. Until
    // the operator moves it the selection is the first card, whichever that is.
    std::vector<std::uint64_t> shown = {};
    std::optional<std::uint64_t> selected = {};
    bool follows_first = true;
    std::size_t at = 0;     // of the selected one in what is shown
    std::size_t first = 0;  // on the screen
    std::size_t height = 0;

    // The card's detail.
    std::size_t detail_first = 0;
    std::size_t detail_lines = 0;
};

// A look at everything; `seconds` is a time that never goes back.
void look_at_cards(top_model& model, const std::vector<card>& cards, wall_time now, double seconds);
void look_at_ports(top_model& model, const all_port_counts& counts, double seconds);

void count_events(top_model& model, const std::vector<observed>& events, std::uint64_t lost);

// After anything that changes which cards are shown, or their order.
void arrange(top_model& model);

// The lines on the screen that cards have, and those that the detail has in all.
void set_height(top_model& model, std::size_t lines, std::size_t detail_lines);

// A card that is in what is shown.
const top_card& shown_card(const top_model& model, std::size_t at);

// How --sort and the view call the orders, by their value.
inline constexpr const char* top_order_words[] = {"id",    "kind",  "type",   "vlan",
                                                  "paths", "heard", "events", "rate"};

// Keys: printable ones are themselves.
enum top_key : int {
    key_up = 0x1000,
    key_down,
    key_page_up,
    key_page_down,
    key_home,
    key_end,
    key_enter,
    key_escape,
    key_backspace,
    key_clear  // the line that is typed
};

// What keys do in the list and the detail; the help shows them by these rows.
struct top_key_row {
    const char* shown;  // "Enter"; nullptr: the row before tells it
    const char* help;
    int keys[2];  // the second can be 0
    void (*act)(top_model&);
};
std::span<const top_key_row> top_keys();

void press(top_model& model, int key);

}  // namespace qnmctl
