// test_promises.cpp - the table of what each call promises is the same in the public header and in
// the document, and has a row for each public function.

#include <fnmatch.h>
#include <gmock/gmock.h>

#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace {

using testing::SizeIs;

using row = std::vector<std::string>;

constexpr char k_first_cell[] = "call";
constexpr size_t k_columns = 6;

std::string trimmed(const std::string& text) {
    const size_t begin = text.find_first_not_of(" `");
    return begin == std::string::npos ? ""
                                      : text.substr(begin, text.find_last_not_of(" `") - begin + 1);
}

// The cells of a line between separators.
row cells_of(const std::string& line, const std::string& separator) {
    row cells;
    for (size_t begin = 0; begin <= line.size();) {
        const size_t end = std::min(line.find(separator, begin), line.size());
        const std::string cell = trimmed(line.substr(begin, end - begin));
        if (!cell.empty()) cells.push_back(cell);
        begin = end + separator.size();
    }
    return cells;
}

// From the row of headings to the first line without cells.
std::vector<row> table_in(const char* path, const std::string& margin,
                          const std::string& separator) {
    std::vector<row> table;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("|--")) continue;
        const row cells =
            line.starts_with(margin) ? cells_of(line.substr(margin.size()), separator) : row();
        if (!table.empty() && cells.size() != k_columns) break;
        if (!table.empty() || (!cells.empty() && cells.front() == k_first_cell)) {
            table.push_back(cells);
        }
    }
    return table;
}

std::vector<row> header_table() {
    return table_in(QNM_HEADER, " *   ", "  ");
}

std::string text_of(const char* path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The functions that the header declares.
std::vector<std::string> inline_functions(const std::string& header) {
    const std::regex pattern(R"(\nstatic inline [^(]*\b(qnm_\w+)\()");
    std::vector<std::string> functions;
    for (std::sregex_iterator it(header.begin(), header.end(), pattern), end; it != end; ++it)
        functions.push_back((*it)[1]);
    return functions;
}

// Leaves out the records that are exported besides, which are not part of the public header.
std::vector<std::string> public_functions() {
    const std::string header = text_of(QNM_HEADER);
    std::vector<std::string> functions = inline_functions(header);
    std::ifstream file(QNM_EXPORTS);
    for (std::string name; file >> name;)
        if (header.find(" " + name + "(") != std::string::npos) functions.push_back(name);
    return functions;
}

TEST(promises, stand_for_each_public_function_in_one_row) {
    const std::vector<row> table = header_table();
    const std::vector<std::string> functions = public_functions();
    ASSERT_FALSE(table.empty());
    ASSERT_FALSE(functions.empty());
    EXPECT_THAT(functions, testing::IsSupersetOf({"qnm_init_manager", "qnm_event_name"}));
    std::set<std::string> used;
    for (const std::string& function : functions) {
        row rows;
        for (const row& it : table)
            if (fnmatch(it.front().c_str(), function.c_str(), 0) == 0) rows.push_back(it.front());
        // A row for one name has precedence over a row for several, as qnm_log_init over qnm_log_*.
        if (rows.size() > 1) std::erase_if(rows, [&](const auto& it) { return it != function; });
        EXPECT_THAT(rows, SizeIs(1)) << function;
        used.insert(rows.begin(), rows.end());
    }
    EXPECT_EQ(used.size(), table.size() - 1) << "a row without function";
}

TEST(promises, are_the_same_in_header_and_document) {
    const std::vector<row> table = header_table();
    ASSERT_FALSE(table.empty());
    EXPECT_EQ(table, table_in(QNM_RELIABILITY, "|", "|"));
}

}  // namespace
