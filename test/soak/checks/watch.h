// watch.h - figures of this process, and whether its memory grows.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace soak {

size_t descriptors();
size_t threads();

// Resident memory of this process in KiB, all of it and as it is.
size_t resident();

// The same, less the pages of files: those come and go with what else the machine does. What has
// been freed is given back to the system first, so that a past peak does not count.
size_t held();

// What malloc() has given out and not got back, in KiB: what the threads' caches keep for the next
// call counts, the gaps between do not.
size_t in_use();

// Whether memory still grows: the median of the last third of the samples lies above an earlier one
// by more than the allowance. Medians, so that single peaks do not matter. Says by how much, and is
// empty when it does not grow. Fewer than nine samples tell nothing.
//
// The earlier one is that of the middle third, where the first third may reach the working size, or
// that of the first eighth, where the working size has been reached before.
std::string growth(const std::vector<size_t>& samples, size_t allowance);
std::string growth_from_start(const std::vector<size_t>& samples, size_t allowance);

}  // namespace soak
