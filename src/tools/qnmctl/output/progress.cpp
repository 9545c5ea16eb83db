// Draws the progress bar.
#include "output/progress.h"

#include <unistd.h>

#include <cstdio>
#include <utility>

#include "common/standard_files.h"

namespace qnmctl {

namespace {

constexpr std::uint64_t bar_width = 30;
constexpr std::uint64_t shown_from = 16;  // fewer steps take too little time for a bar
constexpr char to_start[] = "\r\033[K";

}  // namespace

std::string progress_text(const std::string& label, std::uint64_t done, std::uint64_t total,
                          std::chrono::milliseconds elapsed) {
    const std::uint64_t filled = done * bar_width / total;
    std::string text =
        label + " [" + std::string(filled, '#') + std::string(bar_width - filled, '.') + ']';
    char percent[16];
    std::snprintf(percent, sizeof percent, " %3u%%", static_cast<unsigned>(done * 100 / total));
    text += percent;
    if (done == 0 || elapsed < std::chrono::seconds(1)) return text;
    const auto left =
        elapsed * static_cast<std::int64_t>(total - done) / static_cast<std::int64_t>(done);
    return text + ", " + std::to_string(std::chrono::ceil<std::chrono::seconds>(left).count()) +
           " s left";
}

progress_line::progress_line(std::string label, std::uint64_t total)
    : label_(std::move(label)),
      total_(total),
      start_(std::chrono::steady_clock::now()),
      visible_(total >= shown_from && isatty(STDERR_FILENO) == 1) {}

progress_line::~progress_line() {
    clear();
}

void progress_line::clear() const {
    if (visible_) tools::tell(to_start, "");
}

void progress_line::show(std::uint64_t done) const {
    if (!visible_) return;
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start_);
    tools::tell(to_start, progress_text(label_, done, total_, elapsed));
}

}  // namespace qnmctl
