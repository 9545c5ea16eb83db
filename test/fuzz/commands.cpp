// commands.cpp - any lines to the simulator's line commands.
//
// Each line is answered with one line, whatever it is; only quit ends.

#include <sstream>
#include <string>
#include <vector>

#include "cardsim.h"
#include "fuzz.h"
#include "nowhere.h"

namespace {

using fuzz::require;

constexpr std::size_t k_most_lines = 100;

// Whether it is a complete command that reads or writes a file, which could be any file.
bool names_a_file(std::string_view line) {
    std::istringstream in{std::string(line)};
    std::vector<std::string> words;
    for (std::string word; in >> word;)
        words.push_back(word);
    return words.size() == 4 && words[0] == "eeprom" && (words[2] == "load" || words[2] == "save");
}

void add_cards(cardsim::simulator& target) {
    using enum cardsim::card_kind;
    using enum cardsim::card_speed;
    target.add(cardsim::make_card("a", qnsv, g1_10, 0x10));
    target.add(cardsim::make_card("b", qnio, g40, 0x20));
    cardsim::card with_lock = cardsim::make_card("c", qnio, g1_10, 0x30);
    with_lock.device.id_lock = true;
    target.add(with_lock);
}

void check_answer(const cardsim::answer& given, std::string_view line) {
    const std::string_view text = given.text;
    const bool blank = line.find_first_not_of(" \t\r\n\v\f") == std::string_view::npos;
    require(text.empty() == blank, "every line is answered, but no blank one");
    require(blank || text.starts_with("ok ") || text.starts_with("error: "), "how it went is told");
    require(text.find('\n') == std::string_view::npos, "an answer is one line");
    require(!given.quit || text == "ok bye", "only quit ends");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    cardsim::simulator target({fuzz::nowhere("p0"), fuzz::nowhere("p1")});
    add_cards(target);
    std::string_view left = fuzz::as_text({data, size});
    for (std::size_t n = 0; n < k_most_lines && !left.empty(); n++) {
        const std::string_view line = left.substr(0, left.find('\n'));
        left.remove_prefix(std::min(line.size() + 1, left.size()));
        if (names_a_file(line)) continue;
        const cardsim::answer given = cardsim::execute(target, line);
        check_answer(given, line);
        if (given.quit) break;
    }
    return 0;
}
