// Scalar aggregates: every family over its member types, the quirks that are
// part of the contract, the counts, and partitioned evaluation (prepare each
// partition, merge the partial results, next once).
#include "support.hpp"

#include "aggregate/hash_layout.hpp"

#include <cmath>
#include <map>
#include <memory>

using namespace test;

namespace {

using Make = int (*)(Iter *, Iter *);
using Make2 = int (*)(Iter *, Iter *, Iter *);
using Merge = int (*)(Iter *, Iter *);

constexpr int kDouble = QMO_SEQ_TYPE_DOUBLE;

// Element i of a record's tile as a double, whatever its numeric type.
double element(const Iter *it, unsigned i) {
    switch (it->elem_type) {
    case QMO_SEQ_TYPE_INT1: return it->values.i1[i];
    case QMO_SEQ_TYPE_INT2: return it->values.i2[i];
    case QMO_SEQ_TYPE_INT4: return it->values.i4[i];
    case QMO_SEQ_TYPE_INT8: return static_cast<double>(it->values.i8[i]);
    case QMO_SEQ_TYPE_UINT1: return it->values.u1[i];
    case QMO_SEQ_TYPE_UINT2: return it->values.u2[i];
    case QMO_SEQ_TYPE_UINT4: return it->values.u4[i];
    case QMO_SEQ_TYPE_FLOAT: return it->values.f4[i];
    case QMO_SEQ_TYPE_DOUBLE: return it->values.f8[i];
    default: return static_cast<double>(it->values.u8[i]);  // uint8, datetime
    }
}

// Pulls an aggregate for its result: the elements, then the 11 that follows.
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

// NaN-aware equality of result rows.
void expect_same(const std::vector<double> &got, const std::vector<double> &want) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) {
        if (std::isnan(want[i])) EXPECT_TRUE(std::isnan(got[i])) << i;
        else EXPECT_DOUBLE_EQ(got[i], want[i]) << i;
    }
}

// One-operand families of a type; `type` is the result type code.
struct Family {
    const char *name;
    Make make;
    Merge merge;
    int type;
};

template <class Tag>
int wide_code() {
    if (is_float_v<Tag>) return kDouble;
    if (std::is_same_v<Tag, t_datetime>) return QMO_SEQ_TYPE_DATETIME;
    return is_signed_v<Tag> ? QMO_SEQ_TYPE_INT8 : QMO_SEQ_TYPE_UINT8;
}

template <class Tag>
std::vector<Family> families() {
    using A = AggApi<Tag>;
    const int in = Api<Tag>::code_;
    const int avg = std::is_same_v<Tag, t_datetime> ? QMO_SEQ_TYPE_DATETIME : kDouble;
    return {
        {"sum", A::sum, A::sum_merge, wide_code<Tag>()},
        {"prd", A::prd, A::prd_merge, wide_code<Tag>()},
        {"min", A::min, A::min_merge, in},
        {"max", A::max, A::max_merge, in},
        {"avg", A::avg, A::avg_merge, avg},
        {"var", A::var, A::var_merge, kDouble},
        {"var_samp", A::var_samp, A::var_samp_merge, kDouble},
        {"dev", A::dev, A::dev_merge, kDouble},
        {"dev_samp", A::dev_samp, A::dev_samp_merge, kDouble},
    };
}

struct PairFamily {
    const char *name;
    Make2 make;
    Merge merge;
};

template <class Tag>
std::vector<PairFamily> pair_families() {
    using A = AggApi<Tag>;
    return {{"cov", A::cov, A::cov_merge},
            {"corr", A::corr, A::corr_merge},
            {"wsum", A::wsum, A::wsum_merge},
            {"wavg", A::wavg, A::wavg_merge}};
}

template <class Tag>
Result run(Make make, Source<Tag> &in) {
    Iter agg;
    EXPECT_EQ(make(&agg, &in.it), 0);
    return pull(&agg);
}

template <class Tag>
Result run(Make2 make, Source<Tag> &x, Source<Tag> &y) {
    Iter agg;
    EXPECT_EQ(make(&agg, &x.it, &y.it), 0);
    return pull(&agg);
}

// Fails with `status` on pull number `at` (from 1); the script before it.
template <class Tag>
struct Failing : Source<Tag> {
    int at;
    int status;
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

constexpr int kBroken = 4242;

}  // namespace

template <class Tag>
class ScalarAggregates : public ::testing::Test {};
TYPED_TEST_SUITE(ScalarAggregates, NumericTypes);

// ---- every family over every type ------------------------------------------------

// 2, 1, 8, 2: s1 = 13, s2 = 73, n = 4. The same results come from one dense
// tile and from short tiles with nulls between the values.
TYPED_TEST(ScalarAggregates, FamilyTable) {
    using T = V<TypeParam>;
    const bool dt = std::is_same_v<TypeParam, t_datetime>;
    const std::map<std::string, double> expected = {
        {"sum", 13},
        {"prd", 32},
        {"min", 1},
        {"max", 8},
        {"avg", dt ? 3 : 3.25},
        {"var", (73 - 169.0 / 4) / 4},
        {"var_samp", (73 - 169.0 / 3) / 3},
        {"dev", std::sqrt((73 - 169.0 / 4) / 4)},
        {"dev_samp", std::sqrt((73 - 169.0 / 3) / 3)},
    };
    for (const Family &f : families<TypeParam>()) {
        SCOPED_TRACE(f.name);
        Source<TypeParam> dense(std::vector<T>{2, 1, 8, 2});
        Source<TypeParam> gappy(std::vector<T>{2, 99, 1, 8, 99, 99, 2}, {1, 4, 5}, {3, 1, 2});
        for (Source<TypeParam> *in : {&dense, &gappy}) {
            Iter agg;
            ASSERT_EQ(f.make(&agg, &in->it), 0);
            EXPECT_EQ(agg.elem_type, f.type);
            const Result r = pull(&agg);
            ASSERT_EQ(r.status, 0);
            expect_same(r.values, {expected.at(f.name)});
            EXPECT_EQ(agg.state[2], 4u) << "count word";
        }
    }
}

// x 1, 2, 3, 4 and y 2, 4, 5, 9: sx 10, sy 20, sxx 30, syy 126, sxy 61.
TYPED_TEST(ScalarAggregates, PairFamilyTable) {
    using T = V<TypeParam>;
    const std::map<std::string, double> expected = {
        {"cov", (61 - 20.0 * 10 / 4) / 4},
        {"corr", (61 - 20.0 * 10 / 4) / std::sqrt((126 - 400.0 / 4) * (30 - 100.0 / 4))},
        {"wsum", 61},
        {"wavg", 6.1},
    };
    for (const PairFamily &f : pair_families<TypeParam>()) {
        SCOPED_TRACE(f.name);
        Source<TypeParam> x(std::vector<T>{1, 2, 3, 4}), y(std::vector<T>{2, 4, 5, 9});
        expect_same(run(f.make, x, y).values, {expected.at(f.name)});
        // A null on either side drops the pair; the shorter tile rules and the
        // rest of the longer one (the 99) is not paired.
        Source<TypeParam> gx(std::vector<T>{1, 7, 2, 3, 4, 7}, {1}, {2, 4});
        Source<TypeParam> gy(std::vector<T>{2, 7, 99, 4, 5, 9, 7}, {6}, {3, 4});
        Iter agg;
        ASSERT_EQ(f.make(&agg, &gx.it, &gy.it), 0);
        EXPECT_EQ(agg.elem_type, kDouble);
        const Result r = pull(&agg);
        expect_same(r.values, {expected.at(f.name)});
        EXPECT_EQ(agg.state[5], 4u) << "count word";
    }
}

TYPED_TEST(ScalarAggregates, MinMaxDeliversTwoElements) {
    using T = V<TypeParam>;
    Source<TypeParam> in(std::vector<T>{5, 3, 9, 4});
    Iter agg;
    ASSERT_EQ(AggApi<TypeParam>::min_max(&agg, &in.it), 0);
    EXPECT_EQ(agg.prepare, nullptr);
    EXPECT_EQ(agg.merge, nullptr);
    EXPECT_EQ(agg.elem_type, (std::is_same_v<TypeParam, t_datetime> ? kDouble : Api<TypeParam>::code_));
    const Result r = pull(&agg);
    EXPECT_EQ(r.values, (std::vector<double>{3, 9}));
    EXPECT_EQ(agg.pos, 2u);
}

TYPED_TEST(ScalarAggregates, EmptyAndAllNullOperandsDeliverNothing) {
    using T = V<TypeParam>;
    auto check = [](auto make_one) {
        Source<TypeParam> empty(std::vector<T>{});
        Source<TypeParam> nulls(std::vector<T>{1, 2, 3}, {0, 1, 2});
        for (Source<TypeParam> *in : {&empty, &nulls}) {
            Iter agg;
            ASSERT_EQ(make_one(&agg, in), 0);
            EXPECT_EQ(agg.next(&agg), QMO_SEQ_END);
            EXPECT_EQ(agg.tile_count, 0);
            EXPECT_EQ(agg.next(&agg), QMO_SEQ_END);
        }
    };
    for (const Family &f : families<TypeParam>()) {
        SCOPED_TRACE(f.name);
        check([&](Iter *agg, Source<TypeParam> *in) { return f.make(agg, &in->it); });
    }
    check([](Iter *agg, Source<TypeParam> *in) { return AggApi<TypeParam>::min_max(agg, &in->it); });
    for (const PairFamily &f : pair_families<TypeParam>()) {
        SCOPED_TRACE(f.name);
        Source<TypeParam> y(std::vector<T>{1, 2, 3});
        check([&](Iter *agg, Source<TypeParam> *in) { return f.make(agg, &in->it, &y.it); });
    }
}

// Element 0 of the first tile seeds the accumulators, null or not: dropped at
// the first counted element of a tile with nulls, kept when the whole first
// tile is null and a later tile has none.
TYPED_TEST(ScalarAggregates, FirstElementSeedsTheAccumulators) {
    using A = AggApi<TypeParam>;
    using T = V<TypeParam>;
    struct Row {
        const char *case_name;
        std::vector<T> values;
        std::vector<size_t> nulls;
        double sum, min;
    };
    const std::vector<Row> rows = {
        {"first tile all null, next dense: seed kept", {0, 50, 5, 7}, {0, 1}, 12, 0},
        {"first tile part null: seed dropped", {0, 50, 5, 7}, {0}, 62, 5},
        {"nulls in every tile: seed dropped", {0, 50, 5, 7}, {0, 1, 3}, 5, 5},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.case_name);
        Source<TypeParam> a(row.values, row.nulls, {2}), b(row.values, row.nulls, {2});
        expect_same(run(A::sum, a).values, {row.sum});
        expect_same(run(A::min, b).values, {row.min});
    }
}

// Formed in 64 bits, never in the element's width; wrapping modulo 2^64.
TYPED_TEST(ScalarAggregates, IntegerSumsAndProductsWrapIn64Bits) {
    using A = AggApi<TypeParam>;
    using T = V<TypeParam>;
    if constexpr (!is_float_v<TypeParam>) {
        const T high = std::numeric_limits<T>::max();
        const auto wide = static_cast<uint64_t>(high);
        Source<TypeParam> a(std::vector<T>{high, high}), b(std::vector<T>{high, high});
        Iter sum, prd;
        ASSERT_EQ(A::sum(&sum, &a.it), 0);
        ASSERT_EQ(A::prd(&prd, &b.it), 0);
        ASSERT_EQ(sum.next(&sum), 0);
        ASSERT_EQ(prd.next(&prd), 0);
        EXPECT_EQ(sum.values.u8[0], wide * 2);
        EXPECT_EQ(prd.values.u8[0], wide * wide);
    }
}

TEST(ScalarAggregateQuirks, SampleVarianceDividesByNMinusOneTwice) {
    Source<t_int4> in({1, 2, 3});
    EXPECT_EQ(run(qmo_seq_agg_var_samp_int4, in).values, std::vector<double>{-2.0});
    Source<t_int4> in2({1, 2, 3});
    EXPECT_TRUE(std::isnan(run(qmo_seq_agg_dev_samp_int4, in2).values.at(0)));
    for (Make make : {qmo_seq_agg_var_samp_double, qmo_seq_agg_dev_samp_double, qmo_seq_agg_var_double}) {
        Source<t_double> one({42.5});
        EXPECT_EQ(run(make, one).values, std::vector<double>{0.0}) << "a single element";
    }
}

// Sum of squares minus squared sum: at an offset of 1e9 the squares carry no
// fraction of the spread, and the variance of 1e9 + 1..3 comes out 0, not 2/3.
TEST(ScalarAggregateQuirks, VarianceUsesPlainSumsOfSquares) {
    Source<t_double> d({1e9 + 1, 1e9 + 2, 1e9 + 3});
    EXPECT_EQ(run(qmo_seq_agg_var_double, d).values, std::vector<double>{0.0});
    Source<t_int8> i({1000000001, 1000000002, 1000000003});
    EXPECT_EQ(run(qmo_seq_agg_var_int8, i).values, std::vector<double>{0.0});
    Source<t_double> small({1, 2, 3});
    EXPECT_DOUBLE_EQ(run(qmo_seq_agg_var_double, small).values.at(0), 2.0 / 3);
}

TEST(ScalarAggregateQuirks, WeightedAverageWrapsIntegerProductsButWeightedSumDoesNot) {
    // 65536 * 65536 is 2^32: 0 in 32-bit arithmetic.
    Source<t_int4> w({65536, 1}), v({65536, 3});
    EXPECT_EQ(run(qmo_seq_wavg_int4, w, v).values, std::vector<double>{3.0 / 65537});
    Source<t_int4> w2({65536, 1}), v2({65536, 3});
    EXPECT_EQ(run(qmo_seq_wsum_int4, w2, v2).values, std::vector<double>{4294967299.0});
    // Unsigned 2-byte products are 32-bit unsigned: 65535^2 fits.
    Source<t_uint2> uw({65535}), uv({65535});
    EXPECT_EQ(run(qmo_seq_wavg_uint2, uw, uv).values, std::vector<double>{65535});
    Source<t_int1> bw({-128}), bv({-128});
    EXPECT_EQ(run(qmo_seq_wavg_int1, bw, bv).values, std::vector<double>{-128}) << "16384 / -128";
}

TEST(ScalarAggregateQuirks, MinMaxOfDatetimeIsDeliveredAsDoubles) {
    const uint64_t late = (uint64_t{1} << 53) + 1;  // rounds to 2^53 as a double
    Source<t_datetime> in({7, late, 5});
    Iter agg;
    ASSERT_EQ(qmo_seq_agg_min_max_datetime(&agg, &in.it), 0);
    EXPECT_EQ(agg.elem_type, kDouble);
    EXPECT_EQ(agg.elem_size, 8);
    ASSERT_EQ(agg.next(&agg), 0);
    EXPECT_EQ(agg.values.f8[0], 5.0);
    EXPECT_EQ(agg.values.f8[1], 9007199254740992.0);
}

TEST(ScalarAggregateQuirks, DatetimeAverageIsATruncatingIntegerMean) {
    const uint64_t big = ~uint64_t{0} - 1;  // near 2^64: a double sum would round
    Source<t_datetime> in({big, big - 3});
    Iter agg;
    ASSERT_EQ(qmo_seq_agg_avg_datetime(&agg, &in.it), 0);
    ASSERT_EQ(agg.next(&agg), 0);
    EXPECT_EQ(agg.values.dt[0], (big + (big - 3)) / 2) << "the sum wraps first";
}

// ---- failures and the constructor protocol ---------------------------------------------

TEST(ScalarAggregateErrors, OperandErrorsPassThroughAndDeliverNothing) {
    Failing<t_int4> early({1, 2, 3}, 1, kBroken), late({1, 2, 3}, 3, kBroken);
    for (Failing<t_int4> *in : {&early, &late}) {
        Iter agg;
        ASSERT_EQ(qmo_seq_agg_sum_int4(&agg, &in->it), 0);
        EXPECT_EQ(agg.next(&agg), kBroken);
        EXPECT_EQ(agg.pos, 0u);
        EXPECT_EQ(agg.state[2], 0u) << "no partial state is kept";
    }
    Failing<t_int4> x({1, 2, 3}, 2, QMO_SEQ_NULL_VALUE);
    Source<t_int4> y({1, 2, 3});
    Iter pair;
    ASSERT_EQ(qmo_seq_cov_int4(&pair, &x.it, &y.it), 0);
    EXPECT_EQ(pair.next(&pair), QMO_SEQ_NULL_VALUE);
    Source<t_int4> ok({1});
    Failing<t_int4> bad_y({1}, 1, kBroken);
    ASSERT_EQ(qmo_seq_corr_int4(&pair, &ok.it, &bad_y.it), 0);
    EXPECT_EQ(pair.next(&pair), kBroken) << "the second operand's error too";
}

TEST(ScalarAggregateErrors, TypeChecksComeFirstAndWriteNothing) {
    Source<t_int4> i4({1});
    Source<t_int8> i8({1});
    Iter agg;
    std::memset(&agg, 0xAB, sizeof agg);
    const Iter before = agg;
    BindingChecks on(1);
    i8.it.bound = 1;
    EXPECT_EQ(qmo_seq_agg_sum_int4(&agg, &i8.it), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(qmo_seq_agg_min_max_int4(&agg, &i8.it), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(qmo_seq_cov_int4(&agg, &i4.it, &i8.it), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(qmo_seq_agg_approxdc_hash(&agg, &i4.it), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(qmo_seq_wavg_int8(&agg, &i8.it, &i8.it), QMO_SEQ_ALREADY_BOUND);
    EXPECT_EQ(qmo_seq_agg_approxdc(&agg, &i8.it), QMO_SEQ_ALREADY_BOUND);
    EXPECT_EQ(std::memcmp(&agg, &before, sizeof agg), 0);
    EXPECT_EQ(i4.it.bound, 0);
}

TEST(ScalarAggregateErrors, ConstructorsFillTheRecordAndBindTheOperands) {
    Source<t_int2> x({1}), y({2});
    Iter agg;
    std::memset(&agg, 0xAB, sizeof agg);
    ASSERT_EQ(qmo_seq_agg_var_int2(&agg, &x.it), 0);
    EXPECT_EQ(agg.next, qmo_seq_agg_var_int2_next);
    EXPECT_EQ(agg.reset, qmo_seq_reset_unary_iterator);
    EXPECT_EQ(agg.prepare, qmo_seq_prepare_aggregate);
    EXPECT_EQ(agg.merge, qmo_seq_agg_var_int2_merge);
    EXPECT_EQ(agg.elem_size, 8);
    EXPECT_EQ(agg.tile_count + agg.cursor + agg.prepared + agg.bound, 0);
    EXPECT_EQ(agg.pos, 0u);
    EXPECT_EQ(agg.last_pos, ~uint64_t{0});
    EXPECT_EQ(agg.state[0] | agg.state[1] | agg.state[2], 0u);
    EXPECT_EQ(agg.operand1, &x.it);
    EXPECT_EQ(x.it.bound, 1);

    x.it.bound = 0;
    ASSERT_EQ(qmo_seq_wavg_int2(&agg, &x.it, &y.it), 0);
    EXPECT_EQ(agg.next, qmo_seq_wavg_int2_next);
    EXPECT_EQ(agg.reset, qmo_seq_reset_binary_iterator);
    EXPECT_EQ(agg.merge, qmo_seq_wavg_int2_merge);
    EXPECT_EQ(agg.operand2, &y.it);
    EXPECT_EQ(x.it.bound + y.it.bound, 2);

    CharSource text(3, {"abc"});
    ASSERT_EQ(qmo_seq_agg_approxdc(&agg, &text.it), 0) << "any element type";
    EXPECT_EQ(agg.elem_type, QMO_SEQ_TYPE_UINT4);
    EXPECT_EQ(agg.merge, qmo_seq_agg_approxdc_merge);
    Source<t_uint4> hashes({1});
    ASSERT_EQ(qmo_seq_agg_approxdc_hash(&agg, &hashes.it), 0);
    EXPECT_EQ(agg.prepare, nullptr);
    EXPECT_EQ(agg.merge, nullptr);
}

TYPED_TEST(ScalarAggregates, ResetRecomputesFromTheStart) {
    using T = V<TypeParam>;
    Source<TypeParam> in(std::vector<T>{3, 4});
    Iter agg;
    ASSERT_EQ(AggApi<TypeParam>::max(&agg, &in.it), 0);
    const Result first = pull(&agg);
    ASSERT_EQ(agg.reset(&agg), 0);
    EXPECT_EQ(in.resets, 1);
    EXPECT_EQ(pull(&agg).values, first.values);
}

// ---- partitioned evaluation ------------------------------------------------------------

namespace {

// The data 2, 1, 8, 2, 5, 3 in five partitions, the first and the third
// empty: prepare each, merge the rest into the first, and pull it once.
template <class Tag, class MakeFn>
Result partitioned(MakeFn make, Merge merge) {
    using T = V<Tag>;
    const std::vector<std::vector<T>> parts = {{}, {2, 1}, {}, {8, 99, 2}, {5, 3}};
    std::vector<std::unique_ptr<Source<Tag>>> sources;
    std::vector<std::unique_ptr<Source<Tag>>> seconds;
    std::vector<Iter> aggs(parts.size());
    for (size_t p = 0; p < parts.size(); ++p) {
        sources.push_back(std::make_unique<Source<Tag>>(parts[p], std::vector<size_t>(p == 3, 1)));
        seconds.push_back(std::make_unique<Source<Tag>>(std::vector<T>(parts[p].rbegin(), parts[p].rend())));
        EXPECT_EQ(make(&aggs[p], sources[p].get(), seconds[p].get()), 0);
        EXPECT_EQ(aggs[p].prepare, qmo_seq_prepare_aggregate);
        EXPECT_EQ(aggs[p].merge, merge);
        EXPECT_EQ(aggs[p].prepare(&aggs[p]), 0);
        EXPECT_EQ(aggs[p].prepared, 1);
    }
    for (size_t p = 1; p < parts.size(); ++p) EXPECT_EQ(merge(&aggs[0], &aggs[p]), 0);
    return pull(&aggs[0]);
}

template <class Tag, class MakeFn>
Result single_pass(MakeFn make) {
    using T = V<Tag>;
    Source<Tag> all(std::vector<T>{2, 1, 8, 99, 2, 5, 3}, {3});
    Source<Tag> second(std::vector<T>{1, 2, 2, 99, 8, 3, 5});
    Iter agg;
    EXPECT_EQ(make(&agg, &all, &second), 0);
    return pull(&agg);
}

}  // namespace

// Every mergeable family: partitions merged give the single-pass result. An
// empty partition neither zeroes a product nor pulls a minimum down to 0, and
// merging into it still delivers.
TYPED_TEST(ScalarAggregates, PreparedPartitionsMergeToTheSinglePassResult) {
    for (const Family &f : families<TypeParam>()) {
        SCOPED_TRACE(f.name);
        auto make = [&](Iter *agg, Source<TypeParam> *in, Source<TypeParam> *) { return f.make(agg, &in->it); };
        const Result merged = partitioned<TypeParam>(make, f.merge);
        ASSERT_EQ(merged.status, 0);
        expect_same(merged.values, single_pass<TypeParam>(make).values);
    }
    for (const PairFamily &f : pair_families<TypeParam>()) {
        SCOPED_TRACE(f.name);
        auto make = [&](Iter *agg, Source<TypeParam> *x, Source<TypeParam> *y) { return f.make(agg, &x->it, &y->it); };
        const Result merged = partitioned<TypeParam>(make, f.merge);
        ASSERT_EQ(merged.status, 0);
        expect_same(merged.values, single_pass<TypeParam>(make).values);
    }
}

TEST(PartitionedAggregates, CountsMergeByAddingResults) {
    struct Row {
        Make make;
        double expected;
    };
    for (const Row &row : {Row{qmo_seq_agg_count, 7}, Row{qmo_seq_agg_count_not_null, 6}}) {
        auto make = [&](Iter *agg, Source<t_int4> *in, Source<t_int4> *) { return row.make(agg, &in->it); };
        EXPECT_EQ((partitioned<t_int4>(make, qmo_seq_count_merge).values), std::vector<double>{row.expected});
        EXPECT_EQ((single_pass<t_int4>(make).values), std::vector<double>{row.expected});
    }
}

TEST(PartitionedAggregates, PreparedFlagHandsOutTheResultOnce) {
    Source<t_double> in({1.5, 2.5});
    Iter agg;
    ASSERT_EQ(qmo_seq_agg_sum_double(&agg, &in.it), 0);
    ASSERT_EQ(qmo_seq_prepare_aggregate(&agg), 0);
    EXPECT_EQ(in.pulls, 2) << "prepare folds the whole partition";
    EXPECT_EQ(agg.prepared, 1);
    ASSERT_EQ(agg.next(&agg), 0);
    EXPECT_EQ(in.pulls, 2) << "the prepared result is handed out, not recomputed";
    EXPECT_EQ(agg.values.f8[0], 4.0);
    EXPECT_EQ(agg.prepared, 0);
    EXPECT_EQ(agg.next(&agg), QMO_SEQ_END);

    // An empty partition: prepared, but nothing to hand out, as often as asked.
    Source<t_double> none(std::vector<double>{});
    ASSERT_EQ(qmo_seq_agg_sum_double(&agg, &none.it), 0);
    ASSERT_EQ(qmo_seq_prepare_aggregate(&agg), 0);
    EXPECT_EQ(agg.next(&agg), QMO_SEQ_END);
    EXPECT_EQ(agg.next(&agg), QMO_SEQ_END);
    EXPECT_EQ(agg.prepared, 1);
}

// ---- counts ------------------------------------------------------------------------------

TEST(Counts, CountEveryElementOrTheNonNullOnes) {
    const std::vector<int16_t> values(300, 7);
    Source<t_int2> a(values, {0, 129, 299}, {128, 50}), b(values, {0, 129, 299}, {128, 50});
    EXPECT_EQ(run(qmo_seq_agg_count, a).values, std::vector<double>{300});
    EXPECT_EQ(run(qmo_seq_agg_count_not_null, b).values, std::vector<double>{297});
    Source<t_int2> empty(std::vector<int16_t>{});
    Iter agg;
    ASSERT_EQ(qmo_seq_agg_count(&agg, &empty.it), 0);
    EXPECT_EQ(agg.elem_type, QMO_SEQ_TYPE_UINT8);
    EXPECT_EQ(agg.next, qmo_seq_count_next);
    EXPECT_EQ(pull(&agg).values, std::vector<double>{0}) << "a count is never empty";
}

TEST(Counts, AnyStatusEndsTheCountAndWhatWasCountedStands) {
    Failing<t_int4> in({1, 2, 3, 4}, 3, kBroken);  // tiles of one element
    EXPECT_EQ(run(qmo_seq_agg_count, in).values, std::vector<double>{2});
}

TEST(Counts, NeitherCheckNorBindTheOperand) {
    BindingChecks on(1);
    CharSource text(4, {"a", "b"});
    text.it.bound = 1;
    Iter agg;
    ASSERT_EQ(qmo_seq_agg_count_not_null(&agg, &text.it), 0);
    EXPECT_EQ(agg.next, qmo_seq_count_not_null_next);
    EXPECT_EQ(agg.merge, qmo_seq_count_merge);
    text.it.bound = 0;
    ASSERT_EQ(qmo_seq_agg_count(&agg, &text.it), 0);
    EXPECT_EQ(text.it.bound, 0);
}

// An array source is counted from its length, without a pull, and such a
// count is never prepared or merged.
TEST(Counts, ArraySourcesAreCountedFromTheirLength) {
    const std::vector<int8_t> values(1000, 1);
    std::vector<uint64_t> nulls(16, 0);
    nulls[0] = 0b1011;
    nulls[15] = ~uint64_t{0} << 40;  // beyond the array: not counted
    Iter src, agg;
    qmo_seq_unget_nullable_int1(&src, values.data(), values.size(), nulls.data());
    ASSERT_EQ(qmo_seq_agg_count(&agg, &src), 0);
    EXPECT_EQ(agg.prepare, nullptr);
    EXPECT_EQ(agg.merge, nullptr);
    EXPECT_EQ(pull(&agg).values, std::vector<double>{1000});
    EXPECT_EQ(src.pos, 0u) << "not pulled";
    ASSERT_EQ(qmo_seq_agg_count_not_null(&agg, &src), 0);
    EXPECT_EQ(pull(&agg).values, std::vector<double>{997});
    qmo_seq_unget_int1(&src, values.data(), 0);
    ASSERT_EQ(qmo_seq_agg_count(&agg, &src), 0);
    EXPECT_EQ(pull(&agg).values, std::vector<double>{0});
}

namespace {

// A stand-in hash aggregate output: its first pull publishes a table of
// `groups` entries, or fails.
struct HashOutput {
    Iter it{};
    qmo::hash::Table table{};
    qmo::hash::Shared shared{};
    int status = QMO_SEQ_OK;
    int pulls = 0;

    explicit HashOutput(uint64_t groups) {
        table.entry_count = groups;
        shared.agg_params = it.state;
        it.reset = qmo_seq_hash_agg_reset;
        it.next = &HashOutput::next;
        it.state[qmo::hash::kBucketCount] = 7;
        it.state[qmo::hash::kShared] = reinterpret_cast<uintptr_t>(&shared);
        it.state[QMO_SEQ_STATE_WORDS - 1] = reinterpret_cast<uintptr_t>(this);
    }
    static int next(Iter *it) {
        auto *self = reinterpret_cast<HashOutput *>(static_cast<uintptr_t>(it->state[QMO_SEQ_STATE_WORDS - 1]));
        ++self->pulls;
        self->shared.table = &self->table;
        it->state[qmo::hash::kCursorBucket] = 3;
        it->state[qmo::hash::kCursorEntry] = 0x40;
        it->tile_count = 1;
        it->pos += 1;
        return self->status;
    }
};

}  // namespace

TEST(Counts, HashAggregateOutputsGiveTheirNumberOfGroups) {
    struct Row {
        const char *case_name;
        int status;
        double expected;
    };
    for (const Row &row : {Row{"groups delivered", QMO_SEQ_OK, 5}, Row{"nothing left to deliver", QMO_SEQ_END, 5},
                           Row{"the build failed", QMO_SEQ_NO_MEMORY, 0}}) {
        SCOPED_TRACE(row.case_name);
        HashOutput out(5);
        out.status = row.status;
        Iter agg;
        ASSERT_EQ(qmo_seq_agg_count_not_null(&agg, &out.it), 0);
        EXPECT_EQ(agg.prepare, nullptr);
        EXPECT_EQ(agg.merge, nullptr);
        EXPECT_EQ(pull(&agg).values, std::vector<double>{row.expected});
        EXPECT_EQ(out.pulls, 1);
    }
}

TEST(HashOutputs, ResetRewindsTheCursorAndKeepsTheTable) {
    HashOutput out(5);
    ASSERT_EQ(out.it.next(&out.it), 0);
    EXPECT_EQ(qmo_seq_is_hash_aggreate(&out.it), 1);
    ASSERT_EQ(out.it.reset(&out.it), 0);
    EXPECT_EQ(out.it.state[qmo::hash::kCursorBucket], 0u);
    EXPECT_EQ(out.it.state[qmo::hash::kCursorEntry], 0u);
    EXPECT_EQ(out.it.state[qmo::hash::kBucketCount], 7u);
    EXPECT_EQ(qmo::hash::table_of(&out.it), &out.table);
    EXPECT_EQ(out.it.pos + out.it.tile_count, 0u);
    Source<t_int4> other({1});
    EXPECT_EQ(qmo_seq_is_hash_aggreate(&other.it), 0);
}
