// Goes through a text character by character, as UTF-8.
#include "common/visible.h"

#include <cstdint>
#include <cstdio>
#include <random>

namespace tools {

namespace {

constexpr char escape = '\033';

std::string secret;  // follows the escape in the program's own sequences

unsigned byte_at(std::string_view text, std::size_t at) {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
}

struct utf8_form {
    unsigned mask;   // bits of the first byte that tell the form
    unsigned start;  // their value
    std::size_t length;
    std::uint32_t least;  // smaller characters have a shorter form
};

constexpr utf8_form forms[] = {
    {0x80, 0x00, 1, 0}, {0xE0, 0xC0, 2, 0x80}, {0xF0, 0xE0, 3, 0x800}, {0xF8, 0xF0, 4, 0x10000}};

// How many bytes the character has; 0 when it is not valid.
std::size_t character_length(std::string_view text, std::size_t at, std::uint32_t& code) {
    for (const utf8_form& form : forms) {
        if ((byte_at(text, at) & form.mask) != form.start) continue;
        if (at + form.length > text.size()) return 0;
        code = byte_at(text, at) & ~form.mask & 0xFF;
        for (std::size_t n = 1; n < form.length; ++n) {
            if ((byte_at(text, at + n) & 0xC0) != 0x80) return 0;
            code = code << 6 | (byte_at(text, at + n) & 0x3F);
        }
        const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
        return code < form.least || surrogate || code > 0x10FFFF ? 0 : form.length;
    }
    return 0;
}

bool is_control(std::uint32_t code) {
    return code < 0x20 || (code >= 0x7F && code < 0xA0);
}

void add_visible(std::string& to, std::string_view bytes) {
    for (const char c : bytes) {
        char text[5];
        std::snprintf(text, sizeof text, "\\x%02x", unsigned{static_cast<unsigned char>(c)});
        to += text;
    }
}

// The length of a marked sequence at this place; 0 when there is none.
std::size_t own_length(std::string_view text, std::size_t at) {
    if (secret.empty() || text[at] != escape) return 0;
    if (text.substr(at + 1, secret.size()) != secret) return 0;
    const std::size_t end = text.find_first_not_of("[0123456789;", at + 1 + secret.size());
    return end == std::string_view::npos ? 0 : end + 1 - at;
}

std::string made_visible(std::string_view text, std::string_view kept) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        if (const std::size_t length = own_length(text, at)) {
            result += escape;
            result += text.substr(at + 1 + secret.size(), length - 1 - secret.size());
            at += length;
            continue;
        }
        std::uint32_t code = 0;
        const std::size_t length = character_length(text, at, code);
        const std::string_view bytes = text.substr(at, length == 0 ? 1 : length);
        const bool stays = kept.find(text[at]) != std::string_view::npos;
        if (length != 0 && (stays || !is_control(code))) {
            result += bytes;
        } else {
            add_visible(result, bytes);
        }
        at += bytes.size();
    }
    return result;
}

}  // namespace

std::string visible(std::string_view text) {
    return made_visible(text, "\n\t");
}

std::string visible_line(std::string_view text) {
    return made_visible(text, "");
}

void mark_own_sequences() {
    std::random_device random;
    char text[17];
    std::snprintf(text, sizeof text, "%08x%08x", random(), random());
    secret = text;
}

std::string own(std::string_view sequence) {
    if (sequence.empty()) return {};
    return sequence.front() + secret + std::string(sequence.substr(1));
}

}  // namespace tools
