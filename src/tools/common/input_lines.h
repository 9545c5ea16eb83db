// Splits input that arrives in pieces into lines. The tools read commands from standard input with
// it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

// Input that has arrived and was not taken yet.
struct input_lines {
    std::string pending;

    // Adds the next piece, wherever it begins and ends.
    void add(std::string_view piece) { pending += piece; }

    // The end of the input: the last line may lack its newline.
    void end() {
        if (!pending.empty()) pending += '\n';
    }

    // Takes the next complete line, without its newline; nothing while there is none.
    std::optional<std::string> next() {
        const std::size_t length = pending.find('\n');
        if (length == std::string::npos) return std::nullopt;
        std::string line = pending.substr(0, length);
        pending.erase(0, length + 1);
        return line;
    }
};
