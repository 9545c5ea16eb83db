// host.h - the near end of the soak: a host program with many threads around one manager, which is
// watched, and restarted now and then.
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

// Whether everything was right. Prints a line a minute.
bool run_host(stage& shared, const plan& planned);

}  // namespace soak
