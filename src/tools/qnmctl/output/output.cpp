// Finds out from the environment and the terminal how texts should look.
#include "output/output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>

#include "common/visible.h"
#include "output/text.h"

namespace qnmctl {

namespace {

// The value of an environment variable; empty when it is not set.
std::string value_of(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

// The first of these that is set decides, as in the C library.
bool has_unicode() {
    for (const char* const name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const std::string locale = value_of(name);
        if (locale.empty()) continue;
        return locale.find("UTF-8") != std::string::npos ||
               locale.find("utf8") != std::string::npos;
    }
    return false;
}

std::size_t width_at(int fd) {
    const auto columns = parse_number(value_of("COLUMNS"));
    if (columns && *columns > 0) return *columns;
    winsize size{};
    if (ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    return SIZE_MAX;
}

}  // namespace

look look_of(int fd) {
    return {.coloured = isatty(fd) == 1 && value_of("NO_COLOR").empty(),
            .unicode = has_unicode(),
            .width = width_at(fd)};
}

std::string in_colour(const std::string& text, const char* colour, bool coloured) {
    return coloured ? tools::own(colour) + text + tools::own("\033[0m") : text;
}

}  // namespace qnmctl
