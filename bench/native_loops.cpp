// The handwritten loops again, compiled with -O3 -march=native: what a
// caller's own loop gets from the build machine's full instruction set.
// Registered as "<case>/native_loop" beside the cases of the other files.
#include "bench_support.hpp"
#include "loops.hpp"

namespace {

using bench::kCacheRows;
using bench::kRows;
namespace loops = bench::loops;

template <class T>
void add(benchmark::State &state) {
    const auto &a = bench::column<T>(1), &b = bench::column<T>(2);
    const size_t rows = static_cast<size_t>(state.range(0));
    std::vector<T> out(rows);
    for (auto _ : state) {
        loops::add(out.data(), a.data(), b.data(), rows);
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, rows);
}

template <class T>
void add_gt(benchmark::State &state) {
    const auto &a = bench::column<T>(1), &b = bench::column<T>(2), &c = bench::column<T>(3);
    const size_t rows = static_cast<size_t>(state.range(0));
    std::vector<uint8_t> out(rows);
    for (auto _ : state) {
        loops::add_gt(out.data(), a.data(), b.data(), c.data(), rows);
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, rows);
}

template <class T>
void filter(benchmark::State &state) {
    const auto &in = bench::column<T>(21, 0, 100);
    std::vector<T> out(in.size());
    for (auto _ : state) {
        size_t k = loops::filter_below(out.data(), in.data(), in.size(), static_cast<T>(state.range(0)));
        benchmark::DoNotOptimize(out.data());
        benchmark::DoNotOptimize(k);
    }
    bench::per_element(state, in.size());
}

template <class T>
void typical(benchmark::State &state) {
    const auto &in = bench::column<T>(21, 0, 100);
    for (auto _ : state) {
        auto s = loops::sum_below(in.data(), in.size(), T{50});
        benchmark::DoNotOptimize(s);
    }
    bench::per_element(state, in.size());
}

template <class T>
void sum(benchmark::State &state) {
    const auto &in = bench::column<T>(11);
    const size_t rows = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        auto s = loops::sum(in.data(), rows);
        benchmark::DoNotOptimize(s);
    }
    bench::per_element(state, rows);
}

template <class T>
void mean(benchmark::State &state) {
    const auto &in = bench::column<T>(11);
    const size_t rows = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        double m = loops::mean(in.data(), rows);
        benchmark::DoNotOptimize(m);
    }
    bench::per_element(state, rows);
}

}  // namespace

#define QMO_NATIVE_(name, fn) BENCHMARK(fn)->Name(name "/native_loop")->Arg(kRows)->Arg(kCacheRows);
QMO_NATIVE_("add_int4", add<int32_t>)
QMO_NATIVE_("add_double", add<double>)
QMO_NATIVE_("add_gt_int4", add_gt<int32_t>)
QMO_NATIVE_("add_gt_double", add_gt<double>)
QMO_NATIVE_("sum_int4", sum<int32_t>)
QMO_NATIVE_("sum_double", sum<double>)
QMO_NATIVE_("avg_int4", mean<int32_t>)
QMO_NATIVE_("avg_double", mean<double>)
BENCHMARK(filter<int32_t>)->Name("filter_int4/native_loop")->Arg(1)->Arg(50)->Arg(99)->Unit(benchmark::kMillisecond);
BENCHMARK(filter<double>)->Name("filter_double/native_loop")->Arg(1)->Arg(50)->Arg(99)->Unit(benchmark::kMillisecond);
BENCHMARK(typical<int32_t>)->Name("typical_request_int4/native_loop")->Unit(benchmark::kMillisecond);
BENCHMARK(typical<double>)->Name("typical_request_double/native_loop")->Unit(benchmark::kMillisecond);
