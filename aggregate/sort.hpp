// Internal to the library and its tests.
#pragma once

#include <cstdint>

namespace qmo {

// The current pivot seed of the element type with this code (0 for a code
// without one). Read-only, so a test can follow the seed sequence of a sort
// without disturbing it.
uint32_t pivot_seed(int code) noexcept;

}  // namespace qmo
