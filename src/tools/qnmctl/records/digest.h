// Sums up the events of a watch, so that it has no line for every card.
//
// At the start every card is new; when a port goes down all cards behind it are lost at once, and
// they come back together. So the cards heard at the start become one summary, and those of a port
// whose link went down or up become one line. Other events are printed as they come, if they say
// something that the event before has not said of the card.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "output/output.h"
#include "records/event_text.h"

namespace qnmctl {

struct digest_options {
    bool each_card = false;               // the cards of a port as well, below its line
    std::vector<std::string> ports = {};  // interfaces
    bool coloured = false;
};

class digest {
  public:
    using clock = std::chrono::steady_clock;

    static constexpr std::chrono::seconds opening{3};            // how long the start lasts
    static constexpr std::chrono::milliseconds port_pause{300};  // after the last card of a port
    static constexpr std::chrono::seconds down_limit{2};         // the longest a line is held
    static constexpr std::chrono::seconds up_limit{3};           // each card announces itself in it

    digest(digest_options how, clock::time_point start);

    // The lines to write for an event; none when it is held back.
    std::string add(const observed& seen, const reported_change& reported, clock::time_point now);

    // When due() has something to write, if nothing else happens.
    std::optional<clock::time_point> next() const;

    // What was held back and is due; at the end everything that was.
    std::string due(clock::time_point now);
    std::string end(clock::time_point now);

  private:
    // The line of a port for which cards are being gathered.
    struct port_line {
        bool up;
        wall_time when;
        clock::time_point first;
        clock::time_point last;
        std::map<std::uint64_t, std::string> cards = {};  // lines, by ID
    };

    bool is_opening(const observed& seen, const reported_change& reported,
                    clock::time_point now) const;
    std::optional<int> port_back(const observed& seen, const reported_change& reported) const;
    bool is_news(const observed& seen, const reported_change& reported);
    std::string hold(int port, bool up, const observed& seen, const std::string& line,
                     clock::time_point now);
    clock::time_point end_of(int port, const port_line& held) const;
    std::string summarise(clock::time_point now);
    std::string port_text(int port, const port_line& held);

    digest_options how_;
    clock::time_point start_;
    clock::time_point summary_at_;
    bool summarised_ = false;
    std::map<std::uint64_t, card> heard_ = {};  // in the opening
    std::map<int, port_line> ports_ = {};
    std::map<std::uint64_t, std::vector<change>> last_changes_ = {};  // printed, by card
    std::map<int, std::set<std::uint64_t>> cut_off_ = {};  // cards lost with a port, until it is up
};

// "2,000"
std::string grouped(std::uint64_t number);

}  // namespace qnmctl
