// Sorting 10 million int4, int8 and double values into a permutation, beside
// std::sort of the same positions by value. Inputs: random, nearly sorted
// (1% of the values swapped with a near neighbour) and few distinct (16).
#include "bench_support.hpp"

#include <algorithm>
#include <numeric>
#include <string>

namespace {

enum Kind { Random, NearlySorted, FewDistinct };

template <class T>
std::vector<T> make_column(Kind kind) {
    std::vector<T> v = bench::random_column<T>(bench::kRows, 7, -1e9, 1e9);
    std::mt19937_64 rng(11);
    if (kind == NearlySorted) {
        std::sort(v.begin(), v.end());
        for (size_t k = 0; k < v.size() / 100; ++k) {
            const size_t i = rng() % (v.size() - 16);
            std::swap(v[i], v[i + 1 + rng() % 15]);
        }
    } else if (kind == FewDistinct) {
        for (auto &x : v) x = static_cast<T>(rng() % 16);
    }
    return v;
}

template <class T, Kind K>
const std::vector<T> &column() {
    static const std::vector<T> data = make_column<T>(K);
    return data;
}

template <class T>
int (*const sort_fn)(const T *, uint64_t *, uint64_t, int) = nullptr;
template <>
int (*const sort_fn<int32_t>)(const int32_t *, uint64_t *, uint64_t, int) = qmo_seq_sort_int4;
template <>
int (*const sort_fn<int64_t>)(const int64_t *, uint64_t *, uint64_t, int) = qmo_seq_sort_int8;
template <>
int (*const sort_fn<double>)(const double *, uint64_t *, uint64_t, int) = qmo_seq_sort_double;

template <class T, Kind K>
void sort_library(benchmark::State &state) {
    const auto &v = column<T, K>();
    std::vector<uint64_t> perm(v.size());
    for (auto _ : state) {
        sort_fn<T>(v.data(), perm.data(), v.size(), QMO_SEQ_ASCENDING);
        benchmark::DoNotOptimize(perm.data());
    }
    bench::per_element(state, v.size());
}

template <class T, Kind K>
void sort_loop(benchmark::State &state) {
    const auto &v = column<T, K>();
    std::vector<uint64_t> perm(v.size());
    for (auto _ : state) {
        std::iota(perm.begin(), perm.end(), uint64_t{0});
        std::sort(perm.begin(), perm.end(), [&v](uint64_t a, uint64_t b) { return v[a] < v[b]; });
        benchmark::DoNotOptimize(perm.data());
    }
    bench::per_element(state, v.size());
}

template <class T>
void register_type(const std::string &type) {
    const auto pair = [&](const char *kind, auto library, auto loop) {
        const std::string name = "sort_" + type + "_" + kind;
        benchmark::RegisterBenchmark((name + "/library").c_str(), library)->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((name + "/loop").c_str(), loop)->Unit(benchmark::kMillisecond);
    };
    pair("random", sort_library<T, Random>, sort_loop<T, Random>);
    pair("nearly_sorted", sort_library<T, NearlySorted>, sort_loop<T, NearlySorted>);
    pair("few_distinct", sort_library<T, FewDistinct>, sort_loop<T, FewDistinct>);
}

const int registered = [] {
    register_type<int32_t>("int4");
    register_type<int64_t>("int8");
    register_type<double>("double");
    return 0;
}();

}  // namespace
