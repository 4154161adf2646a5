// Instruction sets the hot kernels are compiled for. Each dispatched kernel
// is one definition compiled twice, for the x86-64 baseline and for AVX2, and
// the variant is picked per call from a setting fixed when the library loads.
#pragma once

#include "frame/record.hpp"

#if !defined(QMO_SEQ_DISPATCH)
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define QMO_SEQ_DISPATCH 1
#else
#define QMO_SEQ_DISPATCH 0
#endif
#endif

namespace qmo {

enum class Isa : int { baseline, avx2 };

// The best set this CPU runs, capped by QMO_SEQ_ISA=baseline in the
// environment (so tests and users can force the portable path).
Isa detect_isa() noexcept;

// detect_isa() as the library loaded. Code running before that sees baseline.
extern const Isa g_isa;

#if QMO_SEQ_DISPATCH

// Everything the kernel calls is inlined, so all of it is compiled for AVX2.
template <auto Kernel, class... Args>
__attribute__((target("avx2,bmi,bmi2,popcnt,lzcnt"), flatten, noinline)) auto run_avx2(Args... args) noexcept {
    return Kernel(args...);
}

// Calls Baseline or, on AVX2 machines, Avx2 (the same kernel instantiated
// for Isa::avx2) compiled for AVX2.
template <auto Baseline, auto Avx2, class... Args>
inline auto dispatch(Args... args) noexcept {
    if (g_isa == Isa::avx2) return run_avx2<Avx2>(args...);
    return Baseline(args...);
}

#else

template <auto Baseline, auto Avx2, class... Args>
inline auto dispatch(Args... args) noexcept {
    return Baseline(args...);
}

#endif

}  // namespace qmo
