// Converts values to words and back.
#include "output/text.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <iterator>

#include "common/standard_files.h"

namespace qnmctl {

namespace {

constexpr int mac_bytes = 6;

constexpr int code_statuses = 10;  // the first one; the others follow in the order of the codes

struct code_words {
    const char* name;
    const char* meaning;
    const char* remedy;
};

// Indexed by qnm_api_code_t.
constexpr code_words codes[] = {
    {"QNM_API_SUCCESS", "success", "The call succeeded."},
    {"QNM_API_EINVAL", "an argument was refused",
     "An argument was refused. Check the directory and the values given."},
    {"QNM_API_ERANGE", "a value or a list is too long",
     "A value or a list is too long. Raise id_list_upper_limit in qnm.conf."},
    {"QNM_API_ENOENT", "no such card",
     "No card has that ID. \"qnmctl list\" shows the cards that can be heard."},
    {"QNM_API_ENOLINK", "no link to the card",
     "There is no link to the card. Check its cable and the port."},
    {"QNM_API_ENOMEM", "out of memory", "The memory is used up. Free some and try again."},
    {"QNM_API_EPROTO", "protocol or internal error",
     "Something failed inside the library. With --log FILE its log tells what."},
    {"QNM_API_ETIMEDOUT", "no answer in time",
     "The card did not answer in time. Check that it is connected."},
    {"QNM_API_EBUSY", "the manager, the port or the card is busy",
     "The manager, the port or the card is busy. Try again later."},
    {"QNM_API_ENOSYS", "the manager is not running",
     "The manager is not running. With --log FILE its log tells why it ended."},
};
static_assert(std::size(codes) == QNM_API_CODE_MAX);

const code_words& words_of(qnm_api_code_t code) {
    const bool known = code >= 0 && code < QNM_API_CODE_MAX;
    return codes[known ? code : QNM_API_EPROTO];
}

int milliseconds_of(wall_time when) {
    const auto whole = std::chrono::floor<std::chrono::milliseconds>(when.time_since_epoch());
    return static_cast<int>(whole.count() % 1000);
}

std::string local_time(wall_time when, const char* pattern) {
    const std::time_t seconds =
        std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(when));
    std::tm local{};
    localtime_r(&seconds, &local);
    std::array<char, 64> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), pattern, &local);
    return {text.data(), length};
}

std::optional<std::uint64_t> parse_hex(std::string_view digits) {
    std::uint64_t value = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, problem] = std::from_chars(digits.data(), end, value, 16);
    if (problem != std::errc{} || stop != end) return std::nullopt;
    return value;
}

std::optional<std::uint64_t> parse_mac(std::string_view text) {
    constexpr std::size_t step = 3;  // two digits and a colon
    if (text.size() != step * mac_bytes - 1) return std::nullopt;
    std::uint64_t value = 0;
    for (std::size_t at = 0; at < text.size(); at += step) {
        const auto byte = parse_hex(text.substr(at, 2));
        const bool apart = at + 2 == text.size() || text[at + 2] == ':';
        if (!byte || !apart) return std::nullopt;
        value = value << 8 | *byte;
    }
    return value;
}

struct notation {
    std::string_view prefix;
    int base;
};

constexpr notation notations[] = {{"0x", 16}, {"0X", 16}, {"0b", 2}, {"0B", 2}, {"", 10}};

}  // namespace

wall_time from_milliseconds(std::uint64_t since_epoch) {
    return wall_time(std::chrono::milliseconds(since_epoch));
}

std::uint64_t to_milliseconds(wall_time when) {
    const auto since = std::chrono::floor<std::chrono::milliseconds>(when.time_since_epoch());
    return static_cast<std::uint64_t>(since.count());
}

std::string time_text(wall_time when) {
    char fraction[8];
    std::snprintf(fraction, sizeof fraction, ".%03d", milliseconds_of(when));
    return local_time(when, "%Y-%m-%d %H:%M:%S") + fraction;
}

std::string iso_time_text(wall_time when) {
    char fraction[8];
    std::snprintf(fraction, sizeof fraction, ".%03d", milliseconds_of(when));
    constexpr std::size_t zone_hours = 3;             // "+01"
    const std::string zone = local_time(when, "%z");  // "+0100"
    return local_time(when, "%Y-%m-%dT%H:%M:%S") + fraction + zone.substr(0, zone_hours) + ':' +
           zone.substr(zone_hours);
}

std::string id_text(std::uint64_t id) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%.12lx", static_cast<unsigned long>(id));
    return text;
}

std::string seconds_text(double seconds) {
    std::string text = std::to_string(std::round(seconds * 10) / 10);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') text.pop_back();
    return text + " s";
}

std::string hex_text(std::uint64_t value, int digits) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%0*lx", digits, static_cast<unsigned long>(value));
    return text;
}

std::string mac_text(std::uint64_t mac) {
    std::string text;
    for (int byte = mac_bytes - 1; byte >= 0; --byte) {
        char part[4];
        std::snprintf(part, sizeof part, "%02x", static_cast<unsigned>(mac >> (8 * byte) & 0xFF));
        if (!text.empty()) text += ':';
        text += part;
    }
    return text;
}

std::optional<std::uint64_t> parse_id(std::string_view text) {
    const bool prefixed = text.starts_with("0x") || text.starts_with("0X");
    if (!prefixed) return parse_mac(text);
    const std::string_view digits = text.substr(2);
    if (digits.size() > std::size_t{2} * mac_bytes) return std::nullopt;
    return parse_hex(digits);
}

std::optional<std::uint64_t> parse_number(std::string_view text) {
    for (const notation& tried : notations) {
        if (!text.starts_with(tried.prefix)) continue;
        const std::string_view digits = text.substr(tried.prefix.size());
        const char* const end = digits.data() + digits.size();
        std::uint64_t value = 0;
        const auto [stop, problem] = std::from_chars(digits.data(), end, value, tried.base);
        if (problem != std::errc{} || stop != end) return std::nullopt;
        return value;
    }
    return std::nullopt;
}

const char* code_name(qnm_api_code_t code) {
    return words_of(code).name;
}

const char* code_remedy(qnm_api_code_t code) {
    return words_of(code).remedy;
}

int code_status(qnm_api_code_t code) {
    if (code == QNM_API_SUCCESS) return exit_ok;
    const bool known = code > 0 && code < QNM_API_CODE_MAX;
    return code_statuses + (known ? code : QNM_API_EPROTO);
}

std::vector<status_row> exit_statuses() {
    std::vector<status_row> rows = {
        {exit_ok, "success"},
        {exit_failed,
         "failed without a result code, or ended by a signal before its work was done; a command "
         "that only listens or decodes ends with 0 then, once it has written its results"},
        {exit_usage, "wrong usage"},
        {exit_unwell, "doctor has found errors"},
        {tools::exit_output,
         "standard output was closed, its reader has gone or there was no room for more; nothing "
         "else failed"},
        {exit_no_card, "list has heard no card"}};
    for (int code = QNM_API_SUCCESS + 1; code < QNM_API_CODE_MAX; ++code) {
        const code_words& words = codes[code];
        rows.push_back({code_status(static_cast<qnm_api_code_t>(code)),
                        std::string(words.name) + ": " + words.meaning});
    }
    return rows;
}

std::string message_text(const std::string& text) {
    std::string message = "qnmctl: ";
    for (const char c : text) {
        message += c;
        if (c == '\n') message += "  ";
    }
    return message + '\n';
}

std::string padded(std::string text, int width) {
    const auto wanted = static_cast<std::size_t>(std::abs(width));
    if (text.size() >= wanted) return text;
    const std::string blanks(wanted - text.size(), ' ');
    return width < 0 ? text + blanks : blanks + text;
}

std::string join(const std::vector<std::string>& parts, std::string_view separator) {
    std::string text;
    for (const std::string& part : parts) {
        if (!text.empty()) text += separator;
        text += part;
    }
    return text;
}

std::vector<std::string> split(std::string_view text, std::string_view separators) {
    std::vector<std::string> parts;
    std::size_t at = 0;
    while ((at = text.find_first_not_of(separators, at)) != std::string_view::npos) {
        const std::size_t end = std::min(text.find_first_of(separators, at), text.size());
        parts.emplace_back(text.substr(at, end - at));
        at = end;
    }
    return parts;
}

}  // namespace qnmctl
