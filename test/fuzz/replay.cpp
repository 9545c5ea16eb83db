// replay.cpp - runs a fuzz target once with each input named: files, or directories of them.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz.h"

namespace fs = std::filesystem;

namespace {

// In the order of their names, so that every run is the same.
std::vector<fs::path> inputs_in(const fs::path& place) {
    if (!fs::is_directory(place)) return {place};
    std::vector<fs::path> files;
    for (const fs::directory_entry& entry : fs::directory_iterator(place))
        files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

// The bytes are in a block of exactly their size, so that AddressSanitizer finds any read beyond
// it.
void replay(const fs::path& file) {
    std::printf("%s\n", file.c_str());
    std::fflush(stdout);  // the last name is the culprit's
    std::ifstream in(file, std::ios::binary);
    fuzz::require(in.is_open(), "an input can be read");
    std::vector<char> contents{std::istreambuf_iterator<char>(in), {}};
    contents.shrink_to_fit();
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(contents.data()), contents.size());
}

}  // namespace

int main(int argc, char** argv) {
    std::size_t count = 0;
    for (int at = 1; at < argc; at++) {
        for (const fs::path& file : inputs_in(argv[at])) {
            replay(file);
            count++;
        }
    }
    fuzz::require(count != 0, "there are inputs");
    std::printf("%zu inputs\n", count);
    return EXIT_SUCCESS;
}
