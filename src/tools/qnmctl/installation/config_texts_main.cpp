// Prints the texts about qnm.conf, for the build and after a key was changed: "sample" belongs into
// conf/qnm.conf, "table" into docs/configuration.md.
#include <cstdio>
#include <string_view>

#include "installation/config_texts.h"

namespace {

struct text_row {
    std::string_view name;
    std::string (*made)();
};

constexpr text_row texts[] = {{"sample", qnmctl::config_sample},
                              {"page", qnmctl::config_page},
                              {"table", qnmctl::config_table}};

}  // namespace

int main(int argc, char** argv) {
    for (const text_row& row : texts) {
        if (argc == 2 && row.name == argv[1]) return std::fputs(row.made().c_str(), stdout) < 0;
    }
    std::fputs("usage: qnm-config-texts sample|page|table\n", stderr);
    return 2;
}
