// Sums up the events of a watch, so that it has no line for every card.
//
// At the start every card is new, and when a port goes down all cards behind it are lost at once.
// So the cards heard at the start become one summary, and those of a port that went down one line.
// All other events are printed as they come.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "output/output.h"
#include "records/event_text.h"

namespace qnmctl {

struct digest_options {
    bool each_card = false;  // the cards of a port that went down as well, below its line
    std::vector<std::string> ports = {};  // interfaces
    bool coloured = false;
};

class digest {
  public:
    using clock = std::chrono::steady_clock;

    static constexpr std::chrono::seconds opening{3};              // how long the start lasts
    static constexpr std::chrono::milliseconds port_pause{300};    // without a further lost card
    static constexpr std::chrono::milliseconds port_limit{2'000};  // the longest a line is held

    digest(digest_options how, clock::time_point start);

    // The lines to write for an event; none when it is held back.
    std::string add(const observed& seen, const told_change& reported, clock::time_point now);

    // When due() has something to write, if nothing else happens.
    std::optional<clock::time_point> next() const;

    // What was held back and is due; at the end everything that was.
    std::string due(clock::time_point now);
    std::string end(clock::time_point now);

  private:
    struct lost_port {
        wall_time when;
        clock::time_point first;
        clock::time_point last;
        std::map<std::uint64_t, std::string> cards = {};  // lines, by ID
    };

    bool is_opening(const observed& seen, const told_change& reported, clock::time_point now) const;
    std::string summarise(clock::time_point now);
    std::string port_text(int port, const lost_port& lost) const;

    digest_options how_;
    clock::time_point start_;
    clock::time_point summary_at_;
    bool summarised_ = false;
    std::map<std::uint64_t, card> heard_ = {};  // in the opening
    std::map<int, lost_port> ports_ = {};
};

// "2,000"
std::string grouped(std::uint64_t number);

}  // namespace qnmctl
