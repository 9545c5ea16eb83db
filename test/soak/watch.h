// watch.h - figures of this process, and whether its memory grows.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace soak {

size_t descriptors();
size_t threads();

// Resident memory of this process in KiB, less the pages of files: those come and go with what else
// the machine does. What has been freed is given back to the system first, so that a past peak does
// not count.
size_t resident();

// Whether memory still grows: the median of the last third of the samples lies above the median of
// the middle third by more than the allowance. The first third is for reaching the working size;
// medians, so that single peaks do not matter. Says by how much, and is empty when it does not
// grow. Fewer than nine samples tell nothing.
std::string growth(const std::vector<size_t>& samples, size_t allowance);

}  // namespace soak
