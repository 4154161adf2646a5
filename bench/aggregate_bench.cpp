// Scalar aggregates over an array source against handwritten loops: sum, avg
// and var over int4 and double columns, and the approximate distinct count
// over int8. 10 million rows stream from memory; 16 thousand stay in cache
// and show the per-tile overhead instead.
#include "bench_support.hpp"
#include "loops.hpp"

#include "aggregate/distinct.hpp"

namespace {

using bench::Api;
using bench::kCacheRows;

template <class T>
const std::vector<T> &column() {
    return bench::column<T>(11);
}

using Make = int (*)(qmo_seq_iterator_t *, qmo_seq_iterator_t *);

// Builds source and aggregate, pulls the one result.
template <class T, Make make>
void aggregate_library(benchmark::State &state) {
    const auto &d = column<T>();
    const size_t rows = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        qmo_seq_iterator_t src, agg;
        Api<T>::unget(&src, d.data(), rows);
        make(&agg, &src);
        agg.next(&agg);
        benchmark::DoNotOptimize(agg.values.u8[0]);
    }
    bench::per_element(state, rows);
}

template <class T>
void sum_loop(benchmark::State &state) {
    const auto &d = column<T>();
    const size_t rows = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        bench::sum_t<T> s = bench::loops::sum(d.data(), rows);
        benchmark::DoNotOptimize(s);
    }
    bench::per_element(state, rows);
}

template <class T>
void avg_loop(benchmark::State &state) {
    const auto &d = column<T>();
    const size_t rows = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        double mean = bench::loops::mean(d.data(), rows);
        benchmark::DoNotOptimize(mean);
    }
    bench::per_element(state, rows);
}

template <class T>
void var_loop(benchmark::State &state) {
    const auto &d = column<T>();
    const size_t rows = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        double s1 = 0, s2 = 0;
        for (size_t i = 0; i < rows; ++i) {
            const double x = static_cast<double>(d[i]);
            s1 += x;
            s2 += x * x;
        }
        const double n = static_cast<double>(rows);
        double var = (s2 - s1 * s1 / n) / n;
        benchmark::DoNotOptimize(var);
    }
    bench::per_element(state, rows);
}

const std::vector<int64_t> &keys() {
    return bench::column<int64_t>(12, -1e9, 1e9);
}

void approxdc_library(benchmark::State &state) {
    const size_t rows = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        qmo_seq_iterator_t src, agg;
        qmo_seq_unget_int8(&src, keys().data(), rows);
        qmo_seq_agg_approxdc(&agg, &src);
        agg.next(&agg);
        benchmark::DoNotOptimize(agg.values.u4[0]);
    }
    bench::per_element(state, rows);
}

void approxdc_loop(benchmark::State &state) {
    const size_t rows = static_cast<size_t>(state.range(0));
    const int64_t *k = keys().data();
    for (auto _ : state) {
        uint8_t registers[qmo::kDistinctRegisters] = {};
        for (size_t i = 0; i < rows; ++i)
            qmo::distinct_add(registers, qmo::murmur_hash3_32(&k[i], sizeof k[i], qmo::kHashSeed));
        int64_t e = qmo::approximate_distinct_count(registers);
        benchmark::DoNotOptimize(e);
    }
    bench::per_element(state, rows);
}

}  // namespace

#define QMO_BENCH_PAIR(name, library, loop)                                                    \
    BENCHMARK(library)->Name(name "/library")->Arg(bench::kRows)->Arg(kCacheRows);             \
    BENCHMARK(loop)->Name(name "/loop")->Arg(bench::kRows)->Arg(kCacheRows);

QMO_BENCH_PAIR("sum_int4", (aggregate_library<int32_t, Api<int32_t>::sum>), sum_loop<int32_t>)
QMO_BENCH_PAIR("sum_double", (aggregate_library<double, Api<double>::sum>), sum_loop<double>)
QMO_BENCH_PAIR("avg_int4", (aggregate_library<int32_t, Api<int32_t>::avg>), avg_loop<int32_t>)
QMO_BENCH_PAIR("avg_double", (aggregate_library<double, Api<double>::avg>), avg_loop<double>)
QMO_BENCH_PAIR("var_int4", (aggregate_library<int32_t, Api<int32_t>::var>), var_loop<int32_t>)
QMO_BENCH_PAIR("var_double", (aggregate_library<double, Api<double>::var>), var_loop<double>)
QMO_BENCH_PAIR("approxdc_int8", approxdc_library, approxdc_loop)
