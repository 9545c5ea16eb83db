// Lines out of input that comes in pieces, as the tools take commands from standard input.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

// What has come and is not taken yet.
struct input_lines {
    std::string pending;

    // The next piece, wherever it begins and ends.
    void add(std::string_view piece) { pending += piece; }

    // Nothing more will come: a last line needs no end of its own.
    void end() {
        if (!pending.empty()) pending += '\n';
    }

    // Takes the next whole line, without its end; nothing while there is none.
    std::optional<std::string> next() {
        const std::size_t length = pending.find('\n');
        if (length == std::string::npos) return std::nullopt;
        std::string line = pending.substr(0, length);
        pending.erase(0, length + 1);
        return line;
    }
};
