// Executes line commands by a table; each answers one line.
#include <algorithm>
#include <cstdio>
#include <iterator>
#include <sstream>

#include "device.h"
#include "fields.h"

namespace cardsim {

namespace {

using words = std::vector<std::string>;

struct command {
    std::string_view name;
    std::string_view usage;  // arguments after the name
    std::size_t least;       // minimum number of arguments
    std::size_t most;
    std::string (*work)(simulator&, const words&);  // returns what follows "ok"
    std::string_view help;
};

constexpr std::pair<std::string_view, std::uint64_t counters::*> shown_counters[] = {
    {"devinfo", &counters::devinfo},
    {"notify", &counters::notify},
    {"raw", &counters::raw},
    {"retries", &counters::retries},
    {"link_down", &counters::link_down},
    {"lost", &counters::lost},
    {"failed", &counters::failed},
    {"received", &counters::received},
    {"faulty", &counters::faulty},
    {"unheard", &counters::unheard},
    {"reads", &counters::reads},
    {"writes", &counters::writes},
    {"vlan_sets", &counters::vlan_sets},
    {"resets", &counters::resets},
    {"mms_writes", &counters::mms_writes},
    {"answers", &counters::answers},
    {"lost_requests", &counters::lost_requests},
    {"lost_answers", &counters::lost_answers},
    {"silent", &counters::silent},
    {"duplicated", &counters::duplicated},
    {"reordered", &counters::reordered},
    {"delayed", &counters::delayed},
    {"wrong_port", &counters::wrong_port},
    {"wrong_mac", &counters::wrong_mac},
    {"wrong_tag", &counters::wrong_tag},
    {"lost_announcements", &counters::lost_announcements},
    {"duplicated_announcements", &counters::duplicated_announcements},
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
            if (!text.empty()) text += ',';
            text += path_text(p, m);
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
std::string change_heard(simulator& target, const words& args,
                         void (simulator::*change)(const card_ref&, std::size_t, std::size_t)) {
    const std::size_t port = parse_number("PORT", args[1], port_limit - 1);
    const std::size_t path = parse_number("PATH", args[2], path_limit - 1);
    (target.*change)(args[0], port, path);
    return heard_text(target.get(args[0]));
}

std::string silence_path(simulator& target, const words& args) {
    return change_heard(target, args, &simulator::silence);
}

std::string wake_path(simulator& target, const words& args) {
    return change_heard(target, args, &simulator::wake);
}

std::string set_card_field(simulator& target, const words& args) {
    target.set(args[0], args[1], args[2]);
    return args[1] + "=" + args[2];
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

std::string send_bytes(simulator& target, const words& args) {
    std::string digits;
    for (auto word = args.begin() + 1; word != args.end(); ++word)
        digits += *word;
    const frame_bytes frame = parse_hex(digits);
    target.send_raw(parse_number("PORT", args[0], port_limit - 1), frame);
    return std::to_string(frame.size()) + " bytes sent";
}

std::string send_devinfo(simulator& target, const words& args) {
    return frames_sent(target.devinfo(args[0]));
}

std::string send_notify(simulator& target, const words& args) {
    return frames_sent(target.notify(args[0]));
}

std::string send_burst(simulator& target, const words&) {
    return frames_sent(target.announce_all());
}

std::string remove_card(simulator& target, const words& args) {
    target.remove(args[0]);
    return "removed";
}

std::string word_text(std::uint32_t value) {
    char text[11];
    std::snprintf(text, sizeof text, "0x%08x", unsigned{value});
    return text;
}

std::uint32_t parse_word(std::string_view name, std::string_view text) {
    return static_cast<std::uint32_t>(parse_number(name, text, 0xFFFFFFFF));
}

// CARD ADDR [VALUE]
std::string access_register(simulator& target, const words& args) {
    const auto address = static_cast<std::uint32_t>(parse_number("ADDR", args[1], register_limit));
    if (args.size() == 3) {
        target.write_register(args[0], address, parse_word("VALUE", args[2]));
    }
    return address_text(address) + "=" + word_text(target.read_register(args[0], address));
}

std::string load_eeprom(simulator& target, const words& args) {
    target.load_eeprom(args[0], args[2]);
    return "loaded";
}

std::string save_eeprom(simulator& target, const words& args) {
    target.save_eeprom(args[0], args[2]);
    return "saved";
}

// CARD ADDR [VALUE]
std::string access_eeprom_word(simulator& target, const words& args) {
    const auto address = static_cast<std::uint32_t>(parse_number("ADDR", args[1], eeprom_size - 4));
    if (args.size() == 3) {
        target.set_eeprom_word(args[0], address, parse_word("VALUE", args[2]));
    }
    return address_text(address) + "=" + word_text(target.eeprom_word(args[0], address));
}

std::string lock_text(simulator& target, const std::string& name) {
    const lock_holders held = target.lock(name);
    if (!target.get(name).device.id_lock) return "bits=" + word_text(held.bits);
    return "holder=" + word_text(held.holder) + " requests=" + word_text(held.requests);
}

std::string take_lock(simulator& target, const words& args) {
    target.take_lock(args[0], parse_word("BITS", args[2]));
    return lock_text(target, args[0]);
}

std::string drop_lock(simulator& target, const words& args) {
    target.drop_lock(args[0]);
    return lock_text(target, args[0]);
}

std::string show_lock(simulator& target, const words& args) {
    return lock_text(target, args[0]);
}

std::string show_mms_page(simulator& target, const words& args) {
    const auto page = target.mms_page(args[0], parse_word("PAGE", args[1]));
    if (!page) return "not written";
    std::string text;
    for (const std::uint32_t word : *page) {
        if (!text.empty()) text += ' ';
        text += word_text(word);
    }
    return text;
}

std::string show_resets(simulator& target, const words& args) {
    const reset_history history = target.resets(args[0]);
    return "count=" + std::to_string(history.count) +
           " last_status=" + std::to_string(history.last_status);
}

std::string show_counters(simulator& target, const words&) {
    return describe(target.count());
}

std::string quit(simulator&, const words&) {
    return "bye";
}

std::string help(simulator&, const words&);

// Commands with a verb after the card's name; an empty verb matches any other word.
struct verb {
    std::string_view name;
    std::size_t least;  // minimum number of words after the command
    std::size_t most;
    std::string (*work)(simulator&, const words&);
};

constexpr verb eeprom_verbs[] = {
    {"load", 3, 3, load_eeprom}, {"save", 3, 3, save_eeprom}, {"", 2, 3, access_eeprom_word}};
constexpr verb lock_verbs[] = {
    {"take", 3, 3, take_lock}, {"drop", 2, 2, drop_lock}, {"", 1, 1, show_lock}};

constexpr std::string_view eeprom_usage = " CARD load|save FILE, or CARD ADDR [VALUE]";
constexpr std::string_view lock_usage = " CARD [take BITS|drop]";

[[noreturn]] void fail_usage(std::string_view name, std::string_view usage) {
    throw error("usage: " + std::string(name) + std::string(usage));
}

const verb* find_verb(std::span<const verb> verbs, const words& args) {
    const std::string_view name = args.size() > 1 ? std::string_view(args[1]) : "";
    const auto named = [&](const verb& v) { return v.name == name || v.name.empty(); };
    const auto row = std::find_if(verbs.begin(), verbs.end(), named);
    const bool fits = args.size() >= row->least && args.size() <= row->most;
    return fits ? &*row : nullptr;
}

std::string work_on_eeprom(simulator& target, const words& args) {
    const verb* row = find_verb(eeprom_verbs, args);
    if (row == nullptr) fail_usage("eeprom", eeprom_usage);
    return row->work(target, args);
}

std::string work_on_lock(simulator& target, const words& args) {
    const verb* row = find_verb(lock_verbs, args);
    if (row == nullptr) fail_usage("lock", lock_usage);
    return row->work(target, args);
}

constexpr std::string_view quit_name = "quit";

constexpr command commands[] = {
    {"silence", " CARD PORT PATH", 3, 3, silence_path, "The card is no longer heard on this path"},
    {"wake", " CARD PORT PATH", 3, 3, wake_path, "The card is heard on this path again"},
    {"set", " CARD FIELD VALUE", 3, 3, set_card_field,
     "Changes what the card announces, or how it answers; FIELD is a key of the scenario, also "
     "up_port.KEY and down_port.N.KEY"},
    {"notify", " CARD", 1, 1, send_notify,
     "Sends a NOTIFY frame of the card over each of its paths"},
    {"devinfo", " CARD", 1, 1, send_devinfo,
     "Sends a DEVINFO frame of the card over each of its paths"},
    {"burst", "", 0, 0, send_burst, "All cards announce themselves at once"},
    {"send", " PORT HEXBYTES", 2, any_number, send_bytes,
     "Sends any frame, from the destination address on"},
    {"remove", " CARD", 1, 1, remove_card, "Takes the card away"},
    {"reg", " CARD ADDR [VALUE]", 2, 3, access_register, "Shows a register, or writes it"},
    {"eeprom", eeprom_usage, 2, 3, work_on_eeprom,
     "Shows a word of the EEPROM, or sets it; loads it all from a file, or saves it"},
    {"lock", lock_usage, 1, 3, work_on_lock,
     "Shows who holds the lock of the EEPROM; takes it for other parties, or drops theirs"},
    {"mms", " CARD PAGE", 2, 2, show_mms_page, "Shows an MMS page as it was written last"},
    {"resets", " CARD", 1, 1, show_resets,
     "Shows how many Reset frames have come, and the status of the last"},
    {"list", "", 0, 0, list_cards, "Lists the cards with the paths they are heard on"},
    {"counters", "", 0, 0, show_counters, "Shows what was sent and what has come"},
    {"help", "", 0, 0, help, "Lists the commands"},
    {quit_name, "", 0, 0, quit, "Ends the simulation, as SIGINT and SIGTERM do"},
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

std::string work(simulator& target, const std::string& name, const words& args) {
    const command& row = find_command(name);
    if (args.size() < row.least || args.size() > row.most) {
        fail_usage(row.name, row.usage);
    }
    return row.work(target, args);
}

}  // namespace

std::vector<command_text> command_texts() {
    std::vector<command_text> texts;
    for (const command& row : commands)
        texts.push_back({row.name, row.usage, row.help});
    return texts;
}

answer execute(simulator& target, std::string_view line) {
    std::istringstream in{std::string(line)};
    std::string name;
    if (!(in >> name)) return {};
    words args;
    for (std::string word; in >> word;)
        args.push_back(word);
    try {
        return {.text = "ok " + work(target, name, args), .quit = name == quit_name};
    } catch (const error& e) {
        return {.text = std::string("error: ") + e.what(), .quit = false};
    }
}

std::string describe(const counters& values) {
    std::string text;
    for (const auto& [name, counter] : shown_counters) {
        if (!text.empty()) text += ' ';
        text += std::string(name) + "=" + std::to_string(values.*counter);
    }
    return text;
}

}  // namespace cardsim
