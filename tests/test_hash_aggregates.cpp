// Hash aggregates: every op over its member types, keys of every type in the
// table's order (against a small model of buckets and sorted chains), growth,
// partitioned builds, duplicate counts, the element-wise hash, and memory:
// every test runs on a counting allocator and must give back all it took.
#include "support.hpp"

#include "aggregate/distinct.hpp"
#include "aggregate/hash_table.hpp"

#include <cstdlib>
#include <functional>
#include <deque>
#include <map>
#include <optional>
#include <random>
#include <set>

using namespace test;

namespace {

using Make = std::function<int(Iter *agg, Iter *grp, Iter *values, Iter *keys)>;
using Ctor = int (*)(Iter *, Iter *, Iter *, Iter *, uint64_t);
Make with_size(Ctor f, uint64_t init = 0) {
    return [f, init](Iter *a, Iter *g, Iter *v, Iter *k) { return f(a, g, v, k, init); };
}
uint64_t prime(int i) { return qmo_int_get_prime_number(i); }
const std::optional<double> null;

// Live allocations by address; allocation number fail_at returns null.
struct Memory {
    static inline std::map<void *, size_t> live;
    static inline std::set<size_t> sizes;
    static inline long calls = 0, fail_at = 0, armed = 0;
    static inline bool sizes_match = true;
    static void arm(long k) { fail_at = (armed = calls) + k; }
    static void *take(void *, size_t n) {
        sizes.insert(n);
        if (++calls == fail_at) return nullptr;
        void *p = std::malloc(n);
        live[p] = n;
        return p;
    }
    static void give(void *, void *p, size_t n) {
        const auto at = live.find(p);
        sizes_match = sizes_match && at != live.end() && at->second == n;
        if (at != live.end()) live.erase(at);
        std::free(p);
    }
};

class Hash : public ::testing::Test {
protected:
    void SetUp() override {
        Memory::live.clear();
        Memory::sizes.clear();
        Memory::calls = Memory::fail_at = 0;
        Memory::sizes_match = true;
        qmo_seq_redefine_allocator(Memory::take, Memory::give);
    }
    void TearDown() override {
        qmo_seq_redefine_allocator(qmo_seq_sys_malloc, qmo_seq_sys_free);
        EXPECT_EQ(Memory::live.size(), 0u) << "allocations left behind";
        EXPECT_TRUE(Memory::sizes_match) << "a free with another size than its allocation";
    }
};
template <class Tag>
class HashTyped : public Hash {};
TYPED_TEST_SUITE(HashTyped, NumericTypes);

// Both outputs of one hash aggregate, released at the end.
struct Outputs {
    Iter agg{}, grp{};
    ~Outputs() { qmo_seq_release_hash(&agg); }
};

struct Groups {
    std::vector<std::string> keys;
    std::vector<std::optional<double>> aggs;
    bool operator==(const Groups &) const = default;
};

// Drains both outputs, one after the other.
Groups pull(Outputs &o, bool agg_first) {
    Groups g;
    auto aggs = [&] {
        while (o.agg.next(&o.agg) == 0)
            for (unsigned i = 0; i < o.agg.tile_count; ++i)
                g.aggs.push_back((o.agg.null_bitmap[i / 64] >> (i % 64)) & 1 ? null : element(&o.agg, i));
    };
    if (agg_first) aggs();
    g.keys = drain<std::string>(&o.grp).values;
    if (!agg_first) aggs();
    EXPECT_EQ(g.keys.size(), g.aggs.size());
    return g;
}

// The table told independently: bucket counts from the prime rules, chains
// kept sorted by the signed difference of zero-extended words (memcmp beyond
// 8 bytes), growth at bucket count x load factor - 1 by reinsertion. Each
// entry counts its occurrences. Like the table, it can hold an 8-byte key
// twice when wrapped differences make a walk stop before the equal entry.
struct Model {
    using Entry = std::pair<std::string, double>;
    size_t width, n = 0;
    std::vector<std::vector<Entry>> buckets;
    Model(size_t w, uint64_t requested) : width(w) {
        int i = 0;
        while (i <= 26 && prime(i) < (requested ? requested : qmo_seq_hash_table_init_size)) i += 2;
        buckets.resize(prime(i));
    }
    int64_t diff(const std::string &a, const std::string &b) const {
        if (width > 8) return std::memcmp(a.data(), b.data(), width);
        uint64_t x = 0, y = 0;
        std::memcpy(&x, a.data(), width);
        std::memcpy(&y, b.data(), width);
        return static_cast<int64_t>(x - y);
    }
    Entry &insert(Entry e) {
        auto &chain = buckets[qmo::murmur_hash3_32(e.first.data(), width, QMO_SEQ_HASH_SEED) % buckets.size()];
        auto at = std::find_if(chain.begin(), chain.end(), [&](const Entry &c) { return diff(c.first, e.first) >= 0; });
        if (at != chain.end() && diff(at->first, e.first) == 0) return *at;
        ++n;
        return *chain.insert(at, std::move(e));
    }
    void add(const std::string &k) {
        const size_t before = n;
        ++insert({k, 0}).second;
        if (n == before || n < static_cast<uint64_t>(static_cast<double>(buckets.size()) * qmo_seq_hash_table_load_factor) - 1)
            return;
        int i = 0;
        while (i < 28 && prime(i) <= buckets.size()) ++i;
        auto old = std::move(buckets);
        buckets.assign(prime(i), {});
        for (auto &chain : old)
            for (Entry &e : chain) insert(std::move(e)), --n;
    }
    std::vector<Entry> groups() const {
        std::vector<Entry> all;
        for (const auto &chain : buckets) all.insert(all.end(), chain.begin(), chain.end());
        return all;
    }
};

// Counts each key of the script through the table: the groups and their
// occurrences come in the model's order.
void expect_groups(Script &keys, uint64_t init) {
    Model model(keys.width, init);
    for (size_t i = 0; i < keys.count; ++i)
        if (!keys.nulls[i]) model.add(std::string(reinterpret_cast<const char *>(keys.bytes.data()) + i * keys.width, keys.width));
    Outputs o;
    ASSERT_EQ(qmo_seq_hash_agg_count(&o.agg, &o.grp, &keys.it, init), 0);
    const Groups g = pull(o, false);
    const auto expected = model.groups();
    ASSERT_EQ(g.keys.size(), expected.size());
    for (size_t i = 0; i < g.keys.size(); ++i) {
        ASSERT_EQ(g.keys[i], expected[i].first) << "group " << i;
        ASSERT_EQ(g.aggs[i], expected[i].second) << "group " << i;
    }
}

}  // namespace

// ---- every op over its member types -------------------------------------------------------------

// Keys 5 7 5 9 7 5 (null 11) 13, values 2 1 8 (null) 4 2 99 3, tiles of 3:
// 9 has only a null value and 11 is dropped with its value. Either output is
// pulled first; after a reset both replay without a rebuild. count counts
// occurrences, count of values (uint8 values only) the non-null values.
TYPED_TEST(HashTyped, FamilyTable) {
    using T = V<TypeParam>;
    const int t = TypeParam::code_;
    const bool dt = std::is_same_v<TypeParam, t_datetime>;
    const int wide = is_float_v<TypeParam> ? QMO_SEQ_TYPE_DOUBLE
                     : dt                   ? QMO_SEQ_TYPE_DATETIME
                     : is_signed_v<TypeParam> ? QMO_SEQ_TYPE_INT8 : QMO_SEQ_TYPE_UINT8;
    auto estimate = [](std::vector<T> v) {
        uint8_t r[128] = {};
        for (T x : v) qmo::distinct_add(r, qmo::murmur_hash3_32(&x, sizeof x, QMO_SEQ_HASH_SEED));
        return static_cast<double>(qmo::approximate_distinct_count(r));
    };
    struct Row {
        const char *name;
        Make make;
        int type;
        std::map<std::string, std::optional<double>> expect;
    };
    auto k = [](int32_t key) { return std::string(reinterpret_cast<const char *>(&key), 4); };
    std::vector<Row> rows = {
        {"max", with_size(fn::hash_agg_max<TypeParam>), t, {{k(5), 8}, {k(7), 4}, {k(9), null}, {k(13), 3}}},
        {"min", with_size(fn::hash_agg_min<TypeParam>), t, {{k(5), 2}, {k(7), 1}, {k(9), null}, {k(13), 3}}},
        {"sum", with_size(fn::hash_agg_sum<TypeParam>), wide, {{k(5), 12}, {k(7), 5}, {k(9), null}, {k(13), 3}}},
        {"avg", with_size(fn::hash_agg_avg<TypeParam>), dt ? t : QMO_SEQ_TYPE_DOUBLE, {{k(5), 4}, {k(7), dt ? 2 : 2.5}, {k(9), null}, {k(13), 3}}},
        {"approxdc", with_size(qmo_seq_hash_agg_approxdc), QMO_SEQ_TYPE_UINT4,
         {{k(5), estimate({2, 8})}, {k(7), estimate({1, 4})}, {k(9), 0}, {k(13), estimate({3})}}},
        {"count", [](Iter *a, Iter *g, Iter *, Iter *keys) { return qmo_seq_hash_agg_count(a, g, keys, 0); },
         QMO_SEQ_TYPE_UINT8, {{k(5), 3}, {k(7), 2}, {k(9), 1}, {k(13), 1}}},
    };
    if constexpr (std::is_same_v<TypeParam, t_uint8>)
        rows.push_back({"count of values", with_size(qmo_seq_hash_agg_count_uint8), QMO_SEQ_TYPE_UINT8,
                        {{k(5), 3}, {k(7), 2}, {k(9), null}, {k(13), 1}}});
    for (size_t r = 0; r < rows.size(); ++r) {
        SCOPED_TRACE(rows[r].name);
        Source<t_int4> keys({5, 7, 5, 9, 7, 5, 11, 13}, {6}, {3});
        Source<TypeParam> values({2, 1, 8, 99, 4, 2, 99, 3}, {3}, {3});
        Outputs o;
        ASSERT_EQ(rows[r].make(&o.agg, &o.grp, &values.it, &keys.it), 0);
        EXPECT_EQ(o.agg.elem_type, rows[r].type);
        const Groups g = pull(o, r % 2);
        std::map<std::string, std::optional<double>> got;
        for (size_t i = 0; i < g.keys.size(); ++i) got[g.keys[i]] = g.aggs[i];
        EXPECT_EQ(got, rows[r].expect);
        const int pulls = keys.pulls;
        EXPECT_EQ(qmo_seq_hash_agg_reset(&o.agg) | qmo_seq_hash_agg_reset(&o.grp), 0);
        EXPECT_EQ(pull(o, r % 2 == 0), g);
        EXPECT_EQ(keys.pulls, pulls);
    }
}

// ---- keys of every type, in the table's order ---------------------------------------------------

// From 7 buckets up, chains mix negative and positive keys: a negative key
// sorts after the positive ones by its zero-extended word.
TYPED_TEST(HashTyped, KeysOfEveryTypeComeInBucketAndChainOrder) {
    using T = V<TypeParam>;
    std::vector<T> keys = {std::numeric_limits<T>::max(), std::numeric_limits<T>::lowest(), T(0), T(1)};
    for (int64_t i = 0; i < 400; ++i) keys.push_back(static_cast<T>((i % 190) * 37 - 2000));
    Source<TypeParam> source(keys, {3, 50, 51});
    expect_groups(source, 7);
}

TEST_F(Hash, CharKeysShortAndLong) {
    for (size_t width : {3, 8, 12, 32}) {
        std::vector<std::string> keys;
        for (int i = 0; i < 300; ++i) keys.push_back(std::to_string(i % 170 * 7919).append("k"));
        CharSource source(width, keys, {4});
        expect_groups(source, 7);
    }
    const double load = qmo_seq_hash_table_load_factor;
    qmo_seq_hash_table_load_factor = 0.5;
    CharSource half_full(12, {"a", "b", "c", "d", "e", "f", "g"});
    expect_groups(half_full, 7);
    qmo_seq_hash_table_load_factor = load;
}

// A million distinct keys: many growths; and a count over an output is the number of groups.
TEST_F(Hash, AMillionDistinctKeys) {
    std::vector<int32_t> keys(1'000'000);
    for (size_t i = 0; i < keys.size(); ++i) keys[i] = static_cast<int32_t>(i * 2053) - 1'000'000'000;
    Source<t_int4> source(keys), again(keys);
    expect_groups(source, 0);
    Outputs o;
    Iter count;
    ASSERT_EQ(qmo_seq_hash_agg_count(&o.agg, &o.grp, &again.it, 0), 0);
    ASSERT_EQ(qmo_seq_agg_count(&count, &o.grp), 0);
    ASSERT_EQ(count.next(&count), 0);
    EXPECT_EQ(count.values.u8[0], keys.size());
}

// Keys that come back, in tables of fewer and of more groups than the build's
// entry cache holds, with nulls among them: 65,536 uint2 keys three times
// over, and 5,000 int8 keys of which many share a cache slot, their negatives
// joining late (wrapped chain order from then on).
TEST_F(Hash, KeysThatComeBackBelowAndAboveTheEntryCache) {
    std::vector<uint16_t> shorts(3 * 65536);
    for (size_t i = 0; i < shorts.size(); ++i) shorts[i] = static_cast<uint16_t>(i * 40503);
    Source<t_uint2> short_keys(shorts, {5, 70000, 140001});
    expect_groups(short_keys, 0);
    std::vector<int64_t> longs(20000);
    for (size_t i = 0; i < longs.size(); ++i) longs[i] = (i < 15000 ? 1 : -1) * (static_cast<int64_t>(i % 5000) << 40);
    Source<t_int8> long_keys(longs, {3, 12000});
    expect_groups(long_keys, 0);
}

// The bucket index by reciprocal is h mod d for the core's primes and for
// 32-bit counts beyond them, at the edges of the hash range and between.
TEST(HashBuckets, ReciprocalIndexIsTheRemainder) {
    std::vector<uint64_t> counts = {2, 3, 4294967291u, 4294967295u, 2147483659u};
    for (int i = 0; i <= 28; ++i) counts.push_back(prime(i));
    std::mt19937 rng(5);
    for (uint64_t d : counts) {
        const uint64_t m = qmo::hash::Buckets<qmo::hash::Entry>::reciprocal(d);
        std::vector<uint32_t> hashes = {0, 1, 0xFFFFFFFFu, 0xFFFFFFFEu, 0x80000000u};
        for (uint64_t k : {uint64_t{1}, d - 1, d, d + 1, (0xFFFFFFFFu / d) * d - 1, (0xFFFFFFFFu / d) * d})
            if (k <= 0xFFFFFFFFu) hashes.push_back(static_cast<uint32_t>(k));
        for (int j = 0; j < 20000; ++j) hashes.push_back(rng());
        for (uint32_t h : hashes) ASSERT_EQ(qmo::hash::Buckets<qmo::hash::Entry>::index(h, m, d), h % d) << h << " mod " << d;
    }
}

// ---- edge cases -----------------------------------------------------------------------------------

TEST_F(Hash, EdgeCases) {
    Source<t_int4> empty(std::vector<int32_t>{}), values(std::vector<int32_t>{});
    Outputs o;
    ASSERT_EQ(qmo_seq_hash_agg_sum_int4(&o.agg, &o.grp, &values.it, &empty.it, 0), 0);
    EXPECT_EQ(o.grp.next(&o.grp), QMO_SEQ_END);
    EXPECT_EQ(o.agg.next(&o.agg), QMO_SEQ_END);
    ASSERT_NE(qmo::hash::table_of(&o.agg), nullptr) << "the table exists, empty";
    EXPECT_EQ(qmo::hash::table_of(&o.agg)->entry_count, 0u);

    // Bucket counts at creation: even prime indexes only.
    for (auto [requested, buckets] : {std::pair{uint64_t{0}, prime(8)}, {8, prime(2)}, {prime(26) + 1, prime(28)}}) {
        Outputs sized;
        ASSERT_EQ(qmo_seq_hash_agg_count(&sized.agg, &sized.grp, &values.it, requested), 0);
        EXPECT_EQ(sized.agg.state[qmo::hash::kBucketCount], buckets) << requested;
    }
}

TEST_F(Hash, KeysAndValuesAdvanceTogether) {
    Source<t_int4> keys({1, 2, 3, 4}, {}, {3}), shorter_tiles({1, 2, 3, 4}, {}, {2});
    Source<t_int4> keys2({1, 2, 3, 4}), ends_first({1, 2});
    Source<t_int4> broken({1}), v({1});
    broken.fail_with = 4242;
    for (auto [k, vals, status] : {std::tuple{&keys, &shorter_tiles, QMO_SEQ_LENGTH_MISMATCH + 0},
                                   {&keys2, &ends_first, QMO_SEQ_LENGTH_MISMATCH + 0}, {&broken, &v, 4242}}) {
        Outputs o;
        ASSERT_EQ(qmo_seq_hash_agg_sum_int4(&o.agg, &o.grp, &vals->it, &k->it, 0), 0);
        EXPECT_EQ(o.grp.next(&o.grp), status);
    }
}

// Values are checked and bound before keys; nothing else is written on failure.
TEST_F(Hash, ConstructorChecks) {
    BindingChecks on(1);
    Source<t_int4> keys({1}), int4({1}), bound({1});
    Source<t_int8> int8({1});
    bound.it.bound = 1;
    Outputs o;
    EXPECT_EQ(qmo_seq_hash_agg_sum_int4(&o.agg, &o.grp, &int8.it, &keys.it, 0), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(qmo_seq_hash_agg_sum_int4(&o.agg, &o.grp, &bound.it, &keys.it, 0), QMO_SEQ_ALREADY_BOUND);
    EXPECT_EQ(qmo_seq_hash_agg_sum_int4(&o.agg, &o.grp, nullptr, &keys.it, 0), QMO_SEQ_INVALID_ARGUMENT);
    EXPECT_EQ(keys.it.bound + int8.it.bound, 0);
    EXPECT_EQ(qmo_seq_hash_agg_sum_int4(&o.agg, &o.grp, &int4.it, &bound.it, 0), QMO_SEQ_ALREADY_BOUND);
    EXPECT_EQ(int4.it.bound, 1) << "values stay bound when the keys are refused";
    Memory::arm(1);
    EXPECT_EQ(qmo_seq_hash_agg_count(&o.agg, &o.grp, &keys.it, 0), QMO_SEQ_NO_MEMORY) << "the shared record";
    EXPECT_EQ(o.agg.next, nullptr);
}

// ---- partitions --------------------------------------------------------------------------------

// Prepared partitions (one empty, tiles of other lengths) merged into the
// first give the single build's sequences exactly; the merge grows the table.
TEST_F(Hash, PartitionedBuildAndMergeEqualsOneBuild) {
    const std::vector<std::pair<const char *, Make>> ops = {
        {"max", with_size(qmo_seq_hash_agg_max_int4, 7)}, {"min", with_size(qmo_seq_hash_agg_min_int4, 7)},
        {"sum", with_size(qmo_seq_hash_agg_sum_int4, 7)}, {"avg", with_size(qmo_seq_hash_agg_avg_int4, 7)},
        {"approxdc", with_size(qmo_seq_hash_agg_approxdc, 7)},
        {"count", [](Iter *a, Iter *g, Iter *, Iter *k) { return qmo_seq_hash_agg_count(a, g, k, 7); }}};
    for (const auto &[name, make] : ops) {
        SCOPED_TRACE(name);
        std::deque<Source<t_int4>> sources;
        // Rows from..to: 1100 keys, every 11th null; values, every 7th null.
        auto build = [&, make = make](Outputs &o, size_t from, size_t to, unsigned tile) {
            std::vector<int32_t> k, v;
            std::vector<size_t> null_k, null_v;
            for (size_t i = from; i < to; ++i) {
                k.push_back(static_cast<int32_t>(i * 37 % 1100));
                v.push_back(static_cast<int32_t>(i % 50));
                if (i % 11 == 0) null_k.push_back(i - from);
                if (i % 7 == 0) null_v.push_back(i - from);
            }
            Iter *keys = &sources.emplace_back(k, null_k, std::vector<unsigned>{tile}).it;
            return make(&o.agg, &o.grp, &sources.emplace_back(v, null_v, std::vector<unsigned>{tile}).it, keys);
        };
        Outputs whole, parts[3];
        ASSERT_EQ(build(whole, 0, 3000, 128), 0);
        const size_t cuts[] = {0, 0, 1000, 3000};
        for (unsigned p = 0; p < 3; ++p) {
            ASSERT_EQ(build(parts[p], cuts[p], cuts[p + 1], 100 + p), 0);
            ASSERT_EQ(parts[p].agg.prepare(&parts[p].agg), 0);
        }
        for (size_t p = 1; p < 3; ++p) ASSERT_EQ(parts[0].agg.merge(&parts[0].agg, &parts[p].agg), 0);
        EXPECT_EQ(pull(parts[0], true), pull(whole, false));
        EXPECT_EQ(parts[1].grp.next(&parts[1].grp), QMO_SEQ_END) << "a merged partition has given its groups away";
    }
}

// Per key, distinct values seen at least n times over all partitions. A
// build alone publishes nothing: pulled directly, both outputs end.
TEST_F(Hash, DuplicateAndDistinctCounts) {
    const std::vector<int32_t> keys_a = {1, 1, 1, 2, 3, 9}, keys_b = {1, 1, 2, 2, 4};
    const std::vector<std::string> values_a = {"apple", "apple", "banana", "x", "", "y"},
                                   values_b = {"banana", "cherry", "x", "x", "z"};
    for (auto [n, expected] : {std::pair{2, std::map<int32_t, double>{{1, 2}, {2, 1}, {3, 0}, {4, 0}}},
                               {1, {{1, 3}, {2, 1}, {3, 0}, {4, 1}}}}) {
        Source<t_int4> ka(keys_a, {5}), kb(keys_b), kc(keys_b);
        CharSource va(10, values_a, {4}), vb(10, values_b), vc(10, values_b);
        Outputs a, b, alone;
        ASSERT_EQ(qmo_seq_hash_agg_dup_count(&a.agg, &a.grp, &va.it, &ka.it, 0, 7, n), 0);
        ASSERT_EQ(qmo_seq_hash_agg_dup_count(&b.agg, &b.grp, &vb.it, &kb.it, 0, 7, n), 0);
        ASSERT_EQ(qmo_seq_hash_agg_distinct_count(&alone.agg, &alone.grp, &vc.it, &kc.it, 0, 0), 0);
        EXPECT_EQ(alone.agg.next(&alone.agg), QMO_SEQ_END);
        EXPECT_EQ(alone.grp.next(&alone.grp), QMO_SEQ_END);
        ASSERT_EQ(a.agg.prepare(&a.agg) + b.agg.prepare(&b.agg), 2 * QMO_SEQ_END);
        ASSERT_EQ(a.agg.merge(&a.agg, &b.agg), 0);
        const Groups g = pull(a, n == 1);
        std::map<int32_t, double> got;
        for (size_t i = 0; i < g.keys.size(); ++i) got[*reinterpret_cast<const int32_t *>(g.keys[i].data())] = *g.aggs[i];
        EXPECT_EQ(got, expected) << "n = " << n;
    }
}

// ---- memory ----------------------------------------------------------------------------------------

// Fails each allocation of a build, of a merge and of a duplicate-count merge
// in turn: 52, and nothing is left once the outputs are released; a failed
// build is replaced by the next pull's.
TEST_F(Hash, EveryAllocationFailureIs52AndLeaksNothing) {
    std::vector<std::string> keys;
    std::vector<int32_t> values;
    for (int i = 0; i < 3300; ++i) keys.push_back(std::to_string(i).append(" key")), values.push_back(i % 13);
    auto part = [&](size_t from, size_t to) { return std::vector<std::string>(keys.begin() + from, keys.begin() + to); };
    auto build = [&](long fail) {
        CharSource k(12, part(0, 1100));
        Source<t_int4> v(std::vector<int32_t>(values.begin(), values.begin() + 1100));
        Outputs o;
        Memory::arm(fail);
        int rc = qmo_seq_hash_agg_approxdc(&o.agg, &o.grp, &v.it, &k.it, 7);
        if (!rc && (rc = o.grp.next(&o.grp)) == QMO_SEQ_NO_MEMORY) {
            k.it.reset(&k.it), v.it.reset(&v.it);
            EXPECT_EQ(drain<std::string>(&o.grp).values.size(), 1100u) << "the next pull builds anew";
        }
        return rc;
    };
    auto merge = [&](bool dup, long fail) {
        CharSource ka(12, part(0, 600)), kb(12, part(300, 3300)), va(12, part(0, 600)), vb(12, part(300, 3300));
        Outputs a, b;
        auto make = dup ? Make([](Iter *g, Iter *r, Iter *v, Iter *k) { return qmo_seq_hash_agg_distinct_count(g, r, v, k, 7, 7); })
                        : with_size(qmo_seq_hash_agg_count_uint8, 7);
        EXPECT_EQ(make(&a.agg, &a.grp, dup ? &va.it : nullptr, &ka.it) | make(&b.agg, &b.grp, dup ? &vb.it : nullptr, &kb.it), 0);
        a.agg.prepare(&a.agg), b.agg.prepare(&b.agg);
        Memory::arm(fail);
        return a.agg.merge(&a.agg, &b.agg);
    };
    const std::vector<std::pair<const char *, std::function<int(long)>>> scenarios = {
        {"build", build}, {"merge", [&](long k) { return merge(false, k); }}, {"dup merge", [&](long k) { return merge(true, k); }}};
    for (const auto &[name, run] : scenarios) {
        ASSERT_EQ(run(0), 0) << name;
        const long needed = Memory::calls - Memory::armed;
        EXPECT_GT(needed, 2) << name;
        for (long k = 1; k <= needed; ++k) {
            EXPECT_EQ(run(k), QMO_SEQ_NO_MEMORY) << name << ", allocation " << k;
            EXPECT_EQ(Memory::live.size(), 0u) << name << ", allocation " << k;
        }
    }
    // Shared records, table records, blocks and bucket arrays of prime counts.
    std::set<size_t> expected = {24, 40, 40968};
    for (int i = 0; i <= 28; ++i) expected.insert(prime(i) * 8);
    EXPECT_TRUE(std::includes(expected.begin(), expected.end(), Memory::sizes.begin(), Memory::sizes.end()));
}

TEST_F(Hash, ReleaseDetachesBothOutputs) {
    Source<t_int4> keys({1, 2});
    Outputs o;
    ASSERT_EQ(qmo_seq_hash_agg_count(&o.agg, &o.grp, &keys.it, 0), 0);
    ASSERT_EQ(o.agg.next(&o.agg), 0);
    EXPECT_EQ(qmo_seq_free_hash(&o.grp), 1);
    EXPECT_FALSE(qmo_seq_is_hash_aggreate(&o.grp));
    EXPECT_TRUE(qmo_seq_is_hash_aggreate(&o.agg));
    EXPECT_EQ(qmo_seq_free_hash(&o.agg), 0) << "already detached";
    EXPECT_EQ(o.grp.next(&o.grp), QMO_SEQ_END);
}

// ---- element-wise hash --------------------------------------------------------------------------

// Null where the input or the seed is; the input's tile length rules.
TEST_F(Hash, ElementwiseHashWithAndWithoutSeeds) {
    const std::vector<int16_t> in = {1, 2, 3, 4};
    const std::vector<uint32_t> seeds = {10, 20, 30, 40, 50};
    Source<t_int2> a(in, {1}), b(in, {1});
    Source<t_uint4> s(seeds, {2});
    Source<t_int4> not_seeds({1});
    Iter plain, seeded;
    EXPECT_EQ(qmo_seq_hash(&seeded, &a.it, &not_seeds.it), QMO_SEQ_TYPE_MISMATCH);
    ASSERT_EQ(qmo_seq_hash(&plain, &a.it, nullptr) | qmo_seq_hash(&seeded, &b.it, &s.it), 0);
    const auto p = drain<uint32_t>(&plain), q = drain<uint32_t>(&seeded);
    ASSERT_EQ(q.values.size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(p.nulls[i], i == 1);
        EXPECT_EQ(q.nulls[i], i == 1 || i == 2);
        EXPECT_TRUE(p.nulls[i] || p.values[i] == qmo::murmur_hash3_32(&in[i], 2, QMO_SEQ_HASH_SEED));
        EXPECT_TRUE(q.nulls[i] || q.values[i] == qmo::murmur_hash3_32(&in[i], 2, seeds[i]));
    }
}
