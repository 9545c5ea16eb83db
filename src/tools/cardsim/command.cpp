// Line commands: one table, one line of answer each.
#include <algorithm>
#include <iterator>
#include <sstream>

#include "cardsim.h"
#include "fields.h"

namespace cardsim {

namespace {

using words = std::vector<std::string>;

struct command {
    std::string_view name;
    std::string_view usage;  // behind the name
    std::size_t least;       // words behind the name
    std::size_t most;
    std::string (*work)(simulator&, const words&);  // what follows "ok"
};

constexpr std::size_t any_number = ~std::size_t{0};

std::string frames_sent(std::size_t count) {
    return std::to_string(count) + (count == 1 ? " frame sent" : " frames sent");
}

std::string heard_text(const card& shown) {
    std::string text;
    for (std::size_t p = 0; p < port_limit; ++p) {
        for (std::size_t m = 0; m < path_limit; ++m) {
            if (!shown.heard[p][m]) continue;
            text += (text.empty() ? "P" : ",P") + std::to_string(p) + "M" + std::to_string(m);
        }
    }
    return text.empty() ? "silent" : text;
}

std::string list_cards(simulator& target, const words&) {
    const std::vector<card> cards = target.cards();
    std::string text = std::to_string(cards.size()) + (cards.size() == 1 ? " card" : " cards");
    for (const card& shown : cards) {
        text += "; " + shown.name + " " + id_text(shown.id) + " " +
                std::string(kind_name(shown.kind)) + " " + std::string(speed_name(shown.speed)) +
                " " + heard_text(shown);
    }
    return text;
}

// CARD PORT PATH
std::string change_heard(simulator& target, const words& given,
                         void (simulator::*change)(const card_ref&, std::size_t, std::size_t)) {
    const std::size_t port = parse_number("PORT", given[1], port_limit - 1);
    const std::size_t path = parse_number("PATH", given[2], path_limit - 1);
    (target.*change)(given[0], port, path);
    return heard_text(target.get(given[0]));
}

std::string silence_path(simulator& target, const words& given) {
    return change_heard(target, given, &simulator::silence);
}

std::string wake_path(simulator& target, const words& given) {
    return change_heard(target, given, &simulator::wake);
}

std::string set_card_field(simulator& target, const words& given) {
    target.set(given[0], given[1], given[2]);
    return given[1] + "=" + given[2];
}

frame_bytes parse_hex(const std::string& digits) {
    if (digits.size() % 2 != 0 ||
        digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        throw error("HEXBYTES are pairs of hexadecimal digits");
    }
    frame_bytes bytes;
    for (std::size_t at = 0; at < digits.size(); at += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(at, 2), nullptr, 16)));
    }
    return bytes;
}

std::string send_bytes(simulator& target, const words& given) {
    std::string digits;
    for (auto word = given.begin() + 1; word != given.end(); ++word)
        digits += *word;
    const frame_bytes frame = parse_hex(digits);
    target.send_raw(parse_number("PORT", given[0], port_limit - 1), frame);
    return std::to_string(frame.size()) + " bytes sent";
}

std::string send_devinfo(simulator& target, const words& given) {
    return frames_sent(target.devinfo(given[0]));
}

std::string send_notify(simulator& target, const words& given) {
    return frames_sent(target.notify(given[0]));
}

std::string send_burst(simulator& target, const words&) {
    return frames_sent(target.announce_all());
}

std::string remove_card(simulator& target, const words& given) {
    target.remove(given[0]);
    return "removed";
}

std::string show_counters(simulator& target, const words&) {
    return describe(target.count());
}

std::string quit(simulator&, const words&) {
    return "bye";
}

std::string help(simulator&, const words&);

constexpr std::string_view quit_name = "quit";

constexpr command commands[] = {
    {"silence", " CARD PORT PATH", 3, 3, silence_path},
    {"wake", " CARD PORT PATH", 3, 3, wake_path},
    {"set", " CARD FIELD VALUE", 3, 3, set_card_field},
    {"notify", " CARD", 1, 1, send_notify},
    {"devinfo", " CARD", 1, 1, send_devinfo},
    {"burst", "", 0, 0, send_burst},
    {"send", " PORT HEXBYTES", 2, any_number, send_bytes},
    {"remove", " CARD", 1, 1, remove_card},
    {"list", "", 0, 0, list_cards},
    {"counters", "", 0, 0, show_counters},
    {"help", "", 0, 0, help},
    {quit_name, "", 0, 0, quit},
};

std::string help(simulator&, const words&) {
    std::string text;
    for (const command& row : commands) {
        text += (text.empty() ? "" : "; ") + std::string(row.name) + std::string(row.usage);
    }
    return text + " (CARD: a name or 0xID)";
}

const command& find_command(std::string_view name) {
    const auto* row = std::find_if(std::begin(commands), std::end(commands),
                                   [&](const command& c) { return c.name == name; });
    if (row != std::end(commands)) return *row;
    std::vector<std::string_view> known;
    for (const command& c : commands)
        known.push_back(c.name);
    throw error(unknown_name("command", name, known));
}

std::string work(simulator& target, const std::string& name, const words& given) {
    const command& row = find_command(name);
    if (given.size() < row.least || given.size() > row.most) {
        throw error("usage: " + std::string(row.name) + std::string(row.usage));
    }
    return row.work(target, given);
}

}  // namespace

answer execute(simulator& target, std::string_view line) {
    std::istringstream in{std::string(line)};
    std::string name;
    if (!(in >> name)) return {};
    words given;
    for (std::string word; in >> word;)
        given.push_back(word);
    try {
        return {.text = "ok " + work(target, name, given), .quit = name == quit_name};
    } catch (const error& e) {
        return {.text = std::string("error: ") + e.what(), .quit = false};
    }
}

std::string describe(const counters& values) {
    const std::pair<const char*, std::uint64_t> shown[] = {
        {"devinfo", values.devinfo}, {"notify", values.notify},       {"raw", values.raw},
        {"retries", values.retries}, {"link_down", values.link_down}, {"lost", values.lost},
        {"failed", values.failed},   {"received", values.received},   {"faulty", values.faulty},
    };
    std::string text;
    for (const auto& [name, value] : shown) {
        text += (text.empty() ? "" : " ") + std::string(name) + "=" + std::to_string(value);
    }
    return text;
}

}  // namespace cardsim
