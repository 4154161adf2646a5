// Array in, array out: unget -> get of 10 million elements against memcpy of
// the same bytes, and the same through limit and skip_nan.
#include "bench_support.hpp"

namespace {

using bench::Api;

template <class T>
const std::vector<T> &column() {
    return bench::column<T>(11);
}

enum class Shape { Direct, Limit, SkipNaN };

template <class T, Shape S>
void library(benchmark::State &state) {
    const auto &in = column<T>();
    std::vector<T> out(in.size());
    for (auto _ : state) {
        qmo_seq_iterator_t src, shaped, *root = &src;
        Api<T>::unget(&src, in.data(), in.size());
        if constexpr (S == Shape::Limit) {
            qmo_seq_limit(&shaped, &src, 0, in.size() - 1);
            root = &shaped;
        } else if constexpr (S == Shape::SkipNaN) {
            qmo_seq_skip_nan_double(&shaped, &src);
            root = &shaped;
        }
        uint64_t count = out.size();
        Api<T>::get(root, out.data(), &count);
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, in.size());
}

template <class T>
void loop(benchmark::State &state) {
    const auto &in = column<T>();
    std::vector<T> out(in.size());
    for (auto _ : state) {
        std::memcpy(out.data(), in.data(), in.size() * sizeof(T));
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, in.size());
}

// Handwritten NaN filter, the loop skip_nan competes with.
void skip_nan_loop(benchmark::State &state) {
    const auto &in = column<double>();
    std::vector<double> out(in.size());
    for (auto _ : state) {
        size_t k = 0;
        for (double x : in) {
            out[k] = x;
            k += x == x;
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::DoNotOptimize(k);
    }
    bench::per_element(state, in.size());
}

}  // namespace

BENCHMARK(library<int32_t, Shape::Direct>)->Name("unget_get_int4/library")->Unit(benchmark::kMillisecond);
BENCHMARK(loop<int32_t>)->Name("unget_get_int4/loop")->Unit(benchmark::kMillisecond);
BENCHMARK(library<double, Shape::Direct>)->Name("unget_get_double/library")->Unit(benchmark::kMillisecond);
BENCHMARK(loop<double>)->Name("unget_get_double/loop")->Unit(benchmark::kMillisecond);
BENCHMARK(library<int32_t, Shape::Limit>)->Name("limit_int4/library")->Unit(benchmark::kMillisecond);
BENCHMARK(loop<int32_t>)->Name("limit_int4/loop")->Unit(benchmark::kMillisecond);
BENCHMARK(library<double, Shape::Limit>)->Name("limit_double/library")->Unit(benchmark::kMillisecond);
BENCHMARK(loop<double>)->Name("limit_double/loop")->Unit(benchmark::kMillisecond);
BENCHMARK(library<double, Shape::SkipNaN>)->Name("skip_nan_double/library")->Unit(benchmark::kMillisecond);
BENCHMARK(skip_nan_loop)->Name("skip_nan_double/loop")->Unit(benchmark::kMillisecond);
