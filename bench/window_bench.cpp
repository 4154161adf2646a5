// Window, cumulative and grid aggregates over 10 million values against
// handwritten loops: moving sum, average, maximum, EMA and ATR of double
// (N = 26) and int4 (N = 52) columns, the running sum beside
// std::inclusive_scan, and a grid average of intervals of 100. Both sides
// write every result into an array: the library through qmo_seq_get_<t>.
#include "bench_support.hpp"

#include <numeric>

namespace {

using bench::Api;

using Make = int (*)(qmo_seq_iterator_t *, qmo_seq_iterator_t *, uint64_t);

template <class T>
const std::vector<T> &column() {
    return bench::column<T>(31, -1000, 1000);
}

template <class T>
constexpr uint64_t kWindow = 208 / sizeof(T);  // the largest window the ring holds
constexpr uint64_t kInterval = 100;

// Source, operator, and the whole result read out into `out`.
template <class In, class Out, Make make, uint64_t Param>
void library(benchmark::State &state) {
    const auto &d = column<In>();
    std::vector<Out> out(d.size());
    for (auto _ : state) {
        qmo_seq_iterator_t src, agg;
        Api<In>::unget(&src, d.data(), d.size());
        make(&agg, &src, Param);
        uint64_t count = out.size();
        Api<Out>::get(&agg, out.data(), &count);
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, d.size());
}

// The loops keep each window on the array itself: element i - N leaves.
template <class In, class Out, class Body>
void loop(benchmark::State &state, Body body) {
    const auto &d = column<In>();
    std::vector<Out> out(d.size());
    for (auto _ : state) {
        body(d.data(), out.data(), d.size());
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, d.size());
}

template <class T>
void sum_loop(benchmark::State &state) {
    loop<T, bench::sum_t<T>>(state, [](const T *x, bench::sum_t<T> *out, size_t n) {
        constexpr size_t w = kWindow<T>;
        bench::sum_t<T> s = 0;
        for (size_t i = 0; i < n; ++i) {
            s += x[i];
            if (i >= w) s -= x[i - w];
            out[i] = s;
        }
    });
}

template <class T>
void avg_loop(benchmark::State &state) {
    loop<T, double>(state, [](const T *x, double *out, size_t n) {
        constexpr size_t w = kWindow<T>;
        bench::sum_t<T> s = 0;
        for (size_t i = 0; i < n; ++i) {
            s += x[i];
            if (i >= w) s -= x[i - w];
            out[i] = static_cast<double>(s) / w;
        }
    });
}

// Rescans the window only when the maximum leaves it.
template <class T>
void max_loop(benchmark::State &state) {
    loop<T, T>(state, [](const T *x, T *out, size_t n) {
        constexpr size_t w = kWindow<T>;
        T m = x[0];
        for (size_t i = 0; i < n; ++i) {
            if (x[i] > m) {
                m = x[i];
            } else if (i >= w && x[i - w] == m) {
                m = *std::max_element(x + i - w + 1, x + i + 1);
            }
            out[i] = m;
        }
    });
}

template <class T>
void ema_loop(benchmark::State &state) {
    loop<T, double>(state, [](const T *x, double *out, size_t n) {
        const double a = 2.0 / (kWindow<T> + 1.0);
        double e = static_cast<double>(x[0]);
        for (size_t i = 0; i < n; ++i) out[i] = e = (1 - a) * e + a * static_cast<double>(x[i]);
    });
}

template <class T>
void atr_loop(benchmark::State &state) {
    loop<T, double>(state, [](const T *x, double *out, size_t n) {
        double r = 0;
        for (size_t i = 0; i < n; ++i) {
            const double m = i < kWindow<T> ? static_cast<double>(i + 1) : static_cast<double>(kWindow<T>);
            out[i] = r = (r * (m - 1) + static_cast<double>(x[i])) / m;
        }
    });
}

void cum_sum_loop(benchmark::State &state) {
    loop<double, double>(state, [](const double *x, double *out, size_t n) { std::inclusive_scan(x, x + n, out); });
}

template <class T>
void grid_avg_loop(benchmark::State &state) {
    const auto &d = column<T>();
    std::vector<double> out((d.size() + kInterval - 1) / kInterval);
    for (auto _ : state) {
        for (size_t s = 0, o = 0; s < d.size(); s += kInterval, ++o) {
            const size_t e = std::min(s + kInterval, d.size());
            double sum = 0;
            for (size_t i = s; i < e; ++i) sum += static_cast<double>(d[i]);
            out[o] = sum / static_cast<double>(e - s);
        }
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, d.size());
}

// The cumulative sum takes no parameter.
int cum_sum_double(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input, uint64_t) {
    return qmo_seq_cum_agg_sum_double(result, input);
}

}  // namespace

#define QMO_WINDOW_BENCH(name, library_case, loop_case)                \
    BENCHMARK(library_case)->Name(name "/library")->Unit(benchmark::kMillisecond); \
    BENCHMARK(loop_case)->Name(name "/loop")->Unit(benchmark::kMillisecond);

QMO_WINDOW_BENCH("window_sum_double", (library<double, double, qmo_seq_window_agg_sum_double, kWindow<double>>),
                 sum_loop<double>)
QMO_WINDOW_BENCH("window_avg_double", (library<double, double, qmo_seq_window_agg_avg_double, kWindow<double>>),
                 avg_loop<double>)
QMO_WINDOW_BENCH("window_max_double", (library<double, double, qmo_seq_window_agg_max_double, kWindow<double>>),
                 max_loop<double>)
QMO_WINDOW_BENCH("window_ema_double", (library<double, double, qmo_seq_window_agg_ema_double, kWindow<double>>),
                 ema_loop<double>)
QMO_WINDOW_BENCH("window_atr_double", (library<double, double, qmo_seq_window_agg_atr_double, kWindow<double>>),
                 atr_loop<double>)
QMO_WINDOW_BENCH("window_sum_int4", (library<int32_t, int64_t, qmo_seq_window_agg_sum_int4, kWindow<int32_t>>),
                 sum_loop<int32_t>)
QMO_WINDOW_BENCH("window_avg_int4", (library<int32_t, double, qmo_seq_window_agg_avg_int4, kWindow<int32_t>>),
                 avg_loop<int32_t>)
QMO_WINDOW_BENCH("window_max_int4", (library<int32_t, int32_t, qmo_seq_window_agg_max_int4, kWindow<int32_t>>),
                 max_loop<int32_t>)
QMO_WINDOW_BENCH("window_ema_int4", (library<int32_t, double, qmo_seq_window_agg_ema_int4, kWindow<int32_t>>),
                 ema_loop<int32_t>)
QMO_WINDOW_BENCH("window_atr_int4", (library<int32_t, double, qmo_seq_window_agg_atr_int4, kWindow<int32_t>>),
                 atr_loop<int32_t>)
QMO_WINDOW_BENCH("cum_sum_double", (library<double, double, cum_sum_double, 0>), cum_sum_loop)
QMO_WINDOW_BENCH("grid_avg_double", (library<double, double, qmo_seq_grid_agg_avg_double, kInterval>),
                 grid_avg_loop<double>)
QMO_WINDOW_BENCH("grid_avg_int4", (library<int32_t, double, qmo_seq_grid_agg_avg_int4, kInterval>),
                 grid_avg_loop<int32_t>)
