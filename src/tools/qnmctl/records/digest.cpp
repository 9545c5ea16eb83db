// Holds events back until all that belong to one line have come.
#include "records/digest.h"

#include <algorithm>
#include <utility>

#include "output/text.h"
#include "records/condition.h"

namespace qnmctl {

namespace {

std::string counted(std::uint64_t number, const char* what) {
    return grouped(number) + ' ' + what + (number == 1 ? "" : "s");
}

// The port whose link loss explains all lost paths of the event; nothing for other events.
std::optional<int> lost_with_port(const reported_change& reported) {
    const auto is_link_down = [](const reason& why) { return why.why == cause::link_down; };
    if (reported.changes.empty()) {
        return is_link_down(reported.why) ? std::optional(reported.why.port) : std::nullopt;
    }
    const reason& first = reported.changes.front().why;
    const bool all = std::ranges::all_of(
        reported.changes, [&](const change& difference) { return difference.why == first; });
    return all && is_link_down(first) ? std::optional(first.port) : std::nullopt;
}

// Whether nothing but paths by this port has changed, and these are connected.
bool is_back(const reported_change& reported, int port) {
    const auto is_path_back = [port](const change& difference) {
        return difference.after.about == aspect::path && difference.after.value != 0 &&
               difference.after.key[1] - '0' == port;
    };
    return !reported.first && std::ranges::all_of(reported.changes, is_path_back);
}

}  // namespace

std::string grouped(std::uint64_t number) {
    std::string text = std::to_string(number);
    for (std::size_t at = text.size(); at > 3; at -= 3)
        text.insert(at - 3, 1, ',');
    return text;
}

digest::digest(digest_options how, clock::time_point start)
    : how_(std::move(how)), start_(start), summary_at_(start + opening) {}

// Whether the event is a new card, or follows from its first announcements. A faulty card is
// printed even then.
bool digest::is_opening(const observed& seen, const reported_change& reported,
                        clock::time_point now) const {
    if (summarised_ || now >= summary_at_ || !seen.record) return false;
    const meaning kind = meaning_of(seen, reported);
    return reported.first ||
           ((kind == meaning::plain || kind == meaning::back) && heard_.contains(seen.id));
}

// The port that this card was cut off with, if it is connected by it again.
std::optional<int> digest::port_back(const observed& seen, const reported_change& reported) const {
    for (const auto& [port, cards] : cut_off_) {
        if (cards.contains(seen.id) && seen.record && is_back(reported, port)) return port;
    }
    return std::nullopt;
}

std::string digest::add(const observed& seen, const reported_change& reported,
                        clock::time_point now) {
    std::string printed = due(now);
    const std::string line = event_line(seen, reported, how_.coloured) + '\n';
    if (is_opening(seen, reported, now)) {
        heard_.insert_or_assign(seen.id, *seen.record);
        return printed;
    }
    if (const auto port = lost_with_port(reported)) {
        return printed + hold(*port, false, seen, line, now);
    }
    if (const auto port = port_back(seen, reported)) {
        return printed + hold(*port, true, seen, line, now);
    }
    return is_news(seen, reported) ? printed + line : printed;
}

// Several events can report the same change of a card, and an event can be late, when another one
// has reported its change. An error is printed in any case.
bool digest::is_news(const observed& seen, const reported_change& reported) {
    if (!seen.record || reported.first) return true;
    if (reported.changes.empty()) return seen.type == QNM_EVT_MAJORMINORERROR;
    std::vector<change>& last = last_changes_[seen.id];
    const bool is_known = std::ranges::all_of(reported.changes, [&](const change& difference) {
        return std::ranges::any_of(last, [&](const change& printed) {
            return printed.name == difference.name &&
                   printed.before.value == difference.before.value &&
                   printed.after.value == difference.after.value;
        });
    });
    if (!is_known) last = reported.changes;
    return !is_known;
}

// Returns what was held of the port before, if its link has changed since.
std::string digest::hold(int port, bool up, const observed& seen, const std::string& line,
                         clock::time_point now) {
    std::string before;
    const auto held = ports_.find(port);
    if (held != ports_.end() && held->second.up != up) {
        before = port_text(port, held->second);
        ports_.erase(held);
    }
    port_line& own = ports_.try_emplace(port, port_line{up, seen.when, now, now}).first->second;
    own.last = now;
    own.cards[seen.id] += line;
    return before;
}

// Cards are lost at once, but come back one by one.
digest::clock::time_point digest::end_of(int port, const port_line& held) const {
    if (!held.up) return std::min(held.last + port_pause, held.first + down_limit);
    const bool complete = held.cards.size() == cut_off_.at(port).size();
    const clock::time_point limit = held.first + up_limit;
    return complete ? std::min(held.last + port_pause, limit) : limit;
}

std::optional<digest::clock::time_point> digest::next() const {
    std::optional<clock::time_point> at;
    const auto consider = [&](clock::time_point candidate) {
        at = at ? std::min(*at, candidate) : candidate;
    };
    if (!summarised_) consider(summary_at_);
    for (const auto& [port, held] : ports_)
        consider(end_of(port, held));
    return at;
}

std::string digest::due(clock::time_point now) {
    std::string text;
    if (!summarised_ && now >= summary_at_) text += summarise(now);
    std::erase_if(ports_, [&](const auto& entry) {
        const auto& [port, held] = entry;
        if (now < end_of(port, held)) return false;
        text += port_text(port, held);
        return true;
    });
    return text;
}

std::string digest::end(clock::time_point now) {
    const std::string summary = summarised_ ? "" : summarise(now);
    return summary + due(clock::time_point::max());
}

// "heard in 3 s: 2 QNSV and 1,998 QNIO cards, 3 faulty; changes follow". Nothing follows a watch
// that ends earlier.
std::string digest::summarise(clock::time_point now) {
    const std::chrono::duration<double> listened = std::min(now, summary_at_) - start_;
    std::uint64_t servers = 0, faulty = 0, lost = 0;
    for (const auto& [id, record] : heard_) {
        servers += std::holds_alternative<qnm_qnsv_t>(record) ? 1U : 0U;
        faulty += condition_of(record) == condition::faulty ? 1U : 0U;
        lost += condition_of(record) == condition::lost ? 1U : 0U;
    }
    std::string text = "heard in " + seconds_text(listened.count()) + ": " + grouped(servers) +
                       " QNSV and " + counted(heard_.size() - servers, "QNIO card");
    if (faulty != 0) text += ", " + grouped(faulty) + " faulty";
    if (lost != 0) text += ", " + grouped(lost) + " lost";
    if (now >= summary_at_) text += "; changes follow, \"list\" shows the cards";
    summarised_ = true;
    heard_.clear();
    return text + '\n';
}

std::string digest::port_text(int port, const port_line& held) {
    const auto at = static_cast<std::size_t>(port);
    const std::string name = at < how_.ports.size() ? " (" + how_.ports[at] + ')' : "";
    const std::string what = "port " + std::to_string(port) + name + ": link ";
    std::set<std::uint64_t>& cut_off = cut_off_[port];
    std::string text = time_text(held.when) + ' ';
    if (held.up) {
        const std::size_t all = cut_off.size();
        text += in_colour(what + "up", green, how_.coloured) + ", ";
        if (held.cards.size() < all) text += grouped(held.cards.size()) + " of ";
        text += counted(all, "card") + " connected\n";
        cut_off.clear();
    } else {
        text += in_colour(what + "down", red, how_.coloured) + ", " +
                counted(held.cards.size(), "card") + " disconnected\n";
        for (const auto& [id, lines] : held.cards)
            cut_off.insert(id);
    }
    if (!how_.each_card) return text;
    for (const auto& [id, lines] : held.cards)
        text += lines;
    return text;
}

}  // namespace qnmctl
