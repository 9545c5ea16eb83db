// scenario.cpp - any text as a scenario file.
//
// The file is refused with an error that names it, or makes cards that can exist: they can be added
// to a simulator and sent on the wire.

#include <cctype>
#include <string>

#include "cardsim.h"
#include "fuzz.h"
#include "nowhere.h"

namespace {

using fuzz::require;

bool has_long_number(std::string_view line) {
    constexpr std::size_t few_digits = 2;
    std::size_t digits = 0;
    for (const char c : line) {
        const bool digit = std::isxdigit(static_cast<unsigned char>(c)) != 0 || c == '_';
        digits = digit ? digits + 1 : 0;
        if (digits > few_digits) return true;
    }
    return false;
}

// Whether a line gives a great number to a key that ends with this or contains it.
bool gives_many(std::string_view text, std::string_view key) {
    for (std::size_t at = text.find(key); at != text.npos; at = text.find(key, at)) {
        at += key.size();
        const std::string_view line = text.substr(at, text.find('\n', at) - at);
        const std::size_t equals = line.find('=');
        if (equals != line.npos && has_long_number(line.substr(equals))) return true;
    }
    return false;
}

// A scenario may have a million cards in one line, but here they would take too long. The key could
// also be written with escapes.
bool may_ask_for_many(std::string_view text) {
    return gives_many(text, "count") || gives_many(text, "\\u") || gives_many(text, "\\U");
}

void check_announcements(const cardsim::card& made) {
    for (std::size_t path = 0; path < cardsim::path_count(made.speed); path++) {
        for (const auto kind : {cardsim::message::devinfo, cardsim::message::notify}) {
            const cardsim::frame_bytes frame = cardsim::encode(made, kind, path);
            require(frame.size() >= 60 && frame.size() <= 496,
                    "an announcement has a usual length");
        }
    }
}

void check_cards(cardsim::scenario& read) {
    cardsim::simulator target({fuzz::nowhere("p0"), fuzz::nowhere("p1")}, read.ether_type);
    for (cardsim::card& made : read.cards) {
        check_announcements(made);
        made.device.eeprom_file.clear();  // no input may choose a file
        target.add(made);
        require(target.eeprom(made.id).size() == cardsim::eeprom_size, "a card has its EEPROM");
        target.read_register(made.id, 0);
    }
    target.announce_all();
    require(target.cards().size() == read.cards.size(), "every card of a scenario can be added");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = fuzz::as_text({data, size});
    if (may_ask_for_many(text)) return 0;
    try {
        cardsim::scenario read = cardsim::parse_scenario(text, "input");
        require(read.ports.size() <= cardsim::port_limit, "there are two ports at most");
        check_cards(read);
    } catch (const cardsim::error& e) {
        require(std::string_view(e.what()).starts_with("input:"), "an error names the file");
    }
    return 0;
}
