// settings.h - how long the tests beside a model walk, and from which seed.
//
//   QNM_MODEL_STEPS       steps of all sequences together, in place of those of the build
//   QNM_MODEL_FIRST_SEED  the seed of the first sequence, 1 unless given; the others follow
//
// The same seed makes the same steps.
#pragma once

#include <cstdint>
#include <cstdlib>

namespace model {

inline uint64_t setting(const char* name, uint64_t otherwise) {
    const char* const text = getenv(name);
    return text != nullptr ? strtoull(text, nullptr, 10) : otherwise;
}

inline uint64_t step_count() {
    return setting("QNM_MODEL_STEPS", QNM_MODEL_STEPS);
}

inline uint64_t first_seed() {
    return setting("QNM_MODEL_FIRST_SEED", 1);
}

}  // namespace model
