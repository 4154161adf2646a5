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
#include <map>
#include <random>
#include <type_traits>
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

// One column per type and seed, generated once and shared by the cases.
// (A map, since references to earlier columns must stay valid.)
template <class T>
const std::vector<T> &column(uint64_t seed, double lo = -1000, double hi = 1000) {
    static std::map<uint64_t, std::vector<T>> made;
    auto it = made.find(seed);
    if (it == made.end()) it = made.emplace(seed, random_column<T>(kRows, seed, lo, hi)).first;
    return it->second;
}

// Rows that stay in cache: the per-tile overhead shows instead of memory.
inline constexpr size_t kCacheRows = 16 * 1024;

// Api<T>: the library's entry points for the element type with C type T,
// stamped from the header's lists (the signed and floating types, whose C
// types are all distinct).
template <class T>
struct Api;
#define BENCH_API_(a, t, ctype, code)                                   \
    template <>                                                         \
    struct Api<ctype> {                                                 \
        static constexpr auto unget = qmo_seq_unget_##t;                \
        static constexpr auto get = qmo_seq_get_##t;                    \
        static constexpr auto constant = qmo_seq_const_##t;             \
        static constexpr auto add = qmo_seq_add_##t;                    \
        static constexpr auto gt = qmo_seq_gt_##t;                      \
        static constexpr auto lt = qmo_seq_lt_##t;                      \
        static constexpr auto filter = qmo_seq_filter_##t;              \
        static constexpr auto sum = qmo_seq_agg_sum_##t;                \
        static constexpr auto avg = qmo_seq_agg_avg_##t;                \
        static constexpr auto var = qmo_seq_agg_var_##t;                \
        static constexpr auto sort = qmo_seq_sort_##t;                  \
    };
QMO_SEQ_SIGNED_TYPES(BENCH_API_, )
QMO_SEQ_FLOAT_TYPES(BENCH_API_, )
#undef BENCH_API_

// The type the library sums T in.
template <class T>
using sum_t = std::conditional_t<std::is_integral_v<T>, int64_t, double>;

// ns per element, shown beside the time.
inline void per_element(benchmark::State &state, size_t elements) {
    state.counters["ns/elem"] = benchmark::Counter(
        static_cast<double>(elements) * static_cast<double>(state.iterations()),
        benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

}  // namespace bench
