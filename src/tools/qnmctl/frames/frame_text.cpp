// A frame as a line, with its fields below, and as an object.
#include "frames/frame_text.h"

#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "output/foreign_words.h"
#include "output/text.h"

namespace qnmctl {

namespace {

constexpr std::int64_t second = 1'000'000'000;

std::string padded(std::string text, std::size_t width) {
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

std::int64_t part_of_second(std::int64_t nanoseconds) {
    const std::int64_t part = nanoseconds % second;
    return part < 0 ? part + second : part;
}

// Like the times of events, but as fine as frames come.
std::string with_fraction(const std::string& text, std::int64_t nanoseconds, int digits) {
    char fraction[16];
    std::snprintf(fraction, sizeof fraction, "%09ld",
                  static_cast<long>(part_of_second(nanoseconds)));
    const std::size_t at = text.rfind('.') + 1;
    constexpr std::size_t milliseconds = 3;
    return text.substr(0, at) + std::string(fraction, static_cast<std::size_t>(digits)) +
           text.substr(at + milliseconds);
}

wall_time time_of(std::int64_t nanoseconds) {
    return wall_time(
        std::chrono::floor<wall_time::duration>(std::chrono::nanoseconds(nanoseconds)));
}

const char* way_text(way direction) {
    return direction == way::to_manager ? "to manager" : "to card";
}

std::string duration_text(std::int64_t nanoseconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f ms", static_cast<double>(nanoseconds) / 1e6);
    return text;
}

std::string message_words(const frame_reading& reading) {
    if (reading.kind != nullptr) {
        return reading.kind->name + (reading.words.empty() ? std::string() : ' ' + reading.words);
    }
    const std::string from = reading.source ? mac_text(*reading.source) : "";
    return "no known message" + (from.empty() ? "" : " from " + from + " to ") +
           (reading.destination ? mac_text(*reading.destination) : std::string());
}

json card_id_json(const frame_reading& reading) {
    return reading.card ? json(id_text(*reading.card)) : json();
}

json mac_json(const std::optional<std::uint64_t>& number) {
    return number ? json(mac_text(*number)) : json();
}

json dropped_json(const frame_reading& reading) {
    if (!reading.dropped) return {};
    return {{"reason", reading.dropped->name}, {"text", reading.dropped->text}};
}

json answered_json(const std::optional<answered_read>& answer) {
    if (!answer) return {};
    return {
        {"frame", answer->frame}, {"nanoseconds", answer->nanoseconds}, {"addr", answer->address}};
}

}  // namespace

std::string frame_line(const decoded_frame& decoded, const look& how) {
    constexpr std::size_t number_width = 6, way_width = 10, card_width = 14;
    const std::string number = std::to_string(decoded.frame.number);
    std::string line =
        std::string(number.size() < number_width ? number_width - number.size() : 0, ' ') + number +
        ' ';
    line +=
        with_fraction(time_text(time_of(decoded.frame.nanoseconds)), decoded.frame.nanoseconds, 6) +
        ' ';
    if (!decoded.frame.interface.empty()) line += printable(decoded.frame.interface) + ' ';
    const frame_reading& read = decoded.read;
    line += padded(read.kind != nullptr ? way_text(read.kind->goes) : "-", way_width) + ' ' +
            padded(read.card ? id_text(*read.card) : "-", card_width) + ' ' + message_words(read);
    if (decoded.answered) {
        line += " of " + register_text(decoded.answered->address) + ", answers frame " +
                std::to_string(decoded.answered->frame) + " after " +
                duration_text(decoded.answered->nanoseconds);
    }
    if (read.dropped) {
        const std::string words = "dropped: " + read.dropped->text;
        line += ", " + in_colour(words, red, how.coloured);
    }
    return line + '\n';
}

std::string frame_fields_text(const frame_reading& reading) {
    constexpr std::size_t title_width = 32, name_width = 18;
    std::string text;
    for (const frame_section& within : reading.sections) {
        const bool indented = within.name[0] != '\0';
        if (indented) {
            text += within.index < 0 ? "         up port\n"
                                     : "         down port " + std::to_string(within.index) + '\n';
        }
        for (const frame_field& item : within.fields) {
            text += std::string(indented ? 11 : 9, ' ') + padded(item.title, title_width) + ' ' +
                    padded(item.name, name_width) + ' ' + item.text + '\n';
        }
    }
    if (reading.cut) text += "         the rest was not captured\n";
    return text;
}

json frame_json(const decoded_frame& decoded) {
    const frame_reading& read = decoded.read;
    const bool known = read.kind != nullptr;
    const std::string& interface = decoded.frame.interface;
    return {{"number", decoded.frame.number},
            {"time", with_fraction(iso_time_text(time_of(decoded.frame.nanoseconds)),
                                   decoded.frame.nanoseconds, 9)},
            {"interface", interface.empty() ? json() : json(interface)},
            {"direction", known ? json(way_text(read.kind->goes)) : json()},
            {"message", known ? json(read.kind->name) : json()},
            {"id", card_id_json(read)},
            {"source", mac_json(read.source)},
            {"destination", mac_json(read.destination)},
            {"length", decoded.frame.bytes.length},
            {"captured", decoded.frame.bytes.captured.size()},
            {"dropped", dropped_json(read)},
            {"answers", answered_json(decoded.answered)},
            {"fields", fields_json(read)}};
}

std::string captured_text(const captured& counts) {
    std::string text;
    for (std::size_t number = 0; number < counts.ports.size(); ++number) {
        const captured_port& port = counts.ports[number];
        text += "port " + std::to_string(number) + ", " + port.interface + ": " +
                std::to_string(port.frames) + " frames, " + std::to_string(port.dropped) +
                " of them dropped by managers, " + std::to_string(port.kernel_dropped) +
                " lost by the kernel\n";
    }
    for (const auto& [name, frames] : counts.reasons)
        text += "  " + padded(std::to_string(frames), 8) + ' ' + drop_title(name) + '\n';
    return text;
}

json captured_json(const captured& counts, const std::string& file) {
    json ports = json::array();
    for (const captured_port& port : counts.ports) {
        ports.push_back({{"interface", port.interface},
                         {"frames", port.frames},
                         {"dropped", port.dropped},
                         {"kernel_dropped", port.kernel_dropped},
                         {"problem", port.problem.empty() ? json() : json(port.problem)}});
    }
    json reasons = json::array();
    for (const auto& [name, frames] : counts.reasons) {
        reasons.push_back({{"reason", name}, {"title", drop_title(name)}, {"frames", frames}});
    }
    return {{"file", file}, {"ports", ports}, {"reasons", reasons}};
}

}  // namespace qnmctl
