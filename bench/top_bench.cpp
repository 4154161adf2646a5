// Top-N over 10 million int4 and double values, n = 10 and 128: top_max and
// top_pos_max beside a handwritten insertion loop and, as a second baseline
// (its ratio is not printed), std::partial_sort_copy. Random input, where a
// full list turns nearly every value away, and ascending input, where every
// value enters at the head of the list.
#include "bench_support.hpp"

#include <algorithm>
#include <functional>
#include <numeric>
#include <ranges>
#include <span>

namespace {

template <class T>
const std::vector<T> &random_values() {
    return bench::column<T>(18);
}

template <class T>
const std::vector<T> &ascending_values() {
    static const std::vector<T> made = [] {
        std::vector<T> v(bench::kRows);
        std::iota(v.begin(), v.end(), T{0});
        return v;
    }();
    return made;
}

template <class T, bool Ascending>
const std::vector<T> &values() {
    if constexpr (Ascending) return ascending_values<T>();
    else return random_values<T>();
}

template <class T, bool Positions>
constexpr auto make_top() {
    if constexpr (std::is_same_v<T, int32_t>) return Positions ? qmo_seq_top_pos_max_int4 : qmo_seq_top_max_int4;
    else return Positions ? qmo_seq_top_pos_max_double : qmo_seq_top_max_double;
}

template <class T, bool Positions, bool Ascending>
void top_library(benchmark::State &state) {
    const auto &d = values<T, Ascending>();
    const uint64_t n = static_cast<uint64_t>(state.range(0));
    for (auto _ : state) {
        qmo_seq_iterator_t src, top;
        bench::Api<T>::unget(&src, d.data(), d.size());
        make_top<T, Positions>()(&top, &src, n);
        top.next(&top);
        benchmark::DoNotOptimize(top.values.u8[0]);
    }
    bench::per_element(state, d.size());
}

// Insertion from the tail: equal values stay behind those kept earlier.
template <class T, bool Positions, bool Ascending>
void top_loop(benchmark::State &state) {
    const auto &d = values<T, Ascending>();
    const size_t n = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        T kept[QMO_SEQ_TILE_SIZE] = {};
        uint64_t at[QMO_SEQ_TILE_SIZE] = {};
        size_t k = 0;
        for (size_t i = 0; i < d.size(); ++i) {
            const T v = d[i];
            if (k == n && !(v > kept[n - 1])) continue;
            size_t j = k < n ? k++ : n - 1;
            for (; j > 0 && kept[j - 1] < v; --j) {
                kept[j] = kept[j - 1];
                if constexpr (Positions) at[j] = at[j - 1];
            }
            kept[j] = v;
            if constexpr (Positions) at[j] = i;
        }
        benchmark::DoNotOptimize(kept[0]);
        if constexpr (Positions) benchmark::DoNotOptimize(at[0]);
    }
    bench::per_element(state, d.size());
}

template <class T, bool Positions, bool Ascending>
void top_partial_sort_copy(benchmark::State &state) {
    const auto &d = values<T, Ascending>();
    const size_t n = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        if constexpr (Positions) {
            uint64_t at[QMO_SEQ_TILE_SIZE] = {};
            std::ranges::partial_sort_copy(std::views::iota(uint64_t{0}, uint64_t{d.size()}), std::span(at, n),
                                           [&d](uint64_t a, uint64_t b) { return d[a] > d[b] || (d[a] == d[b] && a < b); });
            benchmark::DoNotOptimize(at[0]);
        } else {
            T kept[QMO_SEQ_TILE_SIZE] = {};
            std::partial_sort_copy(d.begin(), d.end(), kept, kept + n, std::greater<T>());
            benchmark::DoNotOptimize(kept[0]);
        }
    }
    bench::per_element(state, d.size());
}

}  // namespace

#define QMO_BENCH_TOP(name, T, positions, ascending)                                               \
    BENCHMARK((top_library<T, positions, ascending>))->Name(name "/library")->Arg(10)->Arg(128);   \
    BENCHMARK((top_loop<T, positions, ascending>))->Name(name "/loop")->Arg(10)->Arg(128);         \
    BENCHMARK((top_partial_sort_copy<T, positions, ascending>))                                    \
        ->Name(name "/partial_sort_copy")                                                          \
        ->Arg(10)                                                                                  \
        ->Arg(128);

QMO_BENCH_TOP("top_max_int4", int32_t, false, false)
QMO_BENCH_TOP("top_max_double", double, false, false)
QMO_BENCH_TOP("top_pos_max_int4", int32_t, true, false)
QMO_BENCH_TOP("top_pos_max_double", double, true, false)
QMO_BENCH_TOP("top_max_ascending_int4", int32_t, false, true)
QMO_BENCH_TOP("top_max_ascending_double", double, false, true)
QMO_BENCH_TOP("top_pos_max_ascending_int4", int32_t, true, true)
QMO_BENCH_TOP("top_pos_max_ascending_double", double, true, true)
