// A card's record as a list of fields, described once for every way of showing it.
//
// Each field of the public records is a row of a table: its name (that of the record's field
// without the prefix), its title in an operator's words, how its value is written, which of its
// bits count as a change, and which event tells of it. Text, JSON and the comparison of two records
// are all made from these rows; a new field is one new row.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "output/writer.h"
#include "qnm.h"

namespace qnmctl {

using card = std::variant<qnm_qnsv_t, qnm_qnio_t>;

const qnm_com_dev_t& common(const card& record);
const char* kind_text(const card& record);  // "QNSV" or "QNIO"

enum class path_sight { never_heard, lost, connected };

path_sight path_of(const card& record, int port, int path);
const char* sight_text(path_sight sight);  // "-", "D" or "C", in tables

// What a field is about, so that an event is told with the fields it is about.
enum class aspect { general, path, connection, error_vector, link_fault };

enum class style { decimal, hex, id, mac, bytes, time, two_words };

struct format {
    style how;
    int digits = 0;                             // hex: digits; bytes: bytes
    const char* words[2] = {nullptr, nullptr};  // two_words: for zero and for anything else
};

struct field {
    const char* name;
    const char* key;  // of an element, "P0M0"; otherwise nullptr
    const char* title;
    const format* form;
    std::uint64_t compared;  // the bits in which a difference is a change
    aspect about;
    std::uint64_t value;
    bool known = true;  // false: of a path that was never heard
};

// In JSON numbers stay numbers, bytes are an array of them, times are RFC 3339, and what is not
// known is null.
std::string value_text(const field& shown);
json value_json(const field& shown);

// A card is one section of fields without a name and, on a QNSV card, one for each of its ports.
struct section {
    const char* name;  // "", "up_port" or "down_port"
    int index;         // of a down port, otherwise -1
    std::vector<field> fields;
};

// "down port 3 ", the beginning of the titles of a section's fields; empty for the first section.
std::string section_title(const section& part);

// All sections; those of down ports that the card's type does not have stay at zero.
std::vector<section> all_sections(const card& record);

// The sections that the card has: eight down ports on a 1G/10G card, sixteen on a 40G card.
std::vector<section> sections(const card& record);

// The field of this name, and of this key where it is one of several; nullptr when there is none.
const field* find_field(const std::vector<field>& in, std::string_view name, std::string_view key);

json card_json(const card& shown);

}  // namespace qnmctl
