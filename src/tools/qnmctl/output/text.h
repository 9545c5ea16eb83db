// Small conversions between values and the words an operator reads and types.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "qnm.h"

namespace qnmctl {

// Exit statuses. A call that failed has one for each result code, code_status().
inline constexpr int exit_ok = 0;
inline constexpr int exit_failed = 1;  // and it was no call that failed
inline constexpr int exit_usage = 2;
inline constexpr int exit_unwell = 3;   // doctor has found errors
inline constexpr int exit_no_card = 5;  // list has heard none

int code_status(qnm_api_code_t code);

// Of a call that a signal has kept from being made, when there is no code.
inline int status_of(std::optional<qnm_api_code_t> code) {
    return code ? code_status(*code) : exit_failed;
}

// What cannot be done; the text says what is wrong and, on a line of its own, what helps. The code
// is that of the call that failed, or the one that says the same.
struct error : std::runtime_error {
    explicit error(const std::string& text, std::optional<qnm_api_code_t> of = std::nullopt)
        : std::runtime_error(text), code(of), status(status_of(of)) {}

    std::optional<qnm_api_code_t> code;
    int status;
};

// What is asked for in a wrong way.
struct usage_error : error {
    explicit usage_error(const std::string& text) : error(text) { status = exit_usage; }
};

using wall_time = std::chrono::system_clock::time_point;

wall_time from_milliseconds(std::uint64_t since_epoch);
std::uint64_t to_milliseconds(wall_time when);

// Local time with milliseconds: "2026-03-01 14:03:21.123", for JSON
// "2026-03-01T14:03:21.123+01:00".
std::string time_text(wall_time when);
std::string iso_time_text(wall_time when);

std::string hex_text(std::uint64_t value, int digits);  // "0x001f"
std::string id_text(std::uint64_t id);                  // "0x001122334455"
std::string mac_text(std::uint64_t mac);                // "00:11:22:33:44:55"

// A card ID as an operator types it, 0x and up to twelve hexadecimal digits or a MAC address;
// nothing when it is neither.
std::optional<std::uint64_t> parse_id(std::string_view text);

// A number in decimal, as 0x... or as 0b...; nothing when it is none, or above 64 bits.
std::optional<std::uint64_t> parse_number(std::string_view text);

// The name of a result code, and a sentence that says what it means and what to do.
const char* code_name(qnm_api_code_t code);
const char* code_remedy(qnm_api_code_t code);

// Every exit status with its meaning, by ascending number.
struct status_row {
    int status;
    std::string meaning;
};
std::vector<status_row> exit_statuses();

// A message for standard error; its further lines are indented.
std::string message_text(const std::string& text);

// Filled up with blanks, on the left where the width is negative.
std::string padded(std::string text, int width);

std::string join(const std::vector<std::string>& parts, std::string_view separator);

// The parts between any of the separators; empty ones are left out.
std::vector<std::string> split(std::string_view text, std::string_view separators);

}  // namespace qnmctl
