// Checks how deeply a text nests: skips strings and comments, and counts dots and brackets in the
// rest.
//
// Up to the first syntax error, strings end here where they end for the parser. The parser does not
// read on after an error.
#include "nesting.h"

#include <algorithm>

namespace cardsim {

namespace {

constexpr std::size_t quotes_of_long_string = 3;

class scanner {
  public:
    explicit scanner(std::string_view text) : text_(text) {}

    std::optional<std::size_t> find() {
        while (at_ < text_.size() && dots_ < nesting_limit && depth_ <= nesting_limit)
            take();
        if (dots_ < nesting_limit && depth_ <= nesting_limit) return std::nullopt;
        const auto end = text_.begin() + static_cast<std::ptrdiff_t>(at_);
        return 1 + static_cast<std::size_t>(std::count(text_.begin(), end, '\n'));
    }

  private:
    void take() {
        const char c = text_[at_];
        if (c == '#') return pass_comment();
        if (c == '"' || c == '\'') return pass_string(c);
        count(c);
        ++at_;
    }

    // The parts of a key are separated by dots, with or without blanks.
    void count(char c) {
        if (c == '.') ++dots_;
        if (c == '[' || c == '{') ++depth_;
        if ((c == ']' || c == '}') && depth_ > 0) --depth_;
        if (std::string_view("=,\n[]{}").find(c) != std::string_view::npos) dots_ = 0;
    }

    void pass_comment() { at_ = std::min(text_.find('\n', at_), text_.size()); }

    bool is_long(char quote) const {
        const std::string_view start = text_.substr(at_, quotes_of_long_string);
        return start.size() == quotes_of_long_string &&
               start.find_first_not_of(quote) == std::string_view::npos;
    }

    // A long string may contain, and end with, one or two quotes in a row.
    void pass_string(char quote) {
        const bool several_lines = is_long(quote);
        at_ += several_lines ? quotes_of_long_string : 1;
        while (at_ < text_.size()) {
            if (text_[at_] == '\\' && quote == '"') {
                at_ = std::min(at_ + 2, text_.size());
            } else if (text_[at_] == quote && (!several_lines || is_long(quote))) {
                at_ += several_lines ? quotes_of_long_string : 1;
                break;
            } else if (text_[at_] == '\n' && !several_lines) {
                break;  // a syntax error
            } else {
                ++at_;
            }
        }
        for (int more = 0; several_lines && more < 2 && at_ < text_.size(); ++more)
            at_ += text_[at_] == quote ? 1 : 0;
    }

    std::string_view text_;
    std::size_t at_ = 0;
    std::size_t dots_ = 0;   // in the current key
    std::size_t depth_ = 0;  // open brackets
};

}  // namespace

std::optional<std::size_t> line_nested_too_deep(std::string_view text) {
    return scanner(text).find();
}

}  // namespace cardsim
