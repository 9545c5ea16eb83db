// qnm_config_keys.h - the keys of qnm.conf, each in one row: its name, what it is for, its default,
// its range and where its value goes.
//
// This unit uses no other unit and keeps no state, so qnmctl links it too: the sample file, the
// manual page and the check of a user's file are made from its rows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "qnm_config.h"

namespace qnm {

// The form of a value. A number goes into the member that the row names; each of the other forms
// belongs to one key.
enum class config_form { number, ether_type, interfaces, indexes, mac };

// Sections of the file, in their order.
enum class config_group { ports, monitoring, log, access, eeprom };

enum class config_base { decimal, hex4, hex8 };

// Whether a number may begin with a minus. Without this check, the C library reads -1 as the
// largest 64-bit number.
enum class config_minus { refused, unchecked };

// Why a value is refused.
enum class config_verdict { ok, not_understood, out_of_range };

}  // namespace qnm

typedef struct qnm_config_key {
    const char* name;
    int qnm_conf_flag_t::*flag;
    uint32_t qnm_conf_t::*field;  // of a number
    qnm::config_group group;
    qnm::config_form form;
    const char* initial;  // the default, as written in the file
    uint32_t least;       // of a number and of the Ethernet type
    uint32_t most;
    const char* unit;       // "ms", "s", or ""
    const char* brief;      // what it is for, without a full stop
    const char* more = "";  // further sentences
    qnm::config_minus minus = qnm::config_minus::refused;
    qnm::config_base base = qnm::config_base::decimal;  // in which the log shows it
} qnm_config_key_t;

extern "C" {

// The first of all rows, in the order in which values are printed.
const qnm_config_key_t* _qnm_config_keys(size_t* count);

// The row of a key; nullptr if there is no such key.
const qnm_config_key_t* _qnm_find_config_key(const char* name);

// Parses a whole 32-bit number: decimal, 0x hexadecimal or leading-0 octal. Stores nothing on
// failure.
bool _qnm_config_number(const char* word, uint32_t* number);

// Parses what follows the "=" of a line and stores it. The text is cut into words.
qnm::config_verdict _qnm_set_config_value(const qnm_config_key_t* key, char* value,
                                          qnm_conf_t* config);

// Stores the default of every key, and zero everywhere else.
void _qnm_set_config_defaults(qnm_conf_t* config);

}  // extern "C"

namespace qnm {

inline std::span<const qnm_config_key_t> config_keys() {
    size_t count = 0;
    const qnm_config_key_t* const first = _qnm_config_keys(&count);
    return {first, count};
}

}  // namespace qnm
