// Tables that fit the terminal: columns as wide as what stands in them, and where that is too wide,
// without those that are wanted least.
#pragma once

#include <string>
#include <vector>

#include "output/output.h"

namespace qnmctl {

struct table_column {
    const char* heading;
    bool right = false;     // numbers stand to the right
    std::size_t width = 0;  // at least
    int spare = 0;          // the highest is left out first; 0: never left out
};

struct table {
    std::vector<table_column> columns;
    std::vector<std::vector<std::string>> rows = {};  // a cell for each column
    std::vector<const char*> colours = {};  // of the rows, where any has one; nullptr: none
};

// The heading in bold and the rows in their colours, if anything is coloured, and a line for every
// row; what is still too wide is cut.
std::string table_text(const table& of, const look& how);

// Characters, of a text in UTF-8.
std::size_t width_of(const std::string& text);

}  // namespace qnmctl
