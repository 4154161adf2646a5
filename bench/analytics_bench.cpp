// Series analytics over a mean-reverting random walk of int4 and double
// (plateaus, zero runs and sign changes all occur) against handwritten loops
// and the standard algorithms: diff beside std::adjacent_difference, trend,
// cross and extrema beside loops, norm beside std::inner_product and a
// divide, a 64-bin histogram beside a counting loop. Results are drained into
// a caller array with get. 10 million rows stream from memory; 16 thousand
// stay in cache and show the per-tile overhead instead.
#include "bench_support.hpp"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace {

using bench::kCacheRows;

template <class T>
struct Series;
#define BENCH_SERIES_(a, t, ctype, code)                           \
    template <>                                                    \
    struct Series<ctype> {                                         \
        static constexpr auto unget = qmo_seq_unget_##t;           \
        static constexpr auto get = qmo_seq_get_##t;               \
        static constexpr auto diff = qmo_seq_diff_##t;             \
        static constexpr auto trend = qmo_seq_trend_##t;           \
        static constexpr auto cross = qmo_seq_cross_##t;           \
        static constexpr auto extrema = qmo_seq_extrema_##t;       \
        static constexpr auto norm = qmo_seq_norm_##t;             \
        static constexpr auto histogram = qmo_seq_histogram_##t;   \
    };
QMO_SEQ_SIGNED_TYPES(BENCH_SERIES_, )
QMO_SEQ_FLOAT_TYPES(BENCH_SERIES_, )
#undef BENCH_SERIES_

// The positions come back as uint8 elements.
template <>
struct Series<uint64_t> {
    static constexpr auto get = qmo_seq_get_uint8;
};

// x += step in -3..3, pulled back by x / 256: it wanders about zero.
template <class T>
const std::vector<T> &walk() {
    static const std::vector<T> data = [] {
        std::mt19937_64 rng(23);
        std::uniform_int_distribution<int> step(-3, 3);
        std::vector<T> v(bench::kRows);
        double x = 0;
        for (T &e : v) {
            x += step(rng) - x / 256;
            e = std::is_integral_v<T> ? static_cast<T>(std::lround(x)) : static_cast<T>(x);
        }
        return v;
    }();
    return data;
}

// Bounds of the walk's histogram: just wide enough.
template <class T>
std::pair<T, T> bounds(const std::vector<T> &v, size_t rows) {
    const auto [lo, hi] = std::minmax_element(v.begin(), v.begin() + static_cast<ptrdiff_t>(rows));
    return {*lo, static_cast<T>(*hi + 1)};
}

constexpr int64_t kBins = 64;

// Reads the whole result of make(op, source) into a caller array.
template <class T, class Out, class Make>
void drain_library(benchmark::State &state, Make make) {
    const auto &d = walk<T>();
    const size_t rows = static_cast<size_t>(state.range(0));
    std::vector<Out> out(rows);
    for (auto _ : state) {
        qmo_seq_iterator_t src, op;
        Series<T>::unget(&src, d.data(), rows);
        make(&op, &src);
        uint64_t count = out.size();
        Series<Out>::get(&op, out.data(), &count);
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, rows);
}

template <class T>
void diff_library(benchmark::State &state) {
    drain_library<T, T>(state, Series<T>::diff);
}
template <class T>
void trend_library(benchmark::State &state) {
    drain_library<T, int8_t>(state, Series<T>::trend);
}
template <class T>
void cross_library(benchmark::State &state) {
    drain_library<T, uint64_t>(state, [](qmo_seq_iterator_t *r, qmo_seq_iterator_t *x) { return Series<T>::cross(r, x, 0); });
}
template <class T>
void extrema_library(benchmark::State &state) {
    drain_library<T, uint64_t>(state, [](qmo_seq_iterator_t *r, qmo_seq_iterator_t *x) { return Series<T>::extrema(r, x, 0); });
}
template <class T>
void norm_library(benchmark::State &state) {
    drain_library<T, double>(state, Series<T>::norm);
}

template <class T>
void histogram_library(benchmark::State &state) {
    const auto &d = walk<T>();
    const size_t rows = static_cast<size_t>(state.range(0));
    const auto [low, high] = bounds(d, rows);
    for (auto _ : state) {
        qmo_seq_iterator_t src, hist;
        Series<T>::unget(&src, d.data(), rows);
        Series<T>::histogram(&hist, &src, low, high, kBins);
        hist.next(&hist);
        benchmark::DoNotOptimize(hist.values.u8);
    }
    bench::per_element(state, rows);
}

// ---- the loops ------------------------------------------------------------------

// Runs body(data, rows, out) over an output array of Out.
template <class T, class Out, class Body>
void loop(benchmark::State &state, Body body) {
    const auto &d = walk<T>();
    const size_t rows = static_cast<size_t>(state.range(0));
    std::vector<Out> out(rows);
    for (auto _ : state) {
        body(d.data(), rows, out.data());
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, rows);
}

template <class T>
int sign(T x) {
    return (x > 0) - (x < 0);
}

template <class T>
void diff_loop(benchmark::State &state) {
    loop<T, T>(state, [](const T *x, size_t n, T *out) { std::adjacent_difference(x, x + n, out); });
}

template <class T>
void trend_loop(benchmark::State &state) {
    loop<T, int8_t>(state, [](const T *x, size_t n, int8_t *out) {
        int8_t t = 0;
        for (size_t i = 0; i < n; ++i) {
            const T previous = x[i ? i - 1 : 0];
            if (x[i] > previous) t = 1;
            else if (x[i] < previous) t = -1;
            out[i] = t;
        }
    });
}

// Sign changes, reported where a run of zeros between them began.
template <class T>
void cross_loop(benchmark::State &state) {
    loop<T, uint64_t>(state, [](const T *x, size_t n, uint64_t *out) {
        int last = 0;
        size_t k = 0, zeros_from = 0;
        for (size_t i = 0; i < n; ++i) {
            const int s = sign(x[i]);
            if (s == last) continue;
            if (s == 0) {
                if (x[i - 1] != 0) zeros_from = i;
                continue;
            }
            if (last != 0) out[k++] = x[i - 1] == 0 ? zeros_from : i;
            last = s;
        }
        benchmark::DoNotOptimize(k);
    });
}

template <class T>
void extrema_loop(benchmark::State &state) {
    loop<T, uint64_t>(state, [](const T *x, size_t n, uint64_t *out) {
        int direction = 0;
        size_t k = 0;
        for (size_t i = 1; i < n; ++i) {
            const int s = (x[i] > x[i - 1]) - (x[i] < x[i - 1]);
            if (s == 0 || s == direction) continue;
            if (direction != 0) out[k++] = i - 1;
            direction = s;
        }
        benchmark::DoNotOptimize(k);
    });
}

template <class T>
void norm_loop(benchmark::State &state) {
    loop<T, double>(state, [](const T *x, size_t n, double *out) {
        const double sum = std::inner_product(x, x + n, x, 0.0, std::plus<>(),
                                              [](T a, T b) { return static_cast<double>(a) * static_cast<double>(b); });
        const double norm = std::sqrt(sum);
        for (size_t i = 0; i < n; ++i) out[i] = static_cast<double>(x[i]) / norm;
    });
}

template <class T>
void histogram_loop(benchmark::State &state) {
    const auto &d = walk<T>();
    const size_t rows = static_cast<size_t>(state.range(0));
    const auto [low, high] = bounds(d, rows);
    for (auto _ : state) {
        uint64_t counts[kBins] = {};
        for (size_t i = 0; i < rows; ++i) {
            if constexpr (std::is_integral_v<T>)
                ++counts[static_cast<uint64_t>(static_cast<uint32_t>(d[i] - low)) * kBins / static_cast<uint32_t>(high - low)];
            else
                ++counts[static_cast<uint64_t>((d[i] - low) * kBins / (high - low))];
        }
        benchmark::DoNotOptimize(counts);
    }
    bench::per_element(state, rows);
}

}  // namespace

#define QMO_BENCH_PAIR(name, library, loop)                                                    \
    BENCHMARK(library)->Name(name "/library")->Arg(bench::kRows)->Arg(kCacheRows);             \
    BENCHMARK(loop)->Name(name "/loop")->Arg(bench::kRows)->Arg(kCacheRows);
#define QMO_BENCH_SERIES(op)                                                                   \
    QMO_BENCH_PAIR(#op "_int4", op##_library<int32_t>, op##_loop<int32_t>)                     \
    QMO_BENCH_PAIR(#op "_double", op##_library<double>, op##_loop<double>)

QMO_BENCH_SERIES(diff)
QMO_BENCH_SERIES(trend)
QMO_BENCH_SERIES(cross)
QMO_BENCH_SERIES(extrema)
QMO_BENCH_SERIES(norm)
QMO_BENCH_SERIES(histogram)
