// host.h - the near end of the soak: a host program with many threads around one manager. The
// manager is monitored, and restarted from time to time.
#pragma once

#include <chrono>
#include <cstdint>

#include "stage.h"

namespace soak {

struct plan {
    std::chrono::seconds duration;
    uint64_t seed;
    bool judge_memory;  // not where a sanitizer keeps what was freed
};

// Returns whether everything was right. Prints a line a minute.
bool run_host(stage& shared, const plan& planned);

}  // namespace soak
