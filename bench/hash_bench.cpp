// Group-by sum of 10 million int8 values over 1,000 and over 1,000,000
// distinct int4 keys in random order: the library's hash aggregate (build,
// then both outputs read into arrays) beside a std::unordered_map loop and an
// open-addressing loop that deliver the same groups and sums.
#include "bench_support.hpp"

#include <map>
#include <unordered_map>
#include <unordered_set>

namespace {

struct Rows {
    std::vector<int32_t> keys;
    std::vector<int64_t> values;
};

// Keys drawn from a pool of `distinct` random int4 values.
const Rows &rows(size_t distinct) {
    static std::map<size_t, Rows> cache;
    Rows &r = cache[distinct];
    if (r.keys.empty()) {
        std::mt19937_64 rng(distinct);
        std::unordered_set<int32_t> seen;
        std::vector<int32_t> pool;
        while (pool.size() < distinct)
            if (const auto k = static_cast<int32_t>(rng()); seen.insert(k).second) pool.push_back(k);
        r.keys.resize(bench::kRows);
        for (auto &k : r.keys) k = pool[rng() % distinct];
        r.values = bench::random_column<int64_t>(bench::kRows, 21);
    }
    return r;
}

struct Result {
    std::vector<int32_t> keys;
    std::vector<int64_t> sums;
    explicit Result(size_t distinct) : keys(distinct), sums(distinct) {}
};

void library(benchmark::State &state) {
    const size_t distinct = static_cast<size_t>(state.range(0));
    const Rows &d = rows(distinct);
    Result out(distinct);
    for (auto _ : state) {
        qmo_seq_iterator_t keys, values, agg, grp;
        qmo_seq_unget_int4(&keys, d.keys.data(), d.keys.size());
        qmo_seq_unget_int8(&values, d.values.data(), d.values.size());
        qmo_seq_hash_agg_sum_int8(&agg, &grp, &values, &keys, 0);
        uint64_t groups = distinct, sums = distinct;
        qmo_seq_get_int4(&grp, out.keys.data(), &groups);
        qmo_seq_get_int8(&agg, out.sums.data(), &sums);
        benchmark::DoNotOptimize(out.sums.data());
        qmo_seq_release_hash(&agg);
    }
    bench::per_element(state, bench::kRows);
}

void unordered_map_loop(benchmark::State &state) {
    const size_t distinct = static_cast<size_t>(state.range(0));
    const Rows &d = rows(distinct);
    Result out(distinct);
    for (auto _ : state) {
        std::unordered_map<int32_t, int64_t> groups;
        for (size_t i = 0; i < d.keys.size(); ++i) groups[d.keys[i]] += d.values[i];
        size_t j = 0;
        for (const auto &[k, s] : groups) out.keys[j] = k, out.sums[j++] = s;
        benchmark::DoNotOptimize(out.sums.data());
    }
    bench::per_element(state, bench::kRows);
}

// Linear probing over a power-of-two table kept at most half full, with a
// multiplicative hash.
void open_addressing_loop(benchmark::State &state) {
    const size_t distinct = static_cast<size_t>(state.range(0));
    const Rows &d = rows(distinct);
    Result out(distinct);
    struct Slot {
        int32_t key;
        bool used;
        int64_t sum;
    };
    for (auto _ : state) {
        unsigned bits = 11;
        std::vector<Slot> slots(size_t{1} << bits);
        size_t used = 0;
        auto find = [&](std::vector<Slot> &s, unsigned b, int32_t key) -> Slot & {
            size_t i = (static_cast<uint32_t>(key) * 0x9E3779B1u) >> (32 - b);
            while (s[i].used && s[i].key != key) i = (i + 1) & (s.size() - 1);
            return s[i];
        };
        for (size_t i = 0; i < d.keys.size(); ++i) {
            Slot &s = find(slots, bits, d.keys[i]);
            if (!s.used) {
                s = {d.keys[i], true, 0};
                if (++used * 2 > slots.size()) {
                    std::vector<Slot> bigger(slots.size() * 2);
                    for (const Slot &o : slots)
                        if (o.used) find(bigger, bits + 1, o.key) = o;
                    slots.swap(bigger);
                    ++bits;
                    find(slots, bits, d.keys[i]).sum += d.values[i];
                    continue;
                }
            }
            s.sum += d.values[i];
        }
        size_t j = 0;
        for (const Slot &s : slots)
            if (s.used) out.keys[j] = s.key, out.sums[j++] = s.sum;
        benchmark::DoNotOptimize(out.sums.data());
    }
    bench::per_element(state, bench::kRows);
}

}  // namespace

#define QMO_HASH_BENCH(name, fn) \
    BENCHMARK(fn)->Name("group_sum_int8_by_int4/" name)->Arg(1000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);
QMO_HASH_BENCH("library", library)
QMO_HASH_BENCH("loop", unordered_map_loop)
QMO_HASH_BENCH("open_addressing_loop", open_addressing_loop)
