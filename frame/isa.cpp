#include "frame/isa.hpp"

#include <cstdlib>
#include <cstring>

namespace qmo {

Isa detect_isa() noexcept {
#if QMO_SEQ_DISPATCH
    if (const char *cap = std::getenv("QMO_SEQ_ISA"); cap && std::strcmp(cap, "baseline") == 0) return Isa::baseline;
    __builtin_cpu_init();  // may run from a static initialiser, before the CPU model is read
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi2") && __builtin_cpu_supports("popcnt"))
        return Isa::avx2;
#endif
    return Isa::baseline;
}

const Isa g_isa = detect_isa();

}  // namespace qmo
