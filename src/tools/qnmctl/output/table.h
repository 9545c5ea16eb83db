// Tables that fit the terminal. Columns are as wide as their contents; where that is too wide, the
// least important ones are dropped.
#pragma once

#include <string>
#include <vector>

#include "output/output.h"

namespace qnmctl {

struct table_column {
    const char* heading;
    bool right = false;     // right-aligned, for numbers
    std::size_t width = 0;  // the least
    int spare = 0;          // the highest is dropped first; 0: never dropped
};

struct table {
    std::vector<table_column> columns;
    std::vector<std::vector<std::string>> rows = {};  // a cell for each column
    std::vector<const char*> colours = {};            // one per row, or empty; nullptr: none
};

// A heading, in bold if anything is coloured, and a line per row; what is still too wide is cut.
std::string table_text(const table& layout, const look& how);

// How many characters a text in UTF-8 has.
std::size_t width_of(const std::string& text);

}  // namespace qnmctl
