// Stretch: 10 million uint8 target stamps (one per tick) over 1 million source
// stamps about every tenth tick, with double values, against a handwritten
// two-pointer loop that applies the same advance rule.
#include "bench_support.hpp"

namespace {

constexpr size_t kSourceRows = bench::kRows / 10;
constexpr double kFiller = -1;

struct Axes {
    std::vector<uint64_t> target, source;
    std::vector<double> values;
};

const Axes &axes() {
    static const Axes a = [] {
        Axes x;
        x.target.resize(bench::kRows);
        for (size_t i = 0; i < x.target.size(); ++i) x.target[i] = i;
        std::mt19937_64 rng(20);
        x.source.resize(kSourceRows);
        uint64_t t = 0;
        for (auto &s : x.source) s = t += 8 + rng() % 5;  // gaps 8..12, ten on average
        x.values = bench::random_column<double>(kSourceRows, 21);
        return x;
    }();
    return a;
}

void library(benchmark::State &state) {
    const Axes &a = axes();
    std::vector<double> out(a.target.size());
    for (auto _ : state) {
        qmo_seq_iterator_t target, source, values, stretched;
        qmo_seq_unget_uint8(&target, a.target.data(), a.target.size());
        qmo_seq_unget_uint8(&source, a.source.data(), a.source.size());
        qmo_seq_unget_double(&values, a.values.data(), a.values.size());
        qmo_seq_stretch_uint8_double(&stretched, &target, &source, &values, kFiller);
        uint64_t count = out.size();
        qmo_seq_get_double(&stretched, out.data(), &count);
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, a.target.size());
}

void loop(benchmark::State &state) {
    const Axes &a = axes();
    std::vector<double> out(a.target.size());
    for (auto _ : state) {
        const uint64_t *t = a.target.data(), *s = a.source.data();
        const double *v = a.values.data();
        const size_t n = a.target.size(), ns = a.source.size();
        uint64_t boundary = 0;
        size_t k = 0;
        bool ended = false;
        double current = 0;
        for (size_t i = 0; i < n; ++i) {
            if (!ended && t[i] >= boundary) {
                if (k == ns) {
                    ended = true;
                    current = kFiller;
                } else {
                    boundary = s[k];
                    current = v[k++];
                }
            }
            out[i] = current;
        }
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, a.target.size());
}

}  // namespace

BENCHMARK(library)->Name("stretch_uint8_double/library")->Unit(benchmark::kMillisecond);
BENCHMARK(loop)->Name("stretch_uint8_double/loop")->Unit(benchmark::kMillisecond);
