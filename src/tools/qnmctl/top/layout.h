// The full-screen view as lines of a screen of any size.
#pragma once

#include <string>
#include <vector>

#include "top/model.h"

namespace qnmctl {

struct top_size {
    std::size_t width = 0;
    std::size_t height = 0;
};

enum class top_style { plain, title, heading, selected, warning, alarm };

struct top_line {
    std::string text;
    top_style style = top_style::plain;
};

// At most as many lines as the screen has, none longer than it is wide, of ASCII characters that
// can be printed. Tells the model how much of it the screen holds.
std::vector<top_line> top_lines(top_model& model, top_size size);

}  // namespace qnmctl
