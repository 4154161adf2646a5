// filter at 1%, 50% and 99% selectivity over 10 million int4 and double
// values, and the typical request (gt -> filter -> agg_sum) beside plain loops.
#include "bench_support.hpp"
#include "loops.hpp"

namespace {

// Values uniform in [0, 100): "x < s" keeps about s percent of them.
using bench::Api;

template <class T>
const std::vector<T> &column() {
    return bench::column<T>(21, 0, 100);
}

// column < percent, filtered, drained into an array.
template <class T>
void filter_library(benchmark::State &state) {
    const auto &in = column<T>();
    const T percent = static_cast<T>(state.range(0));
    std::vector<T> out(in.size());
    for (auto _ : state) {
        qmo_seq_iterator_t a, b, k, cond, kept;
        Api<T>::unget(&a, in.data(), in.size());
        Api<T>::unget(&b, in.data(), in.size());
        Api<T>::constant(&k, percent);
        Api<T>::lt(&cond, &a, &k);
        Api<T>::filter(&kept, &cond, &b);
        uint64_t count = out.size();
        Api<T>::get(&kept, out.data(), &count);
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, in.size());
}

template <class T>
void filter_loop(benchmark::State &state) {
    const auto &in = column<T>();
    const T percent = static_cast<T>(state.range(0));
    std::vector<T> out(in.size());
    for (auto _ : state) {
        size_t k = bench::loops::filter_below(out.data(), in.data(), in.size(), percent);
        benchmark::DoNotOptimize(out.data());
        benchmark::DoNotOptimize(k);
    }
    bench::per_element(state, in.size());
}

// The typical request: sum of the values below a threshold (50%).
template <class T>
void typical_library(benchmark::State &state) {
    const auto &in = column<T>();
    for (auto _ : state) {
        qmo_seq_iterator_t a, b, k, cond, kept, sum;
        Api<T>::unget(&a, in.data(), in.size());
        Api<T>::unget(&b, in.data(), in.size());
        Api<T>::constant(&k, T{50});
        Api<T>::lt(&cond, &a, &k);
        Api<T>::filter(&kept, &cond, &b);
        Api<T>::sum(&sum, &kept);
        sum.next(&sum);
        benchmark::DoNotOptimize(sum.values.u8[0]);
    }
    bench::per_element(state, in.size());
}

template <class T>
void typical_loop(benchmark::State &state) {
    const auto &in = column<T>();
    for (auto _ : state) {
        bench::sum_t<T> sum = bench::loops::sum_below(in.data(), in.size(), T{50});
        benchmark::DoNotOptimize(sum);
    }
    bench::per_element(state, in.size());
}

}  // namespace

BENCHMARK(filter_library<int32_t>)->Name("filter_int4/library")->Arg(1)->Arg(50)->Arg(99)->Unit(benchmark::kMillisecond);
BENCHMARK(filter_loop<int32_t>)->Name("filter_int4/loop")->Arg(1)->Arg(50)->Arg(99)->Unit(benchmark::kMillisecond);
BENCHMARK(filter_library<double>)->Name("filter_double/library")->Arg(1)->Arg(50)->Arg(99)->Unit(benchmark::kMillisecond);
BENCHMARK(filter_loop<double>)->Name("filter_double/loop")->Arg(1)->Arg(50)->Arg(99)->Unit(benchmark::kMillisecond);
BENCHMARK(typical_library<int32_t>)->Name("typical_request_int4/library")->Unit(benchmark::kMillisecond);
BENCHMARK(typical_loop<int32_t>)->Name("typical_request_int4/loop")->Unit(benchmark::kMillisecond);
BENCHMARK(typical_library<double>)->Name("typical_request_double/library")->Unit(benchmark::kMillisecond);
BENCHMARK(typical_loop<double>)->Name("typical_request_double/loop")->Unit(benchmark::kMillisecond);
