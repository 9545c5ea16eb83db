// Conversions between values and the words that an operator reads and types.
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

// Exit statuses. A failed call of the library has one per result code, code_status().
inline constexpr int exit_ok = 0;
inline constexpr int exit_failed = 1;  // other than by a call of the library
inline constexpr int exit_usage = 2;
inline constexpr int exit_unwell = 3;   // doctor has found errors
inline constexpr int exit_no_card = 5;  // list has heard no card

int code_status(qnm_api_code_t code);

// Of a call that was not made because of a signal, so that there is no code.
inline int status_of(std::optional<qnm_api_code_t> code) {
    return code ? code_status(*code) : exit_failed;
}

// A failure. The text says what is wrong and, on a line of its own, what helps. The code is that of
// the failed call, or the one with the same meaning.
struct error : std::runtime_error {
    explicit error(const std::string& text, std::optional<qnm_api_code_t> result = std::nullopt)
        : std::runtime_error(text), code(result), status(status_of(result)) {}

    std::optional<qnm_api_code_t> code;
    int status;
};

// A usage error.
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

std::string seconds_text(double seconds);               // "0.5 s", "3 s"
std::string hex_text(std::uint64_t value, int digits);  // "0x001f"
std::string id_text(std::uint64_t id);                  // "0x001122334455"
std::string mac_text(std::uint64_t mac);                // "00:11:22:33:44:55"

// Reads a card ID: 0x and up to twelve hexadecimal digits, or a MAC address; nothing when it is
// neither.
std::optional<std::uint64_t> parse_id(std::string_view text);

// Reads a number in decimal, as 0x... or as 0b...; nothing when it is none or exceeds 64 bits.
std::optional<std::uint64_t> parse_number(std::string_view text);

// The name of a result code, and a sentence on what it means and what to do.
const char* code_name(qnm_api_code_t code);
const char* code_remedy(qnm_api_code_t code);

// All exit statuses with their meanings, in ascending order.
struct status_row {
    int status;
    std::string meaning;
};
std::vector<status_row> exit_statuses();

// A message for standard error; all lines but the first are indented.
std::string message_text(const std::string& text);

// Padded with blanks, on the left if the width is negative.
std::string padded(std::string text, int width);

std::string join(const std::vector<std::string>& parts, std::string_view separator);

// The non-empty parts between any of the separators.
std::vector<std::string> split(std::string_view text, std::string_view separators);

}  // namespace qnmctl
