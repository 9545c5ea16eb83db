// watch.h - figures of this process, and whether its memory grows.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace soak {

size_t descriptors();
size_t threads();

// Resident memory of this process in KiB.
size_t resident();

// The same without the pages of files, which come and go with other work of the machine. Freed
// memory is returned to the system first, so that a past peak does not count.
size_t held();

// What malloc() has handed out and not got back, in KiB. What the threads' caches keep for the next
// call counts, the gaps between do not.
size_t in_use();

// Whether memory still grows: the median of the last third of the samples is above an earlier one
// by more than the allowance. Medians, so that single peaks do not matter. Returns by how much, or
// an empty text when it does not grow. Fewer than nine samples say nothing.
//
// The earlier median is that of the middle third if the first third may be needed to reach the
// working size, or that of the first eighth if the working size has been reached before.
std::string growth(const std::vector<size_t>& samples, size_t allowance);
std::string growth_from_start(const std::vector<size_t>& samples, size_t allowance);

}  // namespace soak
