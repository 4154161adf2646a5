// (a + b) > c and a + b over int4 and double columns: array sources,
// element-wise operators, drained into a caller array with get. 10 million
// rows stream from memory; 16 thousand stay in cache and show the per-tile
// overhead instead.
#include "bench_support.hpp"
#include "loops.hpp"

namespace {

using bench::Api;
using bench::kCacheRows;

template <class T>
struct Columns {
    const std::vector<T> &a = bench::column<T>(1);
    const std::vector<T> &b = bench::column<T>(2);
    const std::vector<T> &c = bench::column<T>(3);
};

template <class T>
const Columns<T> &columns() {
    static const Columns<T> data;
    return data;
}

template <class T>
void add_library(benchmark::State &state) {
    const auto &d = columns<T>();
    const size_t rows = static_cast<size_t>(state.range(0));
    std::vector<T> out(rows);
    for (auto _ : state) {
        qmo_seq_iterator_t a, b, sum;
        Api<T>::unget(&a, d.a.data(), rows);
        Api<T>::unget(&b, d.b.data(), rows);
        Api<T>::add(&sum, &a, &b);
        uint64_t count = out.size();
        Api<T>::get(&sum, out.data(), &count);
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, rows);
}

template <class T>
void add_loop(benchmark::State &state) {
    const auto &d = columns<T>();
    const size_t rows = static_cast<size_t>(state.range(0));
    std::vector<T> out(rows);
    for (auto _ : state) {
        bench::loops::add(out.data(), d.a.data(), d.b.data(), rows);
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, rows);
}

template <class T>
void add_gt_library(benchmark::State &state) {
    const auto &d = columns<T>();
    const size_t rows = static_cast<size_t>(state.range(0));
    std::vector<uint8_t> out(rows);
    for (auto _ : state) {
        qmo_seq_iterator_t a, b, c, sum, gt;
        Api<T>::unget(&a, d.a.data(), rows);
        Api<T>::unget(&b, d.b.data(), rows);
        Api<T>::unget(&c, d.c.data(), rows);
        Api<T>::add(&sum, &a, &b);
        Api<T>::gt(&gt, &sum, &c);
        uint64_t count = out.size();
        qmo_seq_get_uint1(&gt, out.data(), &count);
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, rows);
}

template <class T>
void add_gt_loop(benchmark::State &state) {
    const auto &d = columns<T>();
    const size_t rows = static_cast<size_t>(state.range(0));
    std::vector<uint8_t> out(rows);
    for (auto _ : state) {
        bench::loops::add_gt(out.data(), d.a.data(), d.b.data(), d.c.data(), rows);
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, rows);
}

}  // namespace

#define QMO_BENCH_PAIR(name, library, loop)                                                    \
    BENCHMARK(library)->Name(name "/library")->Arg(bench::kRows)->Arg(kCacheRows);                 \
    BENCHMARK(loop)->Name(name "/loop")->Arg(bench::kRows)->Arg(kCacheRows);

QMO_BENCH_PAIR("add_int4", add_library<int32_t>, add_loop<int32_t>)
QMO_BENCH_PAIR("add_double", add_library<double>, add_loop<double>)
QMO_BENCH_PAIR("add_gt_int4", add_gt_library<int32_t>, add_gt_loop<int32_t>)
QMO_BENCH_PAIR("add_gt_double", add_gt_library<double>, add_gt_loop<double>)
