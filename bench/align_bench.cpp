// Alignment: 10 million trade stamps and 2 million quote stamps (microseconds,
// a trade every 2 ms and a quote every 10 ms on average, both increasing),
// with double bids. Each operator against a handwritten merge loop over the
// same arrays writing the same output.
#include "bench_support.hpp"

namespace {

constexpr size_t kQuotes = bench::kRows / 5;
constexpr uint64_t kTolerance = 5000;  // 5 ms

struct Tapes {
    std::vector<uint64_t> trades, quotes;
    std::vector<double> bids;
};

std::vector<uint64_t> stamps(size_t n, double mean_gap, uint64_t seed) {
    std::mt19937_64 rng(seed);
    std::exponential_distribution<double> gap(1.0 / mean_gap);
    std::vector<uint64_t> v(n);
    uint64_t t = 1795426200ull * 1000000ull;
    for (auto &x : v) x = t += 1 + static_cast<uint64_t>(gap(rng));
    return v;
}

const Tapes &tapes() {
    static const Tapes t{stamps(bench::kRows, 2000, 29), stamps(kQuotes, 10000, 30),
                         bench::random_column<double>(kQuotes, 31, 90, 110)};
    return t;
}

using Iter = qmo_seq_iterator_t;

// Drains a double result into out with its nulls in place, as the loops keep them.
template <class Build>
void drain_doubles(Build build, std::vector<double> &out) {
    static std::vector<uint64_t> nulls;
    nulls.resize(out.size() / 64 + 1);
    Iter a, b, c, r;
    build(a, b, c, r);
    uint64_t n = out.size();
    qmo_seq_get_nullable_double(&r, out.data(), &n, nulls.data());
    benchmark::DoNotOptimize(out.data());
}

void asof(benchmark::State &state, int direction, uint64_t tolerance) {
    const Tapes &t = tapes();
    std::vector<double> out(t.trades.size());
    for (auto _ : state)
        drain_doubles([&](Iter &l, Iter &s, Iter &v, Iter &r) {
            qmo_seq_unget_datetime(&l, t.trades.data(), t.trades.size());
            qmo_seq_unget_datetime(&s, t.quotes.data(), t.quotes.size());
            qmo_seq_unget_double(&v, t.bids.data(), t.bids.size());
            qmo_seq_asof_join_datetime_double(&r, &l, &s, &v, direction, tolerance, 1);
        }, out);
    bench::per_element(state, t.trades.size());
}

// The prevailing bid (NaN for none, where the library delivers a null).
void backward_loop(benchmark::State &state) {
    const Tapes &t = tapes();
    std::vector<double> out(t.trades.size());
    for (auto _ : state) {
        const uint64_t *l = t.trades.data(), *r = t.quotes.data();
        const size_t n = t.trades.size(), m = t.quotes.size();
        size_t j = 0;
        for (size_t i = 0; i < n; ++i) {
            while (j < m && r[j] <= l[i]) ++j;
            out[i] = j ? t.bids[j - 1] : NAN;
        }
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, t.trades.size());
}

void forward_loop(benchmark::State &state) {
    const Tapes &t = tapes();
    std::vector<double> out(t.trades.size());
    for (auto _ : state) {
        const uint64_t *l = t.trades.data(), *r = t.quotes.data();
        const size_t n = t.trades.size(), m = t.quotes.size();
        size_t j = 0;
        for (size_t i = 0; i < n; ++i) {
            while (j < m && r[j] < l[i]) ++j;
            out[i] = j < m && r[j] - l[i] <= kTolerance ? t.bids[j] : NAN;
        }
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, t.trades.size());
}

void union_library(benchmark::State &state) {
    const Tapes &t = tapes();
    std::vector<uint64_t> out(t.trades.size() + t.quotes.size());
    for (auto _ : state) {
        Iter l, r, u;
        qmo_seq_unget_datetime(&l, t.trades.data(), t.trades.size());
        qmo_seq_unget_datetime(&r, t.quotes.data(), t.quotes.size());
        qmo_seq_union_datetime(&u, &l, &r);
        uint64_t n = out.size();
        qmo_seq_get_datetime(&u, out.data(), &n);
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, out.size());
}

void union_loop(benchmark::State &state) {
    const Tapes &t = tapes();
    std::vector<uint64_t> out(t.trades.size() + t.quotes.size());
    for (auto _ : state) {
        const uint64_t *a = t.trades.data(), *b = t.quotes.data();
        const size_t n = t.trades.size(), m = t.quotes.size();
        size_t i = 0, j = 0, k = 0;
        while (i < n && j < m) {
            const uint64_t v = a[i] <= b[j] ? a[i] : b[j];
            i += a[i] == v, j += b[j] == v;
            if (k == 0 || out[k - 1] != v) out[k++] = v;
        }
        for (; i < n; ++i)
            if (k == 0 || out[k - 1] != a[i]) out[k++] = a[i];
        for (; j < m; ++j)
            if (k == 0 || out[k - 1] != b[j]) out[k++] = b[j];
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, out.size());
}

void join_library(benchmark::State &state) {
    const Tapes &t = tapes();
    std::vector<uint64_t> left(t.quotes.size()), right(t.quotes.size());
    for (auto _ : state) {
        Iter l, r, lp, rp;
        qmo_seq_unget_datetime(&l, t.trades.data(), t.trades.size());
        qmo_seq_unget_datetime(&r, t.quotes.data(), t.quotes.size());
        qmo_seq_join_datetime(&lp, &rp, &l, &r);
        size_t k = 0;
        while (lp.next(&lp) == 0 && rp.next(&rp) == 0) {
            std::memcpy(left.data() + k, lp.values.u8, lp.tile_count * 8);
            std::memcpy(right.data() + k, rp.values.u8, rp.tile_count * 8);
            k += lp.tile_count;
        }
        lp.reset(&lp), rp.reset(&rp);
        benchmark::DoNotOptimize(left.data());
    }
    bench::per_element(state, t.trades.size() + t.quotes.size());
}

// Stamps within each side are distinct here, so pairs are single matches.
void join_loop(benchmark::State &state) {
    const Tapes &t = tapes();
    std::vector<uint64_t> left(t.quotes.size()), right(t.quotes.size());
    for (auto _ : state) {
        const uint64_t *a = t.trades.data(), *b = t.quotes.data();
        const size_t n = t.trades.size(), m = t.quotes.size();
        size_t i = 0, j = 0, k = 0;
        while (i < n && j < m) {
            if (a[i] < b[j]) ++i;
            else if (b[j] < a[i]) ++j;
            else left[k] = i++, right[k++] = j++;
        }
        benchmark::DoNotOptimize(left.data());
    }
    bench::per_element(state, t.trades.size() + t.quotes.size());
}

void stretch0_library(benchmark::State &state) {
    const Tapes &t = tapes();
    std::vector<double> out(t.trades.size());
    for (auto _ : state)
        drain_doubles([&](Iter &l, Iter &s, Iter &v, Iter &r) {
            qmo_seq_unget_datetime(&l, t.trades.data(), t.trades.size());
            qmo_seq_unget_datetime(&s, t.quotes.data(), t.quotes.size());
            qmo_seq_unget_double(&v, t.bids.data(), t.bids.size());
            qmo_seq_stretch0_datetime_double(&r, &l, &s, &v, 0.0);
        }, out);
    bench::per_element(state, t.trades.size());
}

void stretch0_loop(benchmark::State &state) {
    const Tapes &t = tapes();
    std::vector<double> out(t.trades.size());
    for (auto _ : state) {
        const uint64_t *l = t.trades.data(), *r = t.quotes.data();
        const size_t n = t.trades.size(), m = t.quotes.size();
        size_t j = 0;
        for (size_t i = 0; i < n; ++i) {
            while (j < m && r[j] <= l[i]) ++j;
            out[i] = j && r[j - 1] == l[i] ? t.bids[j - 1] : 0.0;
        }
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, t.trades.size());
}

}  // namespace

BENCHMARK_CAPTURE(asof, backward, QMO_SEQ_ASOF_BACKWARD, ~uint64_t{0})
    ->Name("asof_backward/library")->Unit(benchmark::kMillisecond);
BENCHMARK(backward_loop)->Name("asof_backward/loop")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(asof, forward, QMO_SEQ_ASOF_FORWARD, kTolerance)
    ->Name("asof_forward_5ms/library")->Unit(benchmark::kMillisecond);
BENCHMARK(forward_loop)->Name("asof_forward_5ms/loop")->Unit(benchmark::kMillisecond);
BENCHMARK(union_library)->Name("union/library")->Unit(benchmark::kMillisecond);
BENCHMARK(union_loop)->Name("union/loop")->Unit(benchmark::kMillisecond);
BENCHMARK(join_library)->Name("join/library")->Unit(benchmark::kMillisecond);
BENCHMARK(join_loop)->Name("join/loop")->Unit(benchmark::kMillisecond);
BENCHMARK(stretch0_library)->Name("stretch0/library")->Unit(benchmark::kMillisecond);
BENCHMARK(stretch0_loop)->Name("stretch0/loop")->Unit(benchmark::kMillisecond);
