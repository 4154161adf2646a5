// Shared pieces of the benchmarks: data, an array source and naming.
//
// Each case is registered twice, as "<case>/library" (through iterator
// records) and "<case>/loop" (a plain handwritten loop doing the same work in
// this binary); bench_main prints the ratio of the two per case and size.
#pragma once

#include "qmo_seq.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace bench {

inline constexpr size_t kRows = 10'000'000;

template <class T>
std::vector<T> random_column(size_t n, uint64_t seed, double lo = -1000, double hi = 1000) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> dist(lo, hi);
    std::vector<T> v(n);
    for (auto &x : v) x = static_cast<T>(dist(rng));
    return v;
}

// ns per element, shown beside the time.
inline void per_element(benchmark::State &state, size_t elements) {
    state.counters["ns/elem"] = benchmark::Counter(
        static_cast<double>(elements) * static_cast<double>(state.iterations()),
        benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

}  // namespace bench
