// Texts and JSON objects of results, dumps and failures.
#include "access/access_text.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <iterator>
#include <nlohmann/json.hpp>

#include "output/text.h"

namespace qnmctl {

namespace {

constexpr int addr_digits = 8;
constexpr int word_digits = 8;

struct remedy {
    access_scope scope;
    qnm_api_code_t code;
    const char* text;
};

constexpr char no_path[] =
    "No path to the card is connected, or its monitoring is stopped. Check cable and port; with "
    "--livecheck a path is looked for on which the card answers.";
constexpr char no_path_to_check[] =
    "No path to the card is connected, or its monitoring is stopped. Check cable and port.";
constexpr char unsent[] =
    "A frame could not be sent, or too many reads are waiting for answers. With --log FILE the "
    "library's log tells which.";

constexpr char in_use[] =
    "Another process accessed cards by the same port. Try again, and see \"qnmctl doctor\" for who "
    "that is.";

// What a code means for these calls; code_remedy() explains the others.
constexpr remedy remedies[] = {
    {access_scope::registers, QNM_API_ENOLINK, no_path},
    {access_scope::registers, QNM_API_EPROTO, unsent},
    {access_scope::registers, QNM_API_EBUSY, in_use},
    {access_scope::registers, QNM_API_ETIMEDOUT,
     "The card did not answer, or what was written did not hold. Try more --retries or a longer "
     "--interval; not every address is a register that answers."},
    {access_scope::eeprom, QNM_API_ENOLINK, no_path},
    {access_scope::eeprom, QNM_API_EPROTO,
     "The card refused the access, or a frame could not be sent. With --log FILE the library's log "
     "tells which."},
    {access_scope::eeprom, QNM_API_ETIMEDOUT,
     "The card did not answer, its EEPROM did not get ready, or its lock could not be had. Try "
     "again, with more --retries or a longer --interval."},
    {access_scope::eeprom, QNM_API_EBUSY,
     "Another party keeps the EEPROM lock. Try again later; if that party has gone, free the lock "
     "by \"eeprom unlock\" or take it by --force-lock. Or another process accessed cards by the "
     "same port until now; then trying again is enough."},
    {access_scope::eeprom_lock, QNM_API_ENOLINK, no_path_to_check},
    {access_scope::eeprom_lock, QNM_API_EBUSY, in_use},
    {access_scope::eeprom_lock, QNM_API_ETIMEDOUT,
     "The card did not answer, or another party takes the lock again and again. Try again later."},
    {access_scope::vlan, QNM_API_ENOLINK, no_path},
    {access_scope::vlan, QNM_API_EPROTO, unsent},
    {access_scope::vlan, QNM_API_EBUSY, in_use},
    {access_scope::vlan, QNM_API_ETIMEDOUT,
     "The card did not announce the new VLAN ID in time. Give it as long as it takes between two "
     "announcements, by more --retries or a longer --interval."},
    {access_scope::reset, QNM_API_ENOLINK, no_path_to_check},
    {access_scope::reset, QNM_API_EPROTO, unsent},
    {access_scope::reset, QNM_API_EBUSY, in_use},
    {access_scope::mms, QNM_API_ENOLINK, no_path},
    {access_scope::mms, QNM_API_EPROTO, unsent},
    {access_scope::mms, QNM_API_EBUSY, in_use},
    {access_scope::mms, QNM_API_ENOENT,
     "No multi-root QNIO card has that ID. \"qnmctl list\" shows the cards that can be heard; a "
     "multi-root card is a QNIO card of version 1."},
};

const char* remedy_of(access_scope scope, qnm_api_code_t code) {
    const auto found =
        std::find_if(std::begin(remedies), std::end(remedies),
                     [&](const remedy& help) { return help.scope == scope && help.code == code; });
    return found == std::end(remedies) ? code_remedy(code) : found->text;
}

std::uint32_t value_of(const access_item& item, const outcome& result,
                       const access_call_words& words) {
    if (item.source == from_card) return result.value;
    return words.numbers[static_cast<std::size_t>(item.source)];
}

std::string number_text(std::uint32_t value, int digits) {
    return digits == 0 ? std::to_string(value) : hex_text(value, digits);
}

bool is_verified(const access_call_words& call) {
    return call.words->verified != nullptr && (call.flags & QNM_FLAG_VERIFY) != 0;
}

std::string printable(const std::string& bytes) {
    std::string text = bytes;
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c > '~'; }, '.');
    return text;
}

}  // namespace

std::string outcome_text(const outcome& result, const access_call_words& call) {
    std::string text = id_text(result.id) + ' ';
    for (const access_item& item : call.words->items)
        text += item.words + number_text(value_of(item, result, call), item.digits);
    return text + (is_verified(call) ? call.words->verified : call.words->done);
}

json outcome_json(const outcome& result, const access_call_words& call) {
    json object = {{"id", id_text(result.id)}};
    for (const access_item& item : call.words->items) {
        const bool known = item.source != from_card || result.code == QNM_API_SUCCESS;
        object[item.name] = known ? json(value_of(item, result, call)) : json();
    }
    if (call.words->verified != nullptr) {
        object["verified"] = is_verified(call) && result.code == QNM_API_SUCCESS;
    }
    object["result"] = code_json(result.code);
    return object;
}

std::string failure_text(std::uint64_t id, const char* call, access_scope scope,
                         qnm_api_code_t code, const std::string& known) {
    return id_text(id) + ": " + call + " failed: " + code_name(code) + '\n' +
           (known.empty() ? remedy_of(scope, code) : known);
}

std::string dump_text(const dump& source) {
    constexpr std::size_t per_line = 4;
    std::string text;
    for (std::size_t at = 0; at < source.words.size(); at += per_line) {
        const auto first = source.words.begin() + static_cast<std::ptrdiff_t>(at);
        const word_list line(first, first + static_cast<std::ptrdiff_t>(
                                                std::min(per_line, source.words.size() - at)));
        text += hex_text(source.start + at * word_bytes, addr_digits);
        text += ' ';
        for (std::size_t column = 0; column < per_line; ++column) {
            text += ' ';
            text += column < line.size() ? hex_text(line[column], word_digits).substr(2)
                                         : std::string(word_digits, ' ');
        }
        text += "  |" + printable(to_bytes(line)) + "|\n";
    }
    return text;
}

json dump_json(const dump& source, std::optional<qnm_api_code_t> code) {
    return {{"id", id_text(source.id)},
            {"addr", source.start},
            {"words", json(source.words)},
            {"result", code_json(code)}};
}

std::string difference_text(const std::vector<difference>& all) {
    std::string text;
    for (const difference& change : all) {
        text += hex_text(change.addr, addr_digits) + ": " + hex_text(change.before, word_digits) +
                " -> " + hex_text(change.after, word_digits) + '\n';
    }
    return text;
}

json difference_json(const std::vector<difference>& all) {
    json array = json::array();
    for (const difference& change : all)
        array.push_back({{"addr", change.addr}, {"old", change.before}, {"new", change.after}});
    return array;
}

}  // namespace qnmctl
