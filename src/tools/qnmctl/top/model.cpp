// Order, filter, selection and keys of the full-screen view.
#include "top/model.h"

#include <algorithm>
#include <iterator>

namespace qnmctl {

namespace {

// ---- Orders -------------------------------------------------------------------------------------

struct order_row {
    double (*key)(const top_card&, wall_time now);
    bool most_first;
};

template <card_order Order>
double record_key(const top_card& shown, wall_time now) {
    return order_key(*shown.record, Order, now);
}

double events_key(const top_card& shown, wall_time) {
    return static_cast<double>(shown.events);
}

double rate_key(const top_card& shown, wall_time) {
    return shown.event_rate.per_second();
}

// Indexed by top_order.
constexpr order_row orders[] = {
    {record_key<card_order::id>, false},
    {record_key<card_order::kind>, false},
    {record_key<card_order::type>, false},
    {record_key<card_order::vlan>, false},
    {record_key<card_order::paths>, false},
    {record_key<card_order::heard>, true},
    {events_key, true},
    {rate_key, true},
};
static_assert(std::size(orders) == std::size(top_order_words));

void sort_shown(top_model& model) {
    const order_row& order = orders[static_cast<std::size_t>(model.order)];
    const double sign = order.most_first != model.reversed ? -1 : 1;
    std::vector<std::pair<double, std::uint64_t>> keyed;  // equal ones by ascending ID
    for (const std::uint64_t id : model.shown)
        keyed.emplace_back(sign * order.key(model.cards.at(id), model.now), id);
    std::sort(keyed.begin(), keyed.end());
    std::transform(keyed.begin(), keyed.end(), model.shown.begin(),
                   [](const auto& entry) { return entry.second; });
}

// ---- Selection and screen -----------------------------------------------------------------------

// If the selected card is no longer shown, the card in its place is selected.
void find_selected(top_model& model) {
    const auto found = std::find(model.shown.begin(), model.shown.end(), model.selected);
    if (model.shown.empty()) {
        model.at = 0;
    } else if (model.follows_first) {
        model.at = 0;
        model.selected = model.shown.front();
    } else if (found != model.shown.end()) {
        model.at = static_cast<std::size_t>(found - model.shown.begin());
    } else if (model.page != top_page::detail) {
        model.at = std::min(model.at, model.shown.size() - 1);
        model.selected = model.shown[model.at];
    }
}

void keep_on_screen(top_model& model) {
    const std::size_t height = std::max<std::size_t>(model.height, 1);
    const std::size_t last_first = model.shown.size() - std::min(model.shown.size(), height);
    if (model.at < model.first) model.first = model.at;
    if (model.at >= model.first + height) model.first = model.at + 1 - height;
    model.first = std::min(model.first, last_first);
}

void keep_detail_on_screen(top_model& model) {
    const std::size_t most = model.detail_lines - std::min(model.detail_lines, model.height);
    model.detail_first = std::min(model.detail_first, most);
}

// ---- Keys ---------------------------------------------------------------------------------------

// By so many lines, down where it is positive.
void move(top_model& model, std::ptrdiff_t lines) {
    const bool detail = model.page == top_page::detail;
    const std::size_t from = detail ? model.detail_first : model.at;
    const std::size_t end = detail ? model.detail_lines : model.shown.size();
    if (end == 0) return;
    const auto wanted = static_cast<std::ptrdiff_t>(from) + lines;
    const auto last = static_cast<std::ptrdiff_t>(end) - 1;
    const auto to = static_cast<std::size_t>(std::clamp<std::ptrdiff_t>(wanted, 0, last));
    if (detail) {
        model.detail_first = to;
        keep_detail_on_screen(model);
        return;
    }
    model.at = to;
    model.selected = model.shown[to];
    model.follows_first = false;
    keep_on_screen(model);
}

std::ptrdiff_t page_lines(const top_model& model) {
    return std::max<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(model.height) - 1, 1);
}

std::ptrdiff_t every_line(const top_model& model) {
    return static_cast<std::ptrdiff_t>(std::max(model.shown.size(), model.detail_lines));
}

void go_up(top_model& model) {
    move(model, -1);
}

void go_down(top_model& model) {
    move(model, 1);
}

void go_page_up(top_model& model) {
    move(model, -page_lines(model));
}

void go_page_down(top_model& model) {
    move(model, page_lines(model));
}

void go_home(top_model& model) {
    move(model, -every_line(model));
    if (model.page == top_page::cards) model.follows_first = true;
}

void go_end(top_model& model) {
    move(model, every_line(model));
}

// The detail stays with its card, wherever the card moves.
void open_detail(top_model& model) {
    if (model.page == top_page::detail) {
        model.page = top_page::cards;
    } else if (!model.shown.empty()) {
        model.page = top_page::detail;
        model.follows_first = false;
        model.detail_first = 0;
    }
}

void begin_filter(top_model& model) {
    model.page = top_page::cards;
    model.typed = model.filter.text;
}

// Every card, then each of the two.
template <class Value>
void step_filter(std::optional<Value>& item, Value first, Value second) {
    if (!item) {
        item = first;
    } else if (*item == first) {
        item = second;
    } else {
        item.reset();
    }
}

void step_kind(top_model& model) {
    step_filter(model.filter.cards.kind, card_kind::server, card_kind::device);
}

void step_connected(top_model& model) {
    step_filter(model.filter.connected, true, false);
}

void step_order(top_model& model, std::size_t by) {
    const std::size_t next = static_cast<std::size_t>(model.order) + by;
    model.order = static_cast<top_order>(next % std::size(orders));
    model.reversed = false;
}

void next_order(top_model& model) {
    step_order(model, 1);
}

void previous_order(top_model& model) {
    step_order(model, std::size(orders) - 1);
}

void turn_order(top_model& model) {
    model.reversed = !model.reversed;
}

void open_help(top_model& model) {
    model.page = top_page::help;
}

// One step back: from the detail, from the filter, from the view.
void go_back(top_model& model) {
    if (model.page != top_page::cards) {
        model.page = top_page::cards;
    } else if (!model.filter.text.empty()) {
        model.filter.text.clear();
    } else {
        model.quit = true;
    }
}

void quit(top_model& model) {
    model.quit = true;
}

// Keys that belong together are explained in the row of the first one.
constexpr top_key_row rows[] = {
    {"Up/Down, k/j", "Move", {key_up, 'k'}, go_up},
    {nullptr, nullptr, {key_down, 'j'}, go_down},
    {"PgUp/PgDn, b/Space", "Move by a screen", {key_page_up, 'b'}, go_page_up},
    {nullptr, nullptr, {key_page_down, ' '}, go_page_down},
    {"Home/End, g/G", "To the first and stay there, to the end", {key_home, 'g'}, go_home},
    {nullptr, nullptr, {key_end, 'G'}, go_end},
    {"Enter", "The card's detail, and back", {key_enter}, open_detail},
    {"/", "Type a filter: words of ID, kind, type", {'/'}, begin_filter},
    {"t", "Both kinds, only QNSV, only QNIO", {'t'}, step_kind},
    {"c", "All, only connected, only disconnected", {'c'}, step_connected},
    {"s/S", "Sort by the next, the previous order", {'s'}, next_order},
    {nullptr, nullptr, {'S'}, previous_order},
    {"r", "Reverse the order", {'r'}, turn_order},
    {"?, h", "This help; any key closes it", {'?', 'h'}, open_help},
    {"Esc", "Back: from detail, filter, view", {key_escape}, go_back},
    {"q, Ctrl-C", "End", {'q'}, quit},
};

// The cards follow every key; Esc restores the earlier filter.
void type(top_model& model, int key) {
    constexpr std::size_t longest = 256;
    std::string& text = *model.typed;
    if (key == key_enter) {
        model.filter.text = text;
        model.typed.reset();
    } else if (key == key_escape) {
        model.typed.reset();
    } else if (key == key_clear) {
        text.clear();
    } else if (key == key_backspace) {
        if (!text.empty()) text.pop_back();
    } else if (key >= ' ' && key <= '~' && text.size() < longest) {
        text += static_cast<char>(key);
    }
}

}  // namespace

// ---- Rates --------------------------------------------------------------------------------------

void rate::look(double seconds, std::uint64_t count) {
    constexpr double window = 5;
    if (!looks_.empty() && count < looks_.back().count) looks_.clear();  // it began anew
    looks_.push_back({seconds, count});
    // The one in front of the window is its beginning.
    while (looks_.size() > 2 && looks_[1].seconds <= seconds - window)
        looks_.erase(looks_.begin());
}

double rate::per_second() const {
    if (looks_.size() < 2) return 0;
    const double seconds = looks_.back().seconds - looks_.front().seconds;
    if (seconds <= 0) return 0;
    return static_cast<double>(looks_.back().count - looks_.front().count) / seconds;
}

// ---- What is seen -------------------------------------------------------------------------------

void look_at_cards(top_model& model, const std::vector<card>& cards, wall_time now,
                   double seconds) {
    model.now = now;
    for (auto& [id, known] : model.cards)
        known.record.reset();
    for (const card& fresh : cards) {
        top_card& known = model.cards[common(fresh).ecd_id];
        // A card that has changed its kind has two records; the one that changed last counts.
        const bool older =
            known.record && common(*known.record).ecd_updatetime > common(fresh).ecd_updatetime;
        if (!older) known.record = fresh;
    }
    const auto look = [&](rate& measured, std::uint64_t events) {
        if (measured.is_new() && events > 0) measured.look(model.looked, 0);
        measured.look(seconds, events);
    };
    for (auto& [id, known] : model.cards)
        look(known.event_rate, known.events);
    look(model.event_rate, model.events);
    model.looked = seconds;
    arrange(model);
}

void look_at_ports(top_model& model, const all_port_counts& counts, double seconds) {
    for (top_port& port : model.ports) {
        const auto found = counts.find(port.name);
        if (found == counts.end()) {
            port = {.name = port.name};
            continue;
        }
        port.now = found->second;
        port.received.look(seconds, port.now->received);
        port.sent.look(seconds, port.now->sent);
    }
}

void count_events(top_model& model, const std::vector<observed>& events, std::uint64_t lost) {
    for (const observed& seen : events) {
        top_card& shown = model.cards[seen.id];
        ++shown.events;
        shown.last_event = seen.type;
    }
    model.events += events.size() + lost;
    model.lost_events += lost;
    if (!events.empty()) model.last_event = events.back();
}

// ---- What is shown ------------------------------------------------------------------------------

void arrange(top_model& model) {
    card_filter filter = model.filter;
    if (model.typed) filter.text = *model.typed;
    model.shown.clear();
    for (const auto& [id, known] : model.cards) {
        if (known.record && passes(*known.record, filter)) model.shown.push_back(id);
    }
    sort_shown(model);
    find_selected(model);
    keep_on_screen(model);
}

void set_height(top_model& model, std::size_t lines, std::size_t detail_lines) {
    model.height = lines;
    model.detail_lines = detail_lines;
    keep_on_screen(model);
    keep_detail_on_screen(model);
}

const top_card& shown_card(const top_model& model, std::size_t at) {
    return model.cards.at(model.shown.at(at));
}

std::span<const top_key_row> top_keys() {
    return rows;
}

void press(top_model& model, int key) {
    if (model.typed) {
        type(model, key);
    } else if (model.page == top_page::help) {
        model.page = top_page::cards;  // any key
    } else {
        const auto row =
            std::find_if(std::begin(rows), std::end(rows), [&](const top_key_row& candidate) {
                return key != 0 && (candidate.keys[0] == key || candidate.keys[1] == key);
            });
        if (row != std::end(rows)) row->act(model);
    }
    arrange(model);
}

}  // namespace qnmctl
