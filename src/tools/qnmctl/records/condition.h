// The condition of a card: whether it can be reached, when it was heard, and what is wrong with it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "output/text.h"
#include "records/fields.h"

namespace qnmctl {

// By at least one path.
bool is_connected(const card& record);

// Milliseconds since the card was last heard on any path; nothing when it never was.
std::optional<std::uint64_t> silence(const card& record, wall_time now);

// lost: no path is connected. faulty: a path was lost, or the card itself announces an error.
enum class condition { well, faulty, lost };

condition condition_of(const card& record);

// The problems that the card announces: "link 0 fault, power off, vector 0x12"; empty if there are
// none.
std::string trouble_text(const card& record);

}  // namespace qnmctl
