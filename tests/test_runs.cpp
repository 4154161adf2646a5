// Group aggregates over runs of equal keys: every member against an
// array-walking model (runs across odd tiles, all-null runs, results held
// back until the next run starts, replay after a reset mid-run), keys
// compared by their bytes, and the statuses.
#include "support.hpp"

#include "aggregate/distinct.hpp"

#include <functional>
#include <numeric>
#include <optional>

using namespace test;

namespace {

using Maybe = std::optional<double>;  // empty: a null element
using Xs = const std::vector<double> &;

struct Pulled {
    std::vector<Maybe> results;
    std::vector<unsigned> tiles;
    int status = 0;
};

Pulled pull_all(Iter *it) {
    Pulled p;
    for (int guard = 0; guard < 1000 && (p.status = it->next(it)) == 0; ++guard) {
        p.tiles.push_back(it->tile_count);
        for (unsigned i = 0; i < it->tile_count; ++i)
            p.results.push_back((it->null_bitmap[i / 64] >> (i % 64)) & 1 ? Maybe{} : Maybe{element(it, i)});
    }
    return p;
}

// NaN (dev_samp of a negative sample variance) matches NaN.
void expect_same(const Pulled &got, const Pulled &want) {
    auto same = [](Maybe a, Maybe b) { return a == b || (a && b && std::isnan(*a) && std::isnan(*b)); };
    EXPECT_TRUE(std::equal(got.results.begin(), got.results.end(), want.results.begin(), want.results.end(), same))
        << ::testing::PrintToString(got.results) << " != " << ::testing::PrintToString(want.results);
    EXPECT_EQ(got.tiles, want.tiles);
    EXPECT_EQ(got.status, want.status);
}

// Int4 keys, values (null where marked), weights i % 3 + 1, and the tile
// lengths every source delivers.
struct Case {
    const char *name;
    std::vector<int32_t> keys = {};
    std::vector<double> x = {};
    std::vector<size_t> nulls = {};
    std::vector<unsigned> tiles = {QMO_SEQ_TILE_SIZE};
};

// A member: its constructor over (weights, values, keys) and its result from
// a run's non-null values, their weights and the run's length.
struct Member {
    std::string name;
    std::function<int(Iter *, Iter *, Iter *, Iter *)> make;
    std::function<Maybe(Xs x, Xs w, size_t length)> of;
};

Pulled model(const Case &c, const Member &m) {
    Pulled p{{}, {}, QMO_SEQ_END};
    for (size_t s = 0, e; s < c.keys.size(); s = e) {
        for (e = s + 1; e < c.keys.size() && c.keys[e] == c.keys[s];) ++e;
        std::vector<double> x, w;
        for (size_t i = s; i < e; ++i)
            if (std::find(c.nulls.begin(), c.nulls.end(), i) == c.nulls.end())
                x.push_back(c.x[i]), w.push_back(i % 3 + 1);
        p.results.push_back(m.of(x, w, e - s));
    }
    for (size_t left = p.results.size(); left; left -= p.tiles.back()) p.tiles.push_back(std::min<size_t>(left, 128));
    return p;
}

std::vector<Case> cases() {
    Case across{"runs across odd tiles", {}, {}, {}, {7, 50, 128, 3}};
    const unsigned lengths[] = {1, 130, 3, 1, 60, 2, 5};
    for (unsigned r = 0; across.keys.size() < 400; ++r)
        for (unsigned l = 0; l < lengths[r % 7]; ++l) {
            const size_t i = across.keys.size();
            across.keys.push_back(static_cast<int32_t>(r % 3));
            across.x.push_back(static_cast<double>(i * 7 % 11 + 1));
            if (r % 4 == 2 || i % 9 == 4) across.nulls.push_back(i);  // run 2 (and 0's only element) all null
        }
    Case ones{"129 runs of one, from the cleared key 0"};
    for (int32_t i = 0; i < 129; ++i) ones.keys.push_back(i), ones.x.push_back(i % 5 + 1);
    Case distinct{"300 runs of one in tiles of 100 and 27", {}, {}, {}, {100, 27}};
    for (int32_t i = 1; i <= 300; ++i) distinct.keys.push_back(i), distinct.x.push_back(i % 5 + 1);
    const Case example{"adjacent equal keys only", {1, 1, 2, 2, 2, 1}, {10, 20, 1, 2, 3, 5}};
    return {example, across, ones, distinct, {"no keys"}};
}

template <class Tag>
std::vector<Member> members() {
    auto values = [](auto make) { return [make](Iter *r, Iter *, Iter *x, Iter *k) { return make(r, x, k); }; };
    auto some = [](auto f) { return [f](Xs x, Xs w, size_t) { return x.empty() ? Maybe{} : Maybe{f(x, w)}; }; };
    auto sum = [](Xs x) { return std::accumulate(x.begin(), x.end(), 0.0); };
    auto var = [sum](Xs x, double d) {
        const double s2 = std::inner_product(x.begin(), x.end(), x.begin(), 0.0);
        return (s2 - sum(x) * sum(x) / d) / d;
    };
    auto samp = [var](Xs x) { return x.size() == 1 ? 0.0 : var(x, x.size() - 1.0); };
    auto estimate = [](Xs x, bool hashed) {
        uint8_t registers[128] = {};
        for (double v : x) {
            const V<Tag> t = static_cast<V<Tag>>(v);
            qmo::distinct_add(registers, hashed ? uint32_t(t) : qmo::murmur_hash3_32(&t, sizeof t, QMO_SEQ_HASH_SEED));
        }
        return double(qmo::approximate_distinct_count(registers));
    };
    const bool dt = std::is_same_v<Tag, t_datetime>;
    std::vector<Member> rows = {
        {"sum", values(fn::group_agg_sum<Tag>), some([=](Xs x, Xs) { return sum(x); })},
        {"avg", values(fn::group_agg_avg<Tag>),
         some([=](Xs x, Xs) { return dt ? std::floor(sum(x) / x.size()) : sum(x) / x.size(); })},
        {"min", values(fn::group_agg_min<Tag>), some([](Xs x, Xs) { return *std::min_element(x.begin(), x.end()); })},
        {"max", values(fn::group_agg_max<Tag>), some([](Xs x, Xs) { return *std::max_element(x.begin(), x.end()); })},
        {"first", values(fn::group_agg_first<Tag>), some([](Xs x, Xs) { return x.front(); })},
        {"last", values(fn::group_agg_last<Tag>), some([](Xs x, Xs) { return x.back(); })},
        {"var", values(fn::group_agg_var<Tag>), some([=](Xs x, Xs) { return var(x, double(x.size())); })},
        {"var_samp", values(fn::group_agg_var_samp<Tag>), some([=](Xs x, Xs) { return samp(x); })},
        {"dev", values(fn::group_agg_dev<Tag>), some([=](Xs x, Xs) { return std::sqrt(var(x, double(x.size()))); })},
        {"dev_samp", values(fn::group_agg_dev_samp<Tag>), some([=](Xs x, Xs) { return std::sqrt(samp(x)); })},
        {"wavg", fn::group_agg_wavg<Tag>,
         some([=](Xs x, Xs w) { return std::inner_product(x.begin(), x.end(), w.begin(), 0.0) / sum(w); })},
        {"count", [](Iter *r, Iter *, Iter *, Iter *k) { return qmo_seq_group_agg_count(r, k); },
         [](Xs, Xs, size_t n) { return Maybe{double(n)}; }},
        {"approxdc", values(qmo_seq_group_agg_approxdc), some([=](Xs x, Xs) { return estimate(x, false); })},
    };
    if (std::is_same_v<Tag, t_uint4>)
        rows.push_back({"approxdc_hash", values(qmo_seq_group_agg_approxdc_hash),
                        some([=](Xs x, Xs) { return estimate(x, true); })});
    return rows;
}

}  // namespace

template <class Tag>
class RunAggregates : public ::testing::Test {};
TYPED_TEST_SUITE(RunAggregates, NumericTypes);

// Each member over each case; then a reset in the middle of an open run
// rewinds exactly the member's operands, and the replay is the same.
TYPED_TEST(RunAggregates, MembersAgainstTheModel) {
    using T = V<TypeParam>;
    for (const Case &c : cases())
        for (const Member &m : members<TypeParam>()) {
            SCOPED_TRACE(std::string(c.name) + " / " + m.name);
            std::vector<T> x, w;
            for (size_t i = 0; i < c.x.size(); ++i) x.push_back(T(c.x[i])), w.push_back(T(i % 3 + 1));
            Source<t_int4> keys(c.keys, {}, c.tiles);
            Source<TypeParam> values(x, c.nulls, c.tiles), weights(w, {}, c.tiles);
            Iter agg;
            ASSERT_EQ(m.make(&agg, &weights.it, &values.it, &keys.it), 0);
            EXPECT_TRUE(agg.prepare == nullptr && agg.merge == nullptr);
            const Pulled want = model(c, m);
            agg.next(&agg);
            ASSERT_EQ(agg.reset(&agg), 0);
            expect_same(pull_all(&agg), want);
            EXPECT_EQ(keys.resets, 1);
            EXPECT_EQ(values.resets, m.name != "count");
            EXPECT_EQ(weights.resets, m.name == "wavg");
        }
}

// A run's first product starts the sum of products (not 0 + it): a weight
// of -3 over a value of 0 gives -0 / -3 = +0.
TYPED_TEST(RunAggregates, WeightedMeanStartsFromTheFirstProduct) {
    using T = V<TypeParam>;
    Source<t_int4> keys({7});
    Source<TypeParam> weights(std::vector<T>{static_cast<T>(-3)}), values(std::vector<T>{0});
    Iter wavg;
    ASSERT_EQ(fn::group_agg_wavg<TypeParam>(&wavg, &weights.it, &values.it, &keys.it), 0);
    ASSERT_EQ(wavg.next(&wavg), 0);
    EXPECT_EQ(wavg.values.f8[0], 0.0);
    EXPECT_FALSE(std::signbit(wavg.values.f8[0]));
}

TEST(RunAggregateQuirks, KeysCompareAsTheBytesOfTheirWidth) {
    auto counts = [](Script &keys) {
        Iter count;
        EXPECT_EQ(qmo_seq_group_agg_count(&count, &keys.it), 0);
        return pull_all(&count).results;
    };
    CharSource names(3, {"ab", "ab", "abc", "ab", "ab"}), padded(5, {"ab", std::string("ab\0z", 4), "ab"});
    Source<t_double> zeros({0.0, -0.0, -0.0, NAN, NAN});
    EXPECT_EQ(counts(names), (std::vector<Maybe>{2, 1, 2}));
    EXPECT_EQ(counts(padded), (std::vector<Maybe>{1, 1, 1})) << "bytes after the NUL count";
    EXPECT_EQ(counts(zeros), (std::vector<Maybe>{1, 2, 2})) << "-0 is not 0; a NaN equals itself";
    Source<t_int8> big({INT64_MAX, INT64_MAX}), two({7, 7});
    Iter sum;
    ASSERT_EQ(qmo_seq_group_agg_sum_int8(&sum, &big.it, &two.it), 0);
    ASSERT_EQ(sum.next(&sum), 0);
    EXPECT_EQ(sum.values.i8[0], -2) << "64-bit sums wrap";
}

TEST(RunAggregateProtocol, TypesThenBindingsThenTheRecord) {
    BindingChecks on(1);
    Source<t_int4> i4({1}), keys({1}), free_keys({1});
    Source<t_int8> i8({1});
    Source<t_uint4> hashes({1});
    keys.it.bound = 1;
    for (auto make : std::initializer_list<std::function<int(Iter *)>>{
             [&](Iter *o) { return qmo_seq_group_agg_sum_int4(o, &i8.it, &keys.it); },
             [&](Iter *o) { return qmo_seq_group_agg_wavg_int4(o, &i4.it, &i8.it, &i4.it); },
             [&](Iter *o) { return qmo_seq_group_agg_approxdc_hash(o, &i4.it, &i4.it); }})
        expect_refused(QMO_SEQ_TYPE_MISMATCH, make, {&i4.it});
    for (auto make : std::initializer_list<std::function<int(Iter *)>>{
             [&](Iter *o) { return qmo_seq_group_agg_min_int4(o, &i4.it, &keys.it); },
             [&](Iter *o) { return qmo_seq_group_agg_count(o, &keys.it); }})
        expect_refused(QMO_SEQ_ALREADY_BOUND, make, {&i4.it});
    Iter dc, dch, count, wavg;
    ASSERT_EQ(qmo_seq_group_agg_approxdc(&dc, &i8.it, &keys.it), 0) << "keys neither checked";
    ASSERT_EQ(qmo_seq_group_agg_approxdc_hash(&dch, &hashes.it, &free_keys.it), 0);
    EXPECT_TRUE(i8.it.bound && hashes.it.bound && !free_keys.it.bound) << "nor bound";
    ASSERT_EQ(qmo_seq_group_agg_count(&count, &free_keys.it), 0);
    ASSERT_EQ(qmo_seq_group_agg_wavg_int4(&wavg, &i4.it, &i4.it, &i4.it), 0);
    EXPECT_EQ(dc.reset, qmo_seq_reset_binary_agg_iterator);
    EXPECT_EQ(count.reset, qmo_seq_reset_unary_agg_iterator);
    EXPECT_EQ(wavg.reset, qmo_seq_reset_ternary_agg_iterator);
}

// Keys first: a null key is 703 before the values are pulled; a key tile
// longer than its values is 702 at once, a shorter one when the next key
// tile arrives; values that outlast the keys are not read; errors pass.
TEST(RunAggregateProtocol, NullKeysUnevenTilesAndErrors) {
    struct Row {
        const char *name;
        std::vector<unsigned> key_tiles, value_tiles;
        size_t keys, values;
        std::vector<size_t> null_keys;
        int fail_keys, fail_values, status, value_pulls;
    };
    for (const Row &r : std::vector<Row>{
             {"null key", {128}, {128}, 3, 3, {1}, 0, 0, QMO_SEQ_NULL_VALUE, 0},
             {"keys longer", {128}, {100}, 200, 200, {}, 0, 0, QMO_SEQ_LENGTH_MISMATCH, 1},
             {"keys shorter", {100}, {128}, 300, 300, {}, 0, 0, QMO_SEQ_LENGTH_MISMATCH, 1},
             {"values outlast", {128}, {128}, 3, 200, {}, 0, 0, 0, 1},
             {"keys fail", {128}, {128}, 3, 3, {}, 4242, 0, 4242, 0},
             {"values fail", {128}, {128}, 3, 3, {}, 0, 4242, 4242, 1},
         }) {
        SCOPED_TRACE(r.name);
        std::vector<int32_t> k = iota_column(r.keys);
        k[1] = 0;  // keys 0, 0, 2, ...
        Source<t_int4> keys(k, r.null_keys, r.key_tiles), values(iota_column(r.values), {}, r.value_tiles);
        keys.fail_with = r.fail_keys, values.fail_with = r.fail_values;
        Iter sum;
        ASSERT_EQ(qmo_seq_group_agg_sum_int4(&sum, &values.it, &keys.it), 0);
        EXPECT_EQ(sum.next(&sum), r.status);
        if (r.status == 0) {
            EXPECT_TRUE(sum.tile_count == 2 && sum.values.i8[0] == 1 && sum.values.i8[1] == 2);
        }
        EXPECT_EQ(values.pulls, r.value_pulls);
    }
}
