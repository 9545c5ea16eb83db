// Splits input that arrives in pieces into lines. The tools read commands from standard input with
// it.
#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace tools {

struct input_line {
    std::string text;
    bool is_cut = false;  // it was longer than the limit
};

class input_lines {
  public:
    // A command can name a hundred thousand cards. An endless line must not fill the memory.
    static constexpr std::size_t limit = 2'000'000;

    // Adds the next piece, wherever it begins and ends.
    void add(std::string_view piece) {
        for (;;) {
            const std::size_t length = piece.find('\n');
            append(piece.substr(0, length));
            if (length == std::string_view::npos) return;
            complete();
            piece.remove_prefix(length + 1);
        }
    }

    // The end of the input: the last line may lack its newline.
    void end() {
        if (!pending_.text.empty()) complete();
    }

    // Takes the next complete line, without its newline; nothing while there is none.
    std::optional<input_line> next() {
        if (lines_.empty()) return std::nullopt;
        input_line line = std::move(lines_.front());
        lines_.pop_front();
        return line;
    }

  private:
    void append(std::string_view part) {
        const std::size_t room = limit - pending_.text.size();
        pending_.text += part.substr(0, room);
        pending_.is_cut = pending_.is_cut || part.size() > room;
    }

    void complete() { lines_.push_back(std::exchange(pending_, {})); }

    input_line pending_;
    std::deque<input_line> lines_;
};

}  // namespace tools
