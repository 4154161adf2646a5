// Scalar aggregates: every family over its member types, the quirks that are
// part of the contract, the counts, and partitioned evaluation (prepare each
// partition, merge the partial results, next once).
#include "support.hpp"

#include "aggregate/hash_layout.hpp"

#include <cmath>
#include <deque>
#include <functional>

using namespace test;

namespace {

using Make = int (*)(Iter *, Iter *);
using Make2 = int (*)(Iter *, Iter *, Iter *);
constexpr int kDouble = QMO_SEQ_TYPE_DOUBLE;
constexpr int kBroken = 4242;

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
Result run(Make make, Sources &...in) {
    Iter agg;
    EXPECT_EQ(make(&agg, &in.it...), 0);
    return pull(&agg);
}

void expect_near(double got, double want) {
    if (std::isnan(want)) EXPECT_TRUE(std::isnan(got));
    else EXPECT_DOUBLE_EQ(got, want);
}

// Every mergeable family over x = 2, 1, 8, 2 and, for pairs, y = 1, 2, 3, 4:
// s1 13, s2 73, sy 10, syy 30, sxy 36.
template <class Tag>
struct Row {
    const char *name;
    std::function<int(Iter *, Iter *, Iter *)> make;
    int type;
    double expected;
};

template <class Tag>
std::vector<Row<Tag>> rows() {
    using A = AggApi<Tag>;
    auto one = [](Make m) { return [m](Iter *r, Iter *x, Iter *) { return m(r, x); }; };
    auto two = [](Make2 m) { return [m](Iter *r, Iter *x, Iter *y) { return m(r, x, y); }; };
    const bool dt = std::is_same_v<Tag, t_datetime>;
    const int in = Api<Tag>::code_;
    const int wide = is_float_v<Tag> ? kDouble
                     : dt             ? QMO_SEQ_TYPE_DATETIME
                     : is_signed_v<Tag> ? QMO_SEQ_TYPE_INT8 : QMO_SEQ_TYPE_UINT8;
    return {
        {"sum", one(A::sum), wide, 13},
        {"prd", one(A::prd), wide, 32},
        {"min", one(A::min), in, 1},
        {"max", one(A::max), in, 8},
        {"avg", one(A::avg), dt ? QMO_SEQ_TYPE_DATETIME : kDouble, dt ? 3 : 3.25},
        {"var", one(A::var), kDouble, (73 - 169.0 / 4) / 4},
        {"var_samp", one(A::var_samp), kDouble, (73 - 169.0 / 3) / 3},
        {"dev", one(A::dev), kDouble, std::sqrt((73 - 169.0 / 4) / 4)},
        {"dev_samp", one(A::dev_samp), kDouble, std::sqrt((73 - 169.0 / 3) / 3)},
        {"cov", two(A::cov), kDouble, (36 - 10.0 * 13 / 4) / 4},
        {"corr", two(A::corr), kDouble, (36 - 10.0 * 13 / 4) / std::sqrt((30 - 25.0) * (73 - 169.0 / 4))},
        {"wsum", two(A::wsum), kDouble, 36},
        {"wavg", two(A::wavg), kDouble, 36.0 / 13},
        {"count_not_null", one(qmo_seq_agg_count_not_null), QMO_SEQ_TYPE_UINT8, 4},
        {"approxdc", one(qmo_seq_agg_approxdc), QMO_SEQ_TYPE_UINT4, 3},
    };
}

// Fails with `status` on pull number `at` (from 1), one element per tile before.
template <class Tag>
struct Failing : Source<Tag> {
    int at, status;
    Failing(const std::vector<V<Tag>> &values, int fail_at, int fail_status)
        : Source<Tag>(values, {}, {1}), at(fail_at), status(fail_status) {
        this->it.next = &Failing::next;
    }
    static int next(Iter *it) {
        auto *s = static_cast<Failing *>(Script::self(it));
        if (s->pulls + 1 >= s->at) return ++s->pulls, s->status;
        return Script::next(it);
    }
};

}  // namespace

template <class Tag>
class ScalarAggregates : public ::testing::Test {};
TYPED_TEST_SUITE(ScalarAggregates, NumericTypes);

// The same results from one dense tile and from short tiles with nulls on
// either side; for pairs, from tiles where a pair is dropped when either
// element is null.
TYPED_TEST(ScalarAggregates, FamilyTable) {
    using T = V<TypeParam>;
    for (const Row<TypeParam> &row : rows<TypeParam>()) {
        SCOPED_TRACE(row.name);
        Source<TypeParam> x(std::vector<T>{2, 1, 8, 2}), y(std::vector<T>{1, 2, 3, 4});
        Source<TypeParam> gx(std::vector<T>{2, 99, 1, 8, 99, 99, 2}, {1, 4, 5}, {3, 1, 2});
        Source<TypeParam> gy(std::vector<T>{1, 5, 2, 3, 6, 6, 4}, {1, 5}, {3, 1, 2});
        for (auto [a, b] : {std::pair{&x, &y}, std::pair{&gx, &gy}}) {
            Iter agg;
            ASSERT_EQ(row.make(&agg, &a->it, &b->it), 0);
            EXPECT_EQ(agg.elem_type, row.type);
            const Result r = pull(&agg);
            ASSERT_EQ(r.values.size(), 1u);
            expect_near(r.values[0], row.expected);
        }
    }
}

TYPED_TEST(ScalarAggregates, EmptyAndAllNullOperandsDeliverNothingButCounts) {
    using T = V<TypeParam>;
    for (const Row<TypeParam> &row : rows<TypeParam>()) {
        SCOPED_TRACE(row.name);
        Source<TypeParam> empty(std::vector<T>{}), nulls(std::vector<T>{1, 2}, {0, 1}), y(std::vector<T>{1, 2});
        for (Source<TypeParam> *in : {&empty, &nulls}) {
            Iter agg;
            ASSERT_EQ(row.make(&agg, &in->it, &y.it), 0);
            if (std::string(row.name) == "count_not_null" || std::string(row.name) == "approxdc")
                EXPECT_EQ(pull(&agg).values, std::vector<double>{0});
            else
                EXPECT_EQ(pull(&agg).status, QMO_SEQ_END);
        }
    }
}

// Partitions 2 1 | - | 8 (null) 2 merged into an empty first partition give
// the single-pass result: an empty partition neither zeroes a product nor
// pulls a minimum down to 0, and merging into one still delivers.
TYPED_TEST(ScalarAggregates, PreparedPartitionsMergeToTheSinglePassResult) {
    using T = V<TypeParam>;
    const std::vector<std::vector<T>> xs = {{}, {2, 1}, {}, {8, 99, 2}}, ys = {{}, {1, 2}, {}, {3, 7, 4}};
    for (const Row<TypeParam> &row : rows<TypeParam>()) {
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
        expect_near(r.values[0], row.expected);
    }
}

// Element 0 of the first tile seeds the accumulators, null or not: dropped at
// the first counted element of a tile with nulls, kept when the whole first
// tile is null and a later tile has none.
TYPED_TEST(ScalarAggregates, FirstElementSeedsTheAccumulators) {
    using T = V<TypeParam>;
    struct Case {
        std::vector<size_t> nulls;
        double sum, min;
    };
    for (const Case &c : {Case{{0, 1}, 12, 0}, Case{{0}, 62, 5}, Case{{0, 1, 3}, 5, 5}}) {
        Source<TypeParam> a(std::vector<T>{0, 50, 5, 7}, c.nulls, {2}), b(std::vector<T>{0, 50, 5, 7}, c.nulls, {2});
        EXPECT_EQ(run(AggApi<TypeParam>::sum, a).values, std::vector<double>{c.sum}) << c.nulls.size() << " nulls";
        EXPECT_EQ(run(AggApi<TypeParam>::min, b).values, std::vector<double>{c.min}) << c.nulls.size() << " nulls";
    }
}

// Formed in 64 bits, never in the element's width, wrapping modulo 2^64.
TYPED_TEST(ScalarAggregates, IntegerSumsAndProductsWrapIn64Bits) {
    using T = V<TypeParam>;
    if constexpr (!is_float_v<TypeParam>) {
        const T high = std::numeric_limits<T>::max();
        const auto wide = static_cast<uint64_t>(high);
        Source<TypeParam> a(std::vector<T>{high, high}), b(std::vector<T>{high, high});
        Iter sum, prd;
        ASSERT_EQ(AggApi<TypeParam>::sum(&sum, &a.it) | AggApi<TypeParam>::prd(&prd, &b.it), 0);
        ASSERT_EQ(sum.next(&sum) | prd.next(&prd), 0);
        EXPECT_EQ(sum.values.u8[0], wide * 2);
        EXPECT_EQ(prd.values.u8[0], wide * wide);
    }
}

TYPED_TEST(ScalarAggregates, MinMaxDeliversTwoElementsAndIsNotMergeable) {
    using T = V<TypeParam>;
    Source<TypeParam> in(std::vector<T>{5, 3, 9, 4});
    Iter agg;
    ASSERT_EQ(AggApi<TypeParam>::min_max(&agg, &in.it), 0);
    EXPECT_EQ(agg.prepare, nullptr);
    EXPECT_EQ(agg.merge, nullptr);
    // Datetime extremes are delivered as doubles.
    EXPECT_EQ(agg.elem_type, (std::is_same_v<TypeParam, t_datetime> ? kDouble : Api<TypeParam>::code_));
    EXPECT_EQ(pull(&agg).values, (std::vector<double>{3, 9}));
}

// ---- the quirks, one row each ----------------------------------------------------------

TEST(ScalarAggregateQuirks, VarianceFormulasAsTheyStand) {
    auto var = [](Make make, std::vector<double> values) {
        Source<t_double> in(values);
        return run(make, in).values.at(0);
    };
    EXPECT_EQ(var(qmo_seq_agg_var_samp_double, {1, 2, 3}), -2.0) << "(14 - 36 / 2) / 2";
    EXPECT_TRUE(std::isnan(var(qmo_seq_agg_dev_samp_double, {1, 2, 3})));
    EXPECT_EQ(var(qmo_seq_agg_var_samp_double, {42.5}), 0.0);
    EXPECT_EQ(var(qmo_seq_agg_dev_samp_double, {42.5}), 0.0);
    // Plain sums of squares: at an offset of 1e9 the spread is lost, 0 not 2/3.
    EXPECT_EQ(var(qmo_seq_agg_var_double, {1e9 + 1, 1e9 + 2, 1e9 + 3}), 0.0);
    EXPECT_DOUBLE_EQ(var(qmo_seq_agg_var_double, {1, 2, 3}), 2.0 / 3);
}

TEST(ScalarAggregateQuirks, WeightedAverageWrapsIntegerProductsButWeightedSumDoesNot) {
    Source<t_int4> w({65536, 1}), v({65536, 3}), w2({65536, 1}), v2({65536, 3});  // 2^32 is 0 in 32 bits
    EXPECT_EQ(run(qmo_seq_wavg_int4, w, v).values, std::vector<double>{3.0 / 65537});
    EXPECT_EQ(run(qmo_seq_wsum_int4, w2, v2).values, std::vector<double>{4294967299.0});
    Source<t_uint2> uw({65535}), uv({65535});
    EXPECT_EQ(run(qmo_seq_wavg_uint2, uw, uv).values, std::vector<double>{65535}) << "unsigned 32-bit: fits";
}

TEST(ScalarAggregateQuirks, PairsAdvanceInStepAndTheShorterTileRules) {
    Source<t_int4> x({1, 2, 3, 4}, {}, {2}), y({1, 2, 99, 3, 4, 99}, {}, {3});
    EXPECT_EQ(run(qmo_seq_wsum_int4, x, y).values, std::vector<double>{30}) << "the 99s are never paired";
}

// ---- protocol ------------------------------------------------------------------------------

TEST(ScalarAggregateProtocol, ChecksComeFirstAndWriteNothing) {
    BindingChecks on(1);
    Source<t_int4> i4({1});
    Source<t_int8> i8({1});
    i8.it.bound = 1;
    Iter agg;
    std::memset(&agg, 0xAB, sizeof agg);
    const Iter before = agg;
    EXPECT_EQ(qmo_seq_agg_sum_int4(&agg, &i8.it), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(qmo_seq_cov_int4(&agg, &i4.it, &i8.it), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(qmo_seq_agg_approxdc_hash(&agg, &i4.it), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(qmo_seq_wavg_int8(&agg, &i8.it, &i8.it), QMO_SEQ_ALREADY_BOUND);
    EXPECT_EQ(qmo_seq_agg_approxdc(&agg, &i8.it), QMO_SEQ_ALREADY_BOUND);
    EXPECT_EQ(std::memcmp(&agg, &before, sizeof agg), 0);
    EXPECT_EQ(i4.it.bound, 0);

    ASSERT_EQ(qmo_seq_corr_int4(&agg, &i4.it, &i4.it), 0);
    EXPECT_EQ(i4.it.bound, 1);
    EXPECT_EQ(agg.next, qmo_seq_corr_int4_next);
    EXPECT_EQ(agg.reset, qmo_seq_reset_binary_iterator);
    EXPECT_EQ(agg.merge, qmo_seq_corr_int4_merge);
}

TEST(ScalarAggregateProtocol, OperandErrorsPassThroughAndDeliverNothing) {
    Failing<t_int4> early({1, 2, 3}, 1, kBroken), late({1, 2, 3}, 3, QMO_SEQ_NULL_VALUE), dc({1}, 2, kBroken);
    Source<t_int4> y({1, 2, 3});
    EXPECT_EQ(run(qmo_seq_agg_sum_int4, late).status, QMO_SEQ_NULL_VALUE) << "after two elements";
    EXPECT_EQ(run(qmo_seq_cov_int4, y, early).status, kBroken) << "the second operand's error too";
    EXPECT_EQ(run(qmo_seq_agg_approxdc, dc).status, kBroken);
}

TEST(ScalarAggregateProtocol, PreparedResultIsHandedOutOnceAndNotRecomputed) {
    Source<t_double> in({1.5, 2.5});
    Iter agg;
    ASSERT_EQ(qmo_seq_agg_sum_double(&agg, &in.it), 0);
    ASSERT_EQ(qmo_seq_prepare_aggregate(&agg), 0);
    EXPECT_EQ(pull(&agg).values, std::vector<double>{4.0});
    EXPECT_EQ(in.pulls, 2);
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
        it.next = &HashOutput::next;
        it.state[qmo::hash::kBucketCount] = 7;
        it.state[qmo::hash::kShared] = reinterpret_cast<uintptr_t>(&shared);
        it.state[QMO_SEQ_STATE_WORDS - 1] = reinterpret_cast<uintptr_t>(this);
    }
    static int next(Iter *it) {
        auto *self = reinterpret_cast<HashOutput *>(static_cast<uintptr_t>(it->state[QMO_SEQ_STATE_WORDS - 1]));
        self->shared.table = &self->table;
        it->state[qmo::hash::kCursorBucket] = 3;
        it->state[qmo::hash::kCursorEntry] = 0x40;
        it->pos = it->tile_count = 1;
        return self->status;
    }
};

double count(Make make, Iter *operand, bool mergeable = true) {
    Iter agg;
    EXPECT_EQ(make(&agg, operand), 0);
    EXPECT_EQ(agg.merge, mergeable ? qmo_seq_count_merge : nullptr);
    const Result r = pull(&agg);
    EXPECT_EQ(r.status, 0);
    return r.values.at(0);
}

}  // namespace

TEST(Counts, PullEveryTileAndStopAtAnyStatus) {
    const std::vector<int16_t> values(300, 7);
    Source<t_int2> a(values, {0, 129, 299}, {128, 50}), b(values, {0, 129, 299}, {128, 50});
    EXPECT_EQ(count(qmo_seq_agg_count, &a.it), 300);
    EXPECT_EQ(count(qmo_seq_agg_count_not_null, &b.it), 297);
    Failing<t_int4> broken({1, 2, 3, 4}, 3, kBroken);
    EXPECT_EQ(count(qmo_seq_agg_count, &broken.it), 2) << "what was counted stands";
    BindingChecks on(1);
    CharSource text(4, {"a", "b"});
    text.it.bound = 1;
    EXPECT_EQ(count(qmo_seq_agg_count, &text.it), 2) << "neither type-checked nor bound";
}

TEST(Counts, ArraySourcesAreCountedFromTheirLengthWithoutAPull) {
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
}

TEST(Counts, HashAggregateOutputsGiveTheirNumberOfGroups) {
    for (auto [status, groups] : {std::pair{0, 5}, std::pair{QMO_SEQ_END + 0, 5}, std::pair{QMO_SEQ_NO_MEMORY + 0, 0}}) {
        HashOutput out(5);
        out.status = status;
        EXPECT_EQ(count(qmo_seq_agg_count, &out.it, false), groups) << "pull status " << status;
    }
}

TEST(HashOutputs, ResetRewindsTheCursorAndKeepsTheTable) {
    HashOutput out(5);
    ASSERT_EQ(out.it.next(&out.it), 0);
    EXPECT_EQ(qmo_seq_is_hash_aggreate(&out.it), 1);
    ASSERT_EQ(out.it.reset(&out.it), 0);
    EXPECT_EQ(out.it.state[qmo::hash::kCursorBucket] | out.it.state[qmo::hash::kCursorEntry], 0u);
    EXPECT_EQ(out.it.state[qmo::hash::kBucketCount], 7u);
    EXPECT_EQ(qmo::hash::table_of(&out.it), &out.table);
    EXPECT_EQ(out.it.pos + out.it.tile_count, 0u);
    Source<t_int4> other({1});
    EXPECT_EQ(qmo_seq_is_hash_aggreate(&other.it), 0);
}
