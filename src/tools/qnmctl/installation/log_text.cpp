// Goes back from the newest file to the one that was marked.
#include "installation/log_text.h"

#include "common/regular_file.h"
#include "output/text.h"

namespace qnmctl {

log_mark::log_mark(const std::filesystem::path& log) : log_(log) {
    const tools::opened_file file = tools::open_regular(log, tools::links::followed);
    is_there_ = file.state == tools::file_state::readable;
    if (!is_there_) return;
    device_ = file.about.st_dev;
    file_ = file.about.st_ino;
    end_ = file.size();
}

std::string log_mark::text_since() const {
    std::string text;
    std::string name = log_;
    for (int older = 1;; ++older) {
        const tools::opened_file file = tools::open_regular(name, tools::links::followed);
        const bool is_marked =
            is_there_ && file.about.st_dev == device_ && file.about.st_ino == file_;
        if (file.state == tools::file_state::readable && is_marked)
            return tools::read_from(file, end_) + text;
        if (file.state == tools::file_state::readable) text.insert(0, tools::read_from(file, 0));
        if (file.state != tools::file_state::readable && (!is_there_ || older > 1)) break;
        name = log_.string() + '.' + std::to_string(older);
    }
    if (is_there_) throw error("the beginning of it has been rotated away, in " + log_.string());
    return text;
}

}  // namespace qnmctl
