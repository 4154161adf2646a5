// filter at 1%, 50% and 99% selectivity over 10 million int4 and double
// values, and the typical request (gt -> filter -> agg_sum) beside plain loops.
#include "bench_support.hpp"

namespace {

// Values uniform in [0, 100): "x < s" keeps about s percent of them.
template <class T>
const std::vector<T> &column() {
    static const std::vector<T> data = bench::random_column<T>(bench::kRows, 21, 0, 100);
    return data;
}

template <class T>
struct Fns;
template <>
struct Fns<int32_t> {
    static constexpr auto unget = qmo_seq_unget_int4;
    static constexpr auto constant = qmo_seq_const_int4;
    static constexpr auto lt = qmo_seq_lt_int4;
    static constexpr auto filter = qmo_seq_filter_int4;
    static constexpr auto get = qmo_seq_get_int4;
    static constexpr auto sum = qmo_seq_agg_sum_int4;
};
template <>
struct Fns<double> {
    static constexpr auto unget = qmo_seq_unget_double;
    static constexpr auto constant = qmo_seq_const_double;
    static constexpr auto lt = qmo_seq_lt_double;
    static constexpr auto filter = qmo_seq_filter_double;
    static constexpr auto get = qmo_seq_get_double;
    static constexpr auto sum = qmo_seq_agg_sum_double;
};

// column < percent, filtered, drained into an array.
template <class T>
void filter_library(benchmark::State &state) {
    const auto &in = column<T>();
    const T percent = static_cast<T>(state.range(0));
    std::vector<T> out(in.size());
    for (auto _ : state) {
        qmo_seq_iterator_t a, b, k, cond, kept;
        Fns<T>::unget(&a, in.data(), in.size());
        Fns<T>::unget(&b, in.data(), in.size());
        Fns<T>::constant(&k, percent);
        Fns<T>::lt(&cond, &a, &k);
        Fns<T>::filter(&kept, &cond, &b);
        uint64_t count = out.size();
        Fns<T>::get(&kept, out.data(), &count);
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
        size_t k = 0;
        for (T x : in) {
            out[k] = x;
            k += x < percent;
        }
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
        Fns<T>::unget(&a, in.data(), in.size());
        Fns<T>::unget(&b, in.data(), in.size());
        Fns<T>::constant(&k, T{50});
        Fns<T>::lt(&cond, &a, &k);
        Fns<T>::filter(&kept, &cond, &b);
        Fns<T>::sum(&sum, &kept);
        sum.next(&sum);
        benchmark::DoNotOptimize(sum.values.u8[0]);
    }
    bench::per_element(state, in.size());
}

template <class T>
void typical_loop(benchmark::State &state) {
    const auto &in = column<T>();
    for (auto _ : state) {
        std::conditional_t<std::is_integral_v<T>, int64_t, double> sum = 0;
        for (T x : in)
            if (x < T{50}) sum += x;
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
