// Reshaping over 10 million int4 and double values, drained into an array:
// thin (step 7), repeat (n = 3) and unique (runs of mean length 4) beside
// handwritten loops, unique also beside std::unique_copy ("unique_std"), and
// reverse beside std::reverse_copy. Reverse reads its input three times
// (first tile, count, copy) and then delivers the copy, so its ratio stands
// apart from the streaming ones.
#include "bench_support.hpp"

#include <algorithm>

namespace {

template <class T>
struct Reshape;
#define BENCH_RESHAPE_(a, t, ctype, code)                      \
    template <>                                                \
    struct Reshape<ctype> {                                    \
        static constexpr auto thin = qmo_seq_thin_##t;         \
        static constexpr auto repeat = qmo_seq_repeat_##t;     \
        static constexpr auto reverse = qmo_seq_reverse_##t;   \
        static constexpr auto unique = qmo_seq_unique_##t;     \
    };
QMO_SEQ_SIGNED_TYPES(BENCH_RESHAPE_, )
QMO_SEQ_FLOAT_TYPES(BENCH_RESHAPE_, )
#undef BENCH_RESHAPE_

constexpr uint64_t kStep = 7, kTimes = 3;

// The library takes its step and count at run time; so do the loops.
inline uint64_t at_run_time(uint64_t v) {
    benchmark::DoNotOptimize(v);
    return v;
}

// Runs whose lengths are geometric with mean 4, values in [-1000, 1000).
template <class T>
const std::vector<T> &runs_column() {
    static const std::vector<T> data = [] {
        std::vector<T> v = bench::random_column<T>(bench::kRows, 5);
        std::mt19937_64 rng(9);
        for (size_t i = 1; i < v.size(); ++i)
            if (rng() % 4 != 0) v[i] = v[i - 1];
        return v;
    }();
    return data;
}

// Builds op over an array source of `in` and drains it into out; returns the count.
template <class T, class Build>
uint64_t drain_into(const std::vector<T> &in, std::vector<T> &out, Build build) {
    qmo_seq_iterator_t src, op;
    bench::Api<T>::unget(&src, in.data(), in.size());
    build(&op, &src);
    uint64_t count = out.size();
    bench::Api<T>::get(&op, out.data(), &count);
    op.reset(&op);  // reverse gives its copy back
    return count;
}

template <class T, class Build>
void library_case(benchmark::State &state, const std::vector<T> &in, size_t out_size, Build build) {
    std::vector<T> out(out_size);
    for (auto _ : state) {
        benchmark::DoNotOptimize(drain_into(in, out, build));
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, in.size());
}

template <class T, class Loop>
void loop_case(benchmark::State &state, const std::vector<T> &in, size_t out_size, Loop loop) {
    std::vector<T> out(out_size);
    for (auto _ : state) {
        benchmark::DoNotOptimize(loop(in, out.data()));
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, in.size());
}

template <class T>
void thin_library(benchmark::State &state) {
    const auto &in = bench::column<T>(31);
    library_case(state, in, in.size() / kStep + 1,
                 [](auto *op, auto *src) { return Reshape<T>::thin(op, src, 0, kStep); });
}
template <class T>
void thin_loop(benchmark::State &state) {
    loop_case(state, bench::column<T>(31), bench::kRows / kStep + 1, [](const std::vector<T> &in, T *out) {
        const uint64_t step = at_run_time(kStep);
        size_t k = 0;
        for (size_t i = 0; i < in.size(); i += step) out[k++] = in[i];
        return k;
    });
}

template <class T>
void repeat_library(benchmark::State &state) {
    const auto &in = bench::column<T>(31);
    library_case(state, in, in.size() * kTimes,
                 [](auto *op, auto *src) { return Reshape<T>::repeat(op, src, kTimes); });
}
template <class T>
void repeat_loop(benchmark::State &state) {
    loop_case(state, bench::column<T>(31), bench::kRows * kTimes, [](const std::vector<T> &in, T *out) {
        const uint64_t n = at_run_time(kTimes);
        for (size_t i = 0; i < in.size(); ++i)
            for (size_t c = 0; c < n; ++c) out[i * n + c] = in[i];
        return in.size() * n;
    });
}

template <class T>
void unique_library(benchmark::State &state) {
    library_case(state, runs_column<T>(), bench::kRows, Reshape<T>::unique);
}
template <class T>
void unique_loop(benchmark::State &state) {
    loop_case(state, runs_column<T>(), bench::kRows, [](const std::vector<T> &in, T *out) {
        size_t k = 1;
        out[0] = in[0];
        for (size_t i = 1; i < in.size(); ++i) {
            out[k] = in[i];
            k += in[i] != in[i - 1];
        }
        return k;
    });
}
template <class T>
void unique_std(benchmark::State &state) {
    loop_case(state, runs_column<T>(), bench::kRows, [](const std::vector<T> &in, T *out) {
        return std::unique_copy(in.begin(), in.end(), out) - out;
    });
}

template <class T>
void reverse_library(benchmark::State &state) {
    library_case(state, bench::column<T>(31), bench::kRows, Reshape<T>::reverse);
}
template <class T>
void reverse_std(benchmark::State &state) {
    loop_case(state, bench::column<T>(31), bench::kRows, [](const std::vector<T> &in, T *out) {
        return std::reverse_copy(in.begin(), in.end(), out) - out;
    });
}

}  // namespace

#define BENCH_RESHAPE_CASES_(T, t)                                                                       \
    BENCHMARK(thin_library<T>)->Name("thin_" t "/library")->Unit(benchmark::kMillisecond);               \
    BENCHMARK(thin_loop<T>)->Name("thin_" t "/loop")->Unit(benchmark::kMillisecond);                     \
    BENCHMARK(repeat_library<T>)->Name("repeat_" t "/library")->Unit(benchmark::kMillisecond);           \
    BENCHMARK(repeat_loop<T>)->Name("repeat_" t "/loop")->Unit(benchmark::kMillisecond);                 \
    BENCHMARK(unique_library<T>)->Name("unique_" t "/library")->Unit(benchmark::kMillisecond);           \
    BENCHMARK(unique_loop<T>)->Name("unique_" t "/loop")->Unit(benchmark::kMillisecond);                 \
    BENCHMARK(unique_library<T>)->Name("unique_std_" t "/library")->Unit(benchmark::kMillisecond);       \
    BENCHMARK(unique_std<T>)->Name("unique_std_" t "/loop")->Unit(benchmark::kMillisecond);              \
    BENCHMARK(reverse_library<T>)->Name("reverse_" t "/library")->Unit(benchmark::kMillisecond);         \
    BENCHMARK(reverse_std<T>)->Name("reverse_" t "/loop")->Unit(benchmark::kMillisecond);
BENCH_RESHAPE_CASES_(int32_t, "int4")
BENCH_RESHAPE_CASES_(double, "double")
