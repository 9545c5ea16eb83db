// image.cpp - any bytes as an image of an EEPROM, for the tool that restores it and for a simulated
// card.

#include <algorithm>
#include <string>

#include "access/image.h"
#include "cardsim.h"
#include "fuzz.h"
#include "memory_file.h"
#include "output/text.h"

namespace {

using fuzz::require;

void check_restore(const std::string& path, std::string_view contents, std::size_t limit) {
    const bool whole = !contents.empty() && contents.size() % qnmctl::word_bytes == 0;
    const bool fits = contents.size() <= limit;
    try {
        const qnmctl::word_list image = qnmctl::read_image(path, limit);
        require(whole && fits, "only whole words within the limit are an image");
        require(qnmctl::to_bytes(image) == contents, "an image holds the bytes of its file");
        const qnmctl::word_list blank(image.size() + 1, 0xFFFFFFFF);
        qnmctl::word_list restored = blank;
        for (const qnmctl::difference& one : qnmctl::differences(blank, image))
            restored[one.addr / qnmctl::word_bytes] = one.after;
        require(std::equal(image.begin(), image.end(), restored.begin()),
                "the differences make the image");
    } catch (const qnmctl::error&) {
        require(!whole || !fits, "an image is not refused");
    }
}

void check_card(const std::string& path, fuzz::bytes contents) {
    cardsim::simulator cards({});
    cardsim::card made =
        cardsim::make_card("a", cardsim::card_kind::qnio, cardsim::card_speed::g1_10, 0x10);
    made.heard = {};
    cards.add(made);
    try {
        cards.load_eeprom("a", path);
        const cardsim::frame_bytes loaded = cards.eeprom("a");
        require(std::equal(loaded.begin(), loaded.end(), contents.begin(), contents.end()),
                "an EEPROM holds the bytes of its file");
    } catch (const cardsim::error&) {
        require(contents.size() != cardsim::eeprom_size, "a whole EEPROM is not refused");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::reader in({data, size});
    const std::size_t limit = in.u16() % 4096;
    // Short inputs stand for long files as well: the contents are repeated.
    const std::size_t length = in.u16() % 4200;
    const std::string_view pattern = fuzz::as_text(in.take(in.size()));
    std::string contents(pattern);
    while (!pattern.empty() && contents.size() < length)
        contents += pattern;
    if (contents.size() > length && length != 0) contents.resize(length);
    const fuzz::bytes bytes{reinterpret_cast<const std::uint8_t*>(contents.data()),
                            contents.size()};
    const fuzz::memory_file file(bytes);
    check_restore(file.path(), contents, limit);
    check_card(file.path(), bytes);
    return 0;
}
