#include "aggregate/distinct.hpp"
#include "frame/numeric.hpp"

#include <cmath>

namespace qmo {

// The constants are part of the result, odd as some look: alpha * m^2 with
// alpha = 0.7213 / (1 + 1.079 / m), and the large-range correction against
// 2^32 - 1 (and its thirtieth), not 2^32. Every aggregate that estimates from
// these registers must agree to the unit, so they stay as they are.
int64_t approximate_distinct_count(const uint8_t *registers) noexcept {
    double z = 0;
    for (unsigned j = 0; j < kDistinctRegisters; ++j) z += 1.0 / std::pow(2.0, registers[j]);
    double e = 11718.991761634348 / z;
    if (e <= 320.0) {
        unsigned zeros = 0;
        for (unsigned j = 0; j < kDistinctRegisters; ++j) zeros += registers[j] == 0;
        if (zeros > 0) e = 128 * std::log(128 / static_cast<double>(zeros));
    }
    if (e > 320.0 && e > 143165576.5) e = -4294967295.0 * std::log(1 - e / 4294967295.0);
    return double_to_i64(e);
}

}  // namespace qmo
