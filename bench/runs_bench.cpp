// Group aggregates over runs of equal keys against handwritten loops: sum and
// avg of 10 million int8 and double values over int4 keys in runs of mean
// length 1, 16 and 1,000 (the argument). Both sides write each run's result
// into a tile-sized buffer, as a consumer of the library's tiles would see it.
#include "bench_support.hpp"

namespace {

using bench::Api;

// Runs of random length 1 .. 2 * mean - 1; each run's key is one more than
// the last one's.
const std::vector<int32_t> &keys(size_t mean) {
    static std::map<size_t, std::vector<int32_t>> made;
    auto it = made.find(mean);
    if (it != made.end()) return it->second;
    std::mt19937_64 rng(mean);
    std::uniform_int_distribution<size_t> length(1, 2 * mean - 1);
    std::vector<int32_t> k;
    k.reserve(bench::kRows);
    for (int32_t key = 0; k.size() < bench::kRows; ++key) k.resize(std::min(bench::kRows, k.size() + length(rng)), key);
    return made.emplace(mean, std::move(k)).first->second;
}

template <class T>
const std::vector<T> &values() {
    return bench::column<T>(21);
}

template <class T>
struct Group;
#define BENCH_GROUP_(a, t, ctype, code)                             \
    template <>                                                     \
    struct Group<ctype> {                                           \
        static constexpr auto sum = qmo_seq_group_agg_sum_##t;      \
        static constexpr auto avg = qmo_seq_group_agg_avg_##t;      \
    };
BENCH_GROUP_(, int8, int64_t, ) BENCH_GROUP_(, double, double, )
#undef BENCH_GROUP_

using Make = int (*)(qmo_seq_iterator_t *, qmo_seq_iterator_t *, qmo_seq_iterator_t *);

template <class T, Make make>
void group_library(benchmark::State &state) {
    const auto &k = keys(static_cast<size_t>(state.range(0)));
    const auto &v = values<T>();
    for (auto _ : state) {
        qmo_seq_iterator_t key_source, value_source, agg;
        qmo_seq_unget_int4(&key_source, k.data(), k.size());
        Api<T>::unget(&value_source, v.data(), v.size());
        make(&agg, &value_source, &key_source);
        while (agg.next(&agg) == 0) benchmark::DoNotOptimize(agg.values.u8[0]);
    }
    bench::per_element(state, bench::kRows);
}

// Sums each run in S and closes it with finish(sum, count) into a buffer of one tile.
template <class T, class S, class R, class Finish>
void group_loop(benchmark::State &state, Finish finish) {
    const auto &keys_column = keys(static_cast<size_t>(state.range(0)));
    const int32_t *k = keys_column.data();
    const T *v = values<T>().data();
    for (auto _ : state) {
        R out[QMO_SEQ_TILE_SIZE];
        unsigned emitted = 0;
        S sum = 0;
        uint64_t count = 0;
        int32_t last = k[0];
        for (size_t i = 0; i < bench::kRows; ++i) {
            if (k[i] != last) {
                out[emitted++ % QMO_SEQ_TILE_SIZE] = finish(sum, count);
                sum = 0;
                count = 0;
                last = k[i];
            }
            sum += static_cast<S>(v[i]);
            ++count;
        }
        out[emitted % QMO_SEQ_TILE_SIZE] = finish(sum, count);
        benchmark::DoNotOptimize(out);
    }
    bench::per_element(state, bench::kRows);
}

template <class T>
void sum_loop(benchmark::State &state) {
    using S = bench::sum_t<T>;
    group_loop<T, S, S>(state, [](S s, uint64_t) { return s; });
}

template <class T>
void avg_loop(benchmark::State &state) {
    group_loop<T, double, double>(state, [](double s, uint64_t n) { return s / double(n); });  // sums in double, as the library
}

}  // namespace

#define QMO_BENCH_RUNS(name, library, loop)                                       \
    BENCHMARK(library)->Name(name "/library")->Arg(1)->Arg(16)->Arg(1000);        \
    BENCHMARK(loop)->Name(name "/loop")->Arg(1)->Arg(16)->Arg(1000);

QMO_BENCH_RUNS("group_sum_int8", (group_library<int64_t, Group<int64_t>::sum>), sum_loop<int64_t>)
QMO_BENCH_RUNS("group_sum_double", (group_library<double, Group<double>::sum>), sum_loop<double>)
QMO_BENCH_RUNS("group_avg_int8", (group_library<int64_t, Group<int64_t>::avg>), avg_loop<int64_t>)
QMO_BENCH_RUNS("group_avg_double", (group_library<double, Group<double>::avg>), avg_loop<double>)
