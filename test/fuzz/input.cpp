// input.cpp - any input to the tools' standard input, in any pieces.
//
// The input becomes the same lines however it is cut, each as soon as its end has come.

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "common/input_lines.h"
#include "fuzz.h"

namespace {

using fuzz::require;

std::vector<std::string> lines_of(const std::string& whole) {
    std::istringstream in(whole);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

void take_lines(tools::input_lines& from, std::vector<std::string>& lines) {
    while (const auto line = from.next())
        lines.push_back(line->text);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::reader in({data, size});
    tools::input_lines cut;
    std::string whole;
    std::vector<std::string> lines;
    while (!in.is_empty()) {
        const std::size_t length = in.u8();
        const std::string_view piece = fuzz::as_text(in.take(length));
        whole += piece;
        cut.add(piece);
        take_lines(cut, lines);
        require(lines.size() == static_cast<std::size_t>(std::ranges::count(whole, '\n')),
                "a line is there as soon as its end is");
    }
    cut.end();
    take_lines(cut, lines);
    require(lines == lines_of(whole), "the pieces change no line");
    return 0;
}
