// Scalar aggregates: every family over its member types, the quirks that are
// part of the contract, the counts, partitioned evaluation (prepare each
// partition, merge the partial results, next once), and the distinct-count
// sketch: MurmurHash3 against published vectors, registers and estimator.
#include "support.hpp"

#include "aggregate/distinct.hpp"
#include "aggregate/hash_layout.hpp"

#include <cmath>
#include <deque>
#include <functional>
#include <numeric>

using namespace test;

namespace {

constexpr int kDouble = QMO_SEQ_TYPE_DOUBLE;

// The status of the first pull and the elements of its tile, which must be
// the only one.
struct Result {
    int status;
    std::vector<double> values;
};

Result pull(Iter *agg) {
    Result r{agg->next(agg), {}};
    if (r.status) return r;
    for (unsigned i = 0; i < agg->tile_count; ++i) r.values.push_back(element(agg, i));
    EXPECT_EQ(agg->pos, agg->tile_count);
    EXPECT_EQ(agg->null_bitmap[0] | agg->null_bitmap[1], 0u);
    EXPECT_EQ(agg->next(agg), QMO_SEQ_END) << "one result, then the end";
    return r;
}

// Builds an aggregate over the given sources and pulls it.
template <class Make, class... Sources>
Result aggregate(Make make, Sources &...in) {
    Iter agg;
    EXPECT_EQ(make(&agg, &in.it...), 0);
    return pull(&agg);
}

// Every mergeable family over x = 2, 1, 8, 2 and, for pairs, y = 1, 2, 3, 4:
// s1 13, s2 73, sy 10, syy 30, sxy 36.
struct Row {
    const char *name;
    std::function<int(Iter *, Iter *, Iter *)> make;
    int type;
    double expected;
    bool count = false;  // a count: 0, not an empty sequence, when nothing is counted
};

template <class Tag>
std::vector<Row> rows() {
    auto one = [](Unary m) { return [m](Iter *r, Iter *x, Iter *) { return m(r, x); }; };
    auto two = [](Binary m) { return [m](Iter *r, Iter *x, Iter *y) { return m(r, x, y); }; };
    const bool dt = std::is_same_v<Tag, t_datetime>;
    const int wide = is_float_v<Tag> ? kDouble
                     : dt             ? QMO_SEQ_TYPE_DATETIME
                     : is_signed_v<Tag> ? QMO_SEQ_TYPE_INT8 : QMO_SEQ_TYPE_UINT8;
    return {
        {"sum", one(fn::agg_sum<Tag>), wide, 13},
        {"prd", one(fn::agg_prd<Tag>), wide, 32},
        {"min", one(fn::agg_min<Tag>), Tag::code_, 1},
        {"max", one(fn::agg_max<Tag>), Tag::code_, 8},
        {"avg", one(fn::agg_avg<Tag>), dt ? QMO_SEQ_TYPE_DATETIME : kDouble, dt ? 3 : 3.25},
        {"var", one(fn::agg_var<Tag>), kDouble, (73 - 169.0 / 4) / 4},
        {"var_samp", one(fn::agg_var_samp<Tag>), kDouble, (73 - 169.0 / 3) / 3},
        {"dev", one(fn::agg_dev<Tag>), kDouble, std::sqrt((73 - 169.0 / 4) / 4)},
        {"dev_samp", one(fn::agg_dev_samp<Tag>), kDouble, std::sqrt((73 - 169.0 / 3) / 3)},
        {"cov", two(fn::cov<Tag>), kDouble, (36 - 10.0 * 13 / 4) / 4},
        {"corr", two(fn::corr<Tag>), kDouble, (36 - 10.0 * 13 / 4) / std::sqrt((30 - 25.0) * (73 - 169.0 / 4))},
        {"wsum", two(fn::wsum<Tag>), kDouble, 36},
        {"wavg", two(fn::wavg<Tag>), kDouble, 36.0 / 13},
        {"count_not_null", one(qmo_seq_agg_count_not_null), QMO_SEQ_TYPE_UINT8, 4, true},
        {"approxdc", one(qmo_seq_agg_approxdc), QMO_SEQ_TYPE_UINT4, 3, true},
    };
}

}  // namespace

template <class Tag>
class ScalarAggregates : public ::testing::Test {};
TYPED_TEST_SUITE(ScalarAggregates, NumericTypes);

// The same results from one dense tile and from short tiles with nulls on
// either side (a pair is dropped when either element is null); nothing but
// the counts from an empty operand or one of only nulls.
TYPED_TEST(ScalarAggregates, FamilyTable) {
    using T = V<TypeParam>;
    for (const Row &row : rows<TypeParam>()) {
        SCOPED_TRACE(row.name);
        Source<TypeParam> x(std::vector<T>{2, 1, 8, 2}), y(std::vector<T>{1, 2, 3, 4});
        Source<TypeParam> gx(std::vector<T>{2, 99, 1, 8, 99, 99, 2}, {1, 4, 5}, {3, 1, 2});
        Source<TypeParam> gy(std::vector<T>{1, 5, 2, 3, 6, 6, 4}, {1, 5}, {3, 1, 2});
        Source<TypeParam> empty(std::vector<T>{}), nulls(std::vector<T>{1, 2}, {0, 1}), ny(std::vector<T>{1, 2});
        for (auto [a, b] : {std::pair{&x, &y}, std::pair{&gx, &gy}, std::pair{&empty, &y}, std::pair{&nulls, &ny}}) {
            Iter agg;
            ASSERT_EQ(row.make(&agg, &a->it, &b->it), 0);
            EXPECT_EQ(agg.elem_type, row.type);
            const Result r = pull(&agg);
            if (a->count == 0 || a == &nulls) {
                if (row.count) EXPECT_EQ(r.values, std::vector<double>{0});
                else EXPECT_EQ(r.status, QMO_SEQ_END);
                continue;
            }
            ASSERT_EQ(r.values.size(), 1u);
            EXPECT_DOUBLE_EQ(r.values[0], row.expected);
        }
    }
}

// Partitions - | 2 1 | - | 8 (null) 2 merged into the empty first give the
// single-pass result: an empty partition neither zeroes a product nor pulls
// a minimum down to 0, and merging into one still delivers.
TYPED_TEST(ScalarAggregates, PreparedPartitionsMergeToTheSinglePassResult) {
    using T = V<TypeParam>;
    const std::vector<std::vector<T>> xs = {{}, {2, 1}, {}, {8, 99, 2}}, ys = {{}, {1, 2}, {}, {3, 7, 4}};
    for (const Row &row : rows<TypeParam>()) {
        SCOPED_TRACE(row.name);
        std::deque<Source<TypeParam>> sources;
        Iter aggs[4];
        for (size_t p = 0; p < 4; ++p) {
            Source<TypeParam> &x = sources.emplace_back(xs[p], std::vector<size_t>(p == 3, 1));
            Source<TypeParam> &y = sources.emplace_back(ys[p]);
            ASSERT_EQ(row.make(&aggs[p], &x.it, &y.it), 0);
            ASSERT_EQ(aggs[p].prepare, qmo_seq_prepare_aggregate);
            ASSERT_EQ(aggs[p].prepare(&aggs[p]), 0);
            EXPECT_EQ(aggs[p].prepared, 1);
        }
        for (size_t p = 1; p < 4; ++p) ASSERT_EQ(aggs[0].merge(&aggs[0], &aggs[p]), 0);
        const Result r = pull(&aggs[0]);
        ASSERT_EQ(r.values.size(), 1u);
        EXPECT_DOUBLE_EQ(r.values[0], row.expected);
        EXPECT_EQ(sources[2].pulls, 2) << "the prepared result is handed out, not recomputed";
    }
}

// Element 0 of the first tile seeds the accumulators, null or not: dropped at
// the first counted element of a tile with nulls, kept when the whole first
// tile is null and a later tile has none.
TYPED_TEST(ScalarAggregates, FirstElementSeedsTheAccumulators) {
    using T = V<TypeParam>;
    for (const auto &[nulls, sum, min] : std::vector<std::tuple<std::vector<size_t>, double, double>>{
             {{0, 1}, 12, 0}, {{0}, 62, 5}, {{0, 1, 3}, 5, 5}}) {
        Source<TypeParam> a(std::vector<T>{0, 50, 5, 7}, nulls, {2}), b(std::vector<T>{0, 50, 5, 7}, nulls, {2});
        EXPECT_EQ(aggregate(fn::agg_sum<TypeParam>, a).values, std::vector<double>{sum}) << nulls.size() << " nulls";
        EXPECT_EQ(aggregate(fn::agg_min<TypeParam>, b).values, std::vector<double>{min}) << nulls.size() << " nulls";
    }
}

// Sums and products are formed in 64 bits, wrapping modulo 2^64; min_max
// delivers two elements (datetime ones as doubles) and is not mergeable.
TYPED_TEST(ScalarAggregates, WideSumsAndMinMax) {
    using T = V<TypeParam>;
    const T high = std::numeric_limits<T>::max();
    Source<TypeParam> a(std::vector<T>{high, high}), b(std::vector<T>{high, high}), c(std::vector<T>{5, 3, 9, 4});
    Iter sum, prd, mm;
    ASSERT_EQ(fn::agg_sum<TypeParam>(&sum, &a.it) | fn::agg_prd<TypeParam>(&prd, &b.it), 0);
    ASSERT_EQ(sum.next(&sum) | prd.next(&prd) | fn::agg_min_max<TypeParam>(&mm, &c.it), 0);
    if constexpr (!is_float_v<TypeParam>) {
        EXPECT_EQ(sum.values.u8[0], static_cast<uint64_t>(high) * 2);
        EXPECT_EQ(prd.values.u8[0], static_cast<uint64_t>(high) * static_cast<uint64_t>(high));
    }
    EXPECT_TRUE(mm.prepare == nullptr && mm.merge == nullptr);
    EXPECT_EQ(mm.elem_type, (std::is_same_v<TypeParam, t_datetime> ? kDouble : TypeParam::code_));
    EXPECT_EQ(pull(&mm).values, (std::vector<double>{3, 9}));
}

// Each non-null element's bytes with the library's seed; the registers are
// kept in the state for the merge. The hash form takes uint4 hashes as they are.
TYPED_TEST(ScalarAggregates, DistinctCountHashesEachNonNullElementsBytes) {
    using T = V<TypeParam>;
    std::vector<T> values(300);
    std::vector<uint32_t> hashes(values.size());
    uint8_t registers[128] = {};
    for (size_t i = 0; i < values.size(); ++i) {
        values[i] = static_cast<T>(i * 31);
        hashes[i] = qmo::murmur_hash3_32(&values[i], sizeof(T), QMO_SEQ_HASH_SEED);
        if (i < 200) qmo::distinct_add(registers, hashes[i]);
    }
    std::vector<size_t> nulls(100);
    std::iota(nulls.begin(), nulls.end(), 200);
    Source<TypeParam> direct(values, nulls);
    Source<t_uint4> hashed(hashes, nulls);
    Iter agg, from_hashes;
    ASSERT_EQ(qmo_seq_agg_approxdc(&agg, &direct.it) | qmo_seq_agg_approxdc_hash(&from_hashes, &hashed.it), 0);
    const std::vector<double> expected = {double(qmo::approximate_distinct_count(registers))};
    EXPECT_EQ(pull(&agg).values, expected);
    EXPECT_EQ(std::memcmp(agg.state, registers, 128), 0);
    EXPECT_EQ(pull(&from_hashes).values, expected);
    EXPECT_EQ(from_hashes.merge, nullptr);
}

// ---- the quirks, one row each ----------------------------------------------------------

TEST(ScalarAggregateQuirks, VarianceFormulasAsTheyStand) {
    auto var = [](Unary make, std::vector<double> values) {
        Source<t_double> in(values);
        return aggregate(make, in).values.at(0);
    };
    EXPECT_EQ(var(qmo_seq_agg_var_samp_double, {1, 2, 3}), -2.0) << "(14 - 36 / 2) / 2";
    EXPECT_TRUE(std::isnan(var(qmo_seq_agg_dev_samp_double, {1, 2, 3})));
    EXPECT_EQ(var(qmo_seq_agg_var_samp_double, {42.5}), 0.0);
    EXPECT_EQ(var(qmo_seq_agg_dev_samp_double, {42.5}), 0.0);
    // Plain sums of squares: at an offset of 1e9 the spread is lost, 0 not 2/3.
    EXPECT_EQ(var(qmo_seq_agg_var_double, {1e9 + 1, 1e9 + 2, 1e9 + 3}), 0.0);
}

TEST(ScalarAggregateQuirks, WeightedAverageWrapsIntegerProductsButWeightedSumDoesNot) {
    Source<t_int4> w({65536, 1}), v({65536, 3}), w2({65536, 1}), v2({65536, 3});  // 2^32 is 0 in 32 bits
    EXPECT_EQ(aggregate(qmo_seq_wavg_int4, w, v).values, std::vector<double>{3.0 / 65537});
    EXPECT_EQ(aggregate(qmo_seq_wsum_int4, w2, v2).values, std::vector<double>{4294967299.0});
    Source<t_uint2> uw({65535}), uv({65535});
    EXPECT_EQ(aggregate(qmo_seq_wavg_uint2, uw, uv).values, std::vector<double>{65535}) << "unsigned 32-bit: fits";
    Source<t_int4> x({1, 2, 3, 4}, {}, {2}), y({1, 2, 99, 3, 4, 99}, {}, {3});
    EXPECT_EQ(aggregate(qmo_seq_wsum_int4, x, y).values, std::vector<double>{30}) << "in step: 99s are never paired";
}

// Float products are rounded to float before they join the double sums,
// in a partition's fold and so in the merge.
TEST(ScalarAggregateQuirks, WeightedAverageRoundsFloatProducts) {
    Source<t_float> w({3}), v({1 / 3.f}), huge({-3.4e38f}), two({2});
    EXPECT_EQ(aggregate(qmo_seq_wavg_float, w, v).values, std::vector<double>{1.0 / 3}) << "3 * 0.33333334f is 1";
    EXPECT_EQ(aggregate(qmo_seq_wavg_float, huge, two).values, std::vector<double>{INFINITY}) << "-inf / -3.4e38";
    Source<t_float> w1({3}), v1({1 / 3.f}), w2({3}), v2({1 / 3.f});
    Iter a, b;
    ASSERT_EQ(qmo_seq_wavg_float(&a, &w1.it, &v1.it) | qmo_seq_wavg_float(&b, &w2.it, &v2.it), 0);
    ASSERT_EQ(a.prepare(&a) | b.prepare(&b) | a.merge(&a, &b), 0);
    EXPECT_EQ(pull(&a).values, std::vector<double>{1.0 / 3}) << "2 / 6";
}

TEST(ScalarAggregateQuirks, DistinctCountOfCharHashesEveryWidthByte) {
    CharSource text(5, {"ab", "ab", std::string("ab\0z", 4)});
    EXPECT_EQ(aggregate(qmo_seq_agg_approxdc, text).values, std::vector<double>{2}) << "bytes after the NUL count";
}

// ---- protocol ------------------------------------------------------------------------------

TEST(ScalarAggregateProtocol, ChecksComeFirstErrorsPassThrough) {
    BindingChecks on(1);
    Source<t_int4> i4({1});
    Source<t_int8> i8({1});
    i8.it.bound = 1;
    for (auto make : std::initializer_list<std::function<int(Iter *)>>{
             [&](Iter *o) { return qmo_seq_agg_sum_int4(o, &i8.it); },
             [&](Iter *o) { return qmo_seq_cov_int4(o, &i4.it, &i8.it); },
             [&](Iter *o) { return qmo_seq_agg_approxdc_hash(o, &i4.it); }})
        expect_refused(QMO_SEQ_TYPE_MISMATCH, make, {&i4.it});
    expect_refused(QMO_SEQ_ALREADY_BOUND, [&](Iter *o) { return qmo_seq_wavg_int8(o, &i8.it, &i8.it); }, {});
    expect_refused(QMO_SEQ_ALREADY_BOUND, [&](Iter *o) { return qmo_seq_agg_approxdc(o, &i8.it); }, {});
    Iter agg;
    ASSERT_EQ(qmo_seq_corr_int4(&agg, &i4.it, &i4.it), 0);
    EXPECT_EQ(i4.it.bound, 1);
    EXPECT_TRUE(agg.reset == qmo_seq_reset_binary_iterator && agg.merge == qmo_seq_corr_int4_merge);

    Source<t_int4> late({1, 2, 3}, {}, {1}), early({1, 2, 3}), y({1, 2, 3}), dc({1});
    late.fail_with = QMO_SEQ_NULL_VALUE, late.fail_from = 3;
    early.fail_with = dc.fail_with = 4242, dc.fail_from = 2;
    EXPECT_EQ(aggregate(qmo_seq_agg_sum_int4, late).status, QMO_SEQ_NULL_VALUE) << "after two elements";
    EXPECT_EQ(aggregate(qmo_seq_cov_int4, y, early).status, 4242) << "the second operand's error too";
    EXPECT_EQ(aggregate(qmo_seq_agg_approxdc, dc).status, 4242);
}

// ---- counts ------------------------------------------------------------------------------

namespace {

// A stand-in hash aggregate output whose pull publishes a table of `groups`.
struct HashOutput {
    Iter it{};
    qmo::hash::Table table{};
    qmo::hash::Shared shared{};
    int status = QMO_SEQ_OK;

    explicit HashOutput(uint64_t groups) {
        table.entry_count = groups;
        it.reset = qmo_seq_hash_agg_reset;
        it.next = [](Iter *r) {
            auto *self = reinterpret_cast<HashOutput *>(static_cast<uintptr_t>(r->state[QMO_SEQ_STATE_WORDS - 1]));
            self->shared.table = &self->table;
            r->state[qmo::hash::kCursorBucket] = 3;
            r->state[qmo::hash::kCursorEntry] = 0x40;
            r->pos = r->tile_count = 1;
            return self->status;
        };
        it.state[qmo::hash::kBucketCount] = 7;
        it.state[qmo::hash::kShared] = reinterpret_cast<uintptr_t>(&shared);
        it.state[QMO_SEQ_STATE_WORDS - 1] = reinterpret_cast<uintptr_t>(this);
    }
};

double count(Unary make, Iter *operand, bool mergeable = true) {
    Iter agg;
    EXPECT_EQ(make(&agg, operand), 0);
    EXPECT_EQ(agg.merge, mergeable ? qmo_seq_count_merge : nullptr);
    const Result r = pull(&agg);
    EXPECT_EQ(r.status, 0);
    return r.values.at(0);
}

}  // namespace

TEST(Counts, PullEveryTileStopAtAnyStatusAndBindNothing) {
    const std::vector<int16_t> values(300, 7);
    Source<t_int2> a(values, {0, 129, 299}, {128, 50}), b(values, {0, 129, 299}, {128, 50});
    Source<t_int4> broken({1, 2, 3, 4}, {}, {1});
    broken.fail_with = 4242, broken.fail_from = 3;
    CharSource text(4, {"a", "b"});
    text.it.bound = 1;
    BindingChecks on(1);
    EXPECT_EQ(count(qmo_seq_agg_count, &a.it), 300);
    EXPECT_EQ(count(qmo_seq_agg_count_not_null, &b.it), 297);
    EXPECT_EQ(count(qmo_seq_agg_count, &broken.it), 2) << "what was counted stands";
    EXPECT_EQ(count(qmo_seq_agg_count, &text.it), 2) << "neither type-checked nor bound";
    EXPECT_EQ(a.it.bound + b.it.bound + broken.it.bound, 0);
}

// Array sources are counted from their length without a pull, hash
// aggregate outputs from their table, which a reset keeps.
TEST(Counts, ArraySourcesAndHashOutputsAreCountedFromTheirRecords) {
    const std::vector<int8_t> values(1000, 1);
    std::vector<uint64_t> nulls(16, 0);
    nulls[0] = 0b1011;
    nulls[15] = ~uint64_t{0} << 40;  // beyond the array
    Iter src;
    qmo_seq_unget_nullable_int1(&src, values.data(), values.size(), nulls.data());
    EXPECT_EQ(count(qmo_seq_agg_count, &src, false), 1000);
    EXPECT_EQ(count(qmo_seq_agg_count_not_null, &src, false), 997);
    EXPECT_EQ(src.pos, 0u);
    qmo_seq_unget_int1(&src, values.data(), 0);
    EXPECT_EQ(count(qmo_seq_agg_count, &src, false), 0);
    for (auto [status, groups] : {std::pair{0, 5}, std::pair{+QMO_SEQ_END, 5}, std::pair{+QMO_SEQ_NO_MEMORY, 0}}) {
        HashOutput out(5);
        out.status = status;
        EXPECT_EQ(count(qmo_seq_agg_count, &out.it, false), groups) << "pull status " << status;
        EXPECT_EQ(qmo_seq_is_hash_aggreate(&out.it), 1);
        ASSERT_EQ(out.it.reset(&out.it), 0);
        EXPECT_EQ(out.it.state[qmo::hash::kCursorBucket] | out.it.state[qmo::hash::kCursorEntry], 0u);
        EXPECT_TRUE(out.it.state[qmo::hash::kBucketCount] == 7 && qmo::hash::table_of(&out.it) == &out.table);
        EXPECT_EQ(out.it.pos + out.it.tile_count, 0u);
    }
    EXPECT_EQ(qmo_seq_is_hash_aggreate(&src), 0);
}

// ---- the distinct-count sketch ---------------------------------------------------

TEST(Murmur3, PublishedVectors) {
    for (const auto &[data, seed, hash] : std::vector<std::tuple<std::string, uint32_t, uint32_t>>{
             {"", 0, 0},
             {"", 1, 0x514E28B7},
             {"", 0xFFFFFFFF, 0x81F16F39},
             {std::string(4, '\0'), 0, 0x2362F9DE},
             {"test", 0, 0xBA6BD213},
             {"abc", 0, 0xB3DD93FA},
             {"Hello, world!", 1234, 0xFAF6CDB3},
             {"Hello, world!", 0x9747B28C, 0x24884CBA},
             {"The quick brown fox jumps over the lazy dog", 0, 0x2E4FF723}})
        EXPECT_EQ(qmo::murmur_hash3_32(data.data(), data.size(), seed), hash) << '"' << data << "\" seed " << seed;
}

// Index: the top 7 bits. Rank: 1 + trailing zeros of the whole hash, at most 26.
TEST(DistinctRegisters, IndexAndRankOfAHash) {
    for (const auto &[hash, index, rank] : std::vector<std::tuple<uint32_t, unsigned, unsigned>>{
             {0x00000001, 0, 1}, {0x00000008, 0, 4}, {0xFE000001, 127, 1}, {0x01000000, 0, 25},
             {0x02000000, 1, 26}, {0x80000000, 64, 26}, {0x00000000, 0, 26}}) {
        uint8_t r[128] = {};
        qmo::distinct_add(r, hash);
        qmo::distinct_add(r, (index << 25) | 1);  // a lower rank never lowers it
        EXPECT_EQ(r[index], rank) << std::hex << hash;
        EXPECT_EQ(std::accumulate(r, r + 128, 0u), rank) << "one register changes";
    }
}

TEST(DistinctRegisters, EstimatorBranches) {
    // `fill` everywhere, except `low` registers at fill - 1 and one at 3 if set_at is given.
    auto estimate = [](uint8_t fill, int set_at = -1, int low = 0) {
        uint8_t r[128];
        std::fill(r, r + 128, fill);
        std::fill(r, r + low, fill - 1);
        if (set_at >= 0) r[set_at] = 3;
        return qmo::approximate_distinct_count(r);
    };
    auto corrected = [](double raw) { return static_cast<int64_t>(-4294967295.0 * std::log(1 - raw / 4294967295.0)); };
    EXPECT_EQ(estimate(0), 0) << "128 ln(128 / 128)";
    EXPECT_EQ(estimate(0, 5), static_cast<int64_t>(128 * std::log(128.0 / 127))) << "linear counting";
    EXPECT_EQ(estimate(1), 183) << "no zero register: the raw 11718.99 / 64 stands at or below 320";
    EXPECT_EQ(estimate(2), 366);
    EXPECT_EQ(estimate(21), corrected(11718.991761634348 * (1 << 21) / 128)) << "above 143165576.5";
    // Close to 2^32 the correction is steep: 2^32 - 1 and 2^32 give results hundreds apart.
    double z = 0;
    for (int j = 0; j < 128; ++j) z += 1.0 / std::pow(2.0, j < 56 ? 25 : 26);
    EXPECT_EQ(estimate(26, -1, 56), corrected(11718.991761634348 / z));
    EXPECT_EQ(estimate(26), INT64_MIN) << "raw beyond 2^32 - 1: the log of a negative";
}
