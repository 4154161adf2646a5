// Element-wise operators: the tile protocol they share, every family over its
// member types, and the deliberate quirks.
#include "support.hpp"

#include <cmath>

using namespace test;

namespace {

using Binary = int (*)(Iter *, Iter *, Iter *);
using Unary = int (*)(Iter *, Iter *);

template <class R, class Tag>
std::vector<R> run(Binary make, const std::vector<V<Tag>> &a, const std::vector<V<Tag>> &b) {
    Source<Tag> l(a), r(b);
    Iter out;
    EXPECT_EQ(make(&out, &l.it, &r.it), 0);
    return drain<R>(&out).values;
}

template <class Tag>
std::vector<V<Tag>> run(Unary make, const std::vector<V<Tag>> &a) {
    Source<Tag> in(a);
    Iter out;
    EXPECT_EQ(make(&out, &in.it), 0);
    return drain<V<Tag>>(&out).values;
}

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr uint64_t kTwo63 = uint64_t{1} << 63;

}  // namespace

// ---- the tile protocol (told on add_int4; every member shares the kernel) ---

TEST(ElementwiseProtocol, TypeChecksComeFirstAndWriteNothing) {
    Source<t_int4> i4({1});
    Source<t_int8> i8({1});
    Iter out;
    std::memset(&out, 0xAB, sizeof out);
    const Iter before = out;
    EXPECT_EQ(qmo_seq_add_int4(&out, &i8.it, &i4.it), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(qmo_seq_add_int4(&out, &i4.it, &i8.it), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(qmo_seq_neg_int4(&out, &i8.it), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(std::memcmp(&out, &before, sizeof out), 0);
    EXPECT_EQ(i4.it.bound + i8.it.bound, 0);
}

TEST(ElementwiseProtocol, BoundOperandIs701AndBindsNothing) {
    BindingChecks on(1);
    Source<t_int4> a({1}), b({2});
    a.it.bound = 1;
    Iter out;
    std::memset(&out, 0xAB, sizeof out);
    const Iter before = out;
    EXPECT_EQ(qmo_seq_add_int4(&out, &a.it, &b.it), QMO_SEQ_ALREADY_BOUND);
    EXPECT_EQ(b.it.bound, 0);
    EXPECT_EQ(std::memcmp(&out, &before, sizeof out), 0);
}

TEST(ElementwiseProtocol, ConstructorFillsTheRecord) {
    Source<t_int4> a({1}), b({2});
    Iter out;
    std::memset(&out, 0xAB, sizeof out);
    ASSERT_EQ(qmo_seq_lt_int4(&out, &a.it, &b.it), 0);
    EXPECT_EQ(out.elem_type, QMO_SEQ_TYPE_UINT1);
    EXPECT_EQ(out.elem_size, 1);
    EXPECT_EQ(out.next, qmo_seq_lt_int4_next);
    EXPECT_EQ(out.reset, qmo_seq_reset_binary_iterator);
    EXPECT_EQ(out.prepare, nullptr);
    EXPECT_EQ(out.merge, nullptr);
    EXPECT_EQ(out.operand1, &a.it);
    EXPECT_EQ(out.operand2, &b.it);
    EXPECT_EQ(out.operand3, nullptr);
    EXPECT_EQ(out.tile_count + out.cursor + out.prepared + out.bound, 0);
    EXPECT_EQ(out.pos + out.first_pos, 0u);
    EXPECT_EQ(out.last_pos, ~uint64_t{0});
    EXPECT_EQ(a.it.bound + b.it.bound, 2);
}

TEST(ElementwiseProtocol, ShorterOperandSetsTheTileLengths) {
    Source<t_int4> a(std::vector<int32_t>(200, 1)), b(std::vector<int32_t>(130, 2));
    Iter out;
    ASSERT_EQ(qmo_seq_add_int4(&out, &a.it, &b.it), 0);
    const auto d = drain<int32_t>(&out);
    EXPECT_EQ(d.tiles, (std::vector<unsigned>{128, 2}));
    EXPECT_EQ(d.status, QMO_SEQ_END);
    EXPECT_EQ(out.pos, 130u);
}

TEST(ElementwiseProtocol, LeftIsPulledFirstAndEndsTheCallAlone) {
    Source<t_int4> a(std::vector<int32_t>(300, 1)), b(std::vector<int32_t>(128, 2));
    Iter out;
    ASSERT_EQ(qmo_seq_add_int4(&out, &a.it, &b.it), 0);
    ASSERT_EQ(out.next(&out), 0);
    EXPECT_EQ(out.next(&out), QMO_SEQ_END);  // left pulled once more, right ended
    EXPECT_EQ(a.pulls, 2);
    EXPECT_EQ(b.pulls, 2);

    Source<t_int4> short_left({1}), long_right(std::vector<int32_t>(300, 2));
    ASSERT_EQ(qmo_seq_add_int4(&out, &short_left.it, &long_right.it), 0);
    ASSERT_EQ(out.next(&out), 0);
    EXPECT_EQ(out.next(&out), QMO_SEQ_END);
    EXPECT_EQ(long_right.pulls, 1) << "right is not pulled once left has ended";
}

TEST(ElementwiseProtocol, OperandErrorsPassUnchanged) {
    Source<t_int4> a({1}), b({2});
    b.fail_with = 4242;
    Iter out;
    ASSERT_EQ(qmo_seq_add_int4(&out, &a.it, &b.it), 0);
    EXPECT_EQ(out.next(&out), 4242);
    Iter neg;
    a.fail_with = 17;
    ASSERT_EQ(qmo_seq_neg_int4(&neg, &a.it), 0);
    EXPECT_EQ(neg.next(&neg), 17);
}

TEST(ElementwiseProtocol, NullBitmapsAreOredWordWiseAndValuesStillComputed) {
    std::vector<int32_t> ones(128, 1), twos(128, 2);
    Source<t_int4> a(ones, {3, 100}), b(twos, {10}, {50});  // right delivers 50, then 78
    Iter out;
    ASSERT_EQ(qmo_seq_add_int4(&out, &a.it, &b.it), 0);
    ASSERT_EQ(out.next(&out), 0);
    EXPECT_EQ(out.tile_count, 50);
    EXPECT_EQ(out.null_bitmap[0], (uint64_t{1} << 3) | (uint64_t{1} << 10));
    // Bits at and above the tile length carry what the operands had.
    EXPECT_EQ(out.null_bitmap[1], uint64_t{1} << 36);
    EXPECT_EQ(out.values.i4[3], 3) << "computed under the null bit";
}

TEST(ElementwiseProtocol, UnaryKeepsItsInputBitmap) {
    Source<t_double> in({1.5, -2.0, 3.0}, {1});
    Iter out;
    ASSERT_EQ(qmo_seq_abs_double(&out, &in.it), 0);
    const auto d = drain<double>(&out);
    EXPECT_EQ(d.values, (std::vector<double>{1.5, 2.0, 3.0}));
    EXPECT_EQ(d.nulls, (std::vector<bool>{false, true, false}));
}

TEST(ElementwiseProtocol, ResetReplaysTheSameSequence) {
    Source<t_uint2> a({1, 2, 3}), b({10, 20, 30});
    Iter out;
    ASSERT_EQ(qmo_seq_mul_uint2(&out, &a.it, &b.it), 0);
    const auto first = drain<uint16_t>(&out);
    ASSERT_EQ(out.reset(&out), 0);
    EXPECT_EQ(out.pos, 0u);
    EXPECT_EQ(drain<uint16_t>(&out).values, first.values);
}

TEST(ElementwiseProtocol, ExpressionOverConstantsReadsElementByElement) {
    // (a + b) > c with a = 2, b = 3 and c = 4, read through the uint1 reader.
    Iter a, b, c, sum, gt;
    qmo_seq_const_int4(&a, 2);
    qmo_seq_const_int4(&b, 3);
    qmo_seq_const_int4(&c, 4);
    ASSERT_EQ(qmo_seq_add_int4(&sum, &a, &b), 0);
    ASSERT_EQ(qmo_seq_gt_int4(&gt, &sum, &c), 0);
    for (int i = 0; i < 300; ++i) {
        uint8_t v = 9;
        ASSERT_EQ(qmo_seq_next_uint1(&gt, &v), 0);
        ASSERT_EQ(v, 1);
    }
    EXPECT_EQ(gt.pos, 384u);
}

// ---- every family over its member types -------------------------------------

template <class Tag>
class NumericFamilies : public ::testing::Test {};
TYPED_TEST_SUITE(NumericFamilies, NumericTypes);

TYPED_TEST(NumericFamilies, ArithmeticTable) {
    using A = NumApi<TypeParam>;
    using T = V<TypeParam>;
    const std::vector<T> a = {7, 12, 3, 9, 1};
    const std::vector<T> b = {2, 5, 3, 1, 4};
    const bool f = is_float_v<TypeParam>;
    struct Row {
        const char *op;
        Binary make;
        std::vector<double> expected;
    };
    const std::vector<Row> rows = {
        {"add", A::add, {9, 17, 6, 10, 5}},
        {"mul", A::mul, {14, 60, 9, 9, 4}},
        {"div", A::div, f ? std::vector<double>{3.5, 2.4, 1, 9, 0.25} : std::vector<double>{3, 2, 1, 9, 0}},
        {"mod", A::mod, {1, 2, 0, 0, 1}},
        {"max", A::max, {7, 12, 3, 9, 4}},
        {"min", A::min, {2, 5, 3, 1, 1}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.op);
        const auto got = run<T, TypeParam>(row.make, a, b);
        ASSERT_EQ(got.size(), a.size());
        for (size_t i = 0; i < a.size(); ++i) EXPECT_EQ(got[i], static_cast<T>(row.expected[i])) << "row " << i;
    }
    EXPECT_EQ((run<T, TypeParam>(A::sub, {9, 5}, {2, 5})), (std::vector<T>{7, 0}));
}

TYPED_TEST(NumericFamilies, ComparisonTable) {
    using A = NumApi<TypeParam>;
    using T = V<TypeParam>;
    const std::vector<T> a = {1, 2, 3};
    const std::vector<T> b = {2, 2, 2};
    struct Row {
        const char *op;
        Binary make;
        std::vector<uint8_t> expected;
    };
    const std::vector<Row> rows = {
        {"eq", A::eq, {0, 1, 0}}, {"ne", A::ne, {1, 0, 1}}, {"lt", A::lt, {1, 0, 0}},
        {"gt", A::gt, {0, 0, 1}}, {"le", A::le, {1, 1, 0}}, {"ge", A::ge, {0, 1, 1}},
    };
    for (const Row &row : rows) EXPECT_EQ((run<uint8_t, TypeParam>(row.make, a, b)), row.expected) << row.op;
}

TYPED_TEST(NumericFamilies, ComparisonUsesTheTypesSignedness) {
    using A = NumApi<TypeParam>;
    using T = V<TypeParam>;
    const T low = std::numeric_limits<T>::lowest(), high = std::numeric_limits<T>::max();
    EXPECT_EQ((run<uint8_t, TypeParam>(A::lt, {low}, {high})), std::vector<uint8_t>{1});
    EXPECT_EQ((run<T, TypeParam>(A::max, {low}, {high})), std::vector<T>{high});
    EXPECT_EQ((run<T, TypeParam>(A::min, {low}, {high})), std::vector<T>{low});
}

TYPED_TEST(NumericFamilies, IntegersWrapInTheirOwnWidth) {
    using A = NumApi<TypeParam>;
    using T = V<TypeParam>;
    if constexpr (!is_float_v<TypeParam>) {
        const T low = std::numeric_limits<T>::min(), high = std::numeric_limits<T>::max();
        EXPECT_EQ((run<T, TypeParam>(A::add, {high}, {1})), std::vector<T>{low});
        EXPECT_EQ((run<T, TypeParam>(A::sub, {low}, {1})), std::vector<T>{high});
        EXPECT_EQ((run<T, TypeParam>(A::mul, {high}, {2})), std::vector<T>{static_cast<T>(-2)});
        EXPECT_EQ((run<T, TypeParam>(A::mul, {high}, {high})), std::vector<T>{1});
    }
}

TYPED_TEST(NumericFamilies, SignOperatorsFollowTheTypesKind) {
    using A = NumApi<TypeParam>;
    using T = V<TypeParam>;
    const T five = 5;
    const T minus_five = static_cast<T>(0) - five;  // 2^n - 5 for unsigned types
    const std::vector<T> abs_of = run<TypeParam>(A::abs, {five, minus_five});
    const std::vector<T> neg_of = run<TypeParam>(A::neg, {five});
    if constexpr (is_float_v<TypeParam> || is_signed_v<TypeParam>) {
        EXPECT_EQ(abs_of, (std::vector<T>{five, five}));
        EXPECT_EQ(neg_of, std::vector<T>{minus_five});
    } else if constexpr (std::is_same_v<TypeParam, t_datetime>) {
        EXPECT_EQ(abs_of, (std::vector<T>{five, minus_five})) << "abs of datetime copies";
        EXPECT_EQ(neg_of, std::vector<T>{minus_five}) << "neg of datetime negates mod 2^64";
    } else {
        EXPECT_EQ(abs_of, (std::vector<T>{five, minus_five}));
        EXPECT_EQ(neg_of, std::vector<T>{five}) << "neg of unsigned copies";
    }
    if constexpr (is_signed_v<TypeParam>) {
        const T low = std::numeric_limits<T>::min();
        EXPECT_EQ(run<TypeParam>(A::abs, {low}), std::vector<T>{low});
        EXPECT_EQ(run<TypeParam>(A::neg, {low}), std::vector<T>{low});
    }
}

// ---- the deliberate quirks, one row each ----------------------------------------

TEST(ElementwiseQuirks, IntegerDivisionAndRemainder) {
    EXPECT_EQ((run<int32_t, t_int4>(qmo_seq_mod_int4, {-7, 7}, {3, -3})), (std::vector<int32_t>{-1, 1}));
    EXPECT_EQ((run<int32_t, t_int4>(qmo_seq_div_int4, {-7}, {2})), std::vector<int32_t>{-3});
    EXPECT_EQ((run<int8_t, t_int1>(qmo_seq_div_int1, {-128}, {-1})), std::vector<int8_t>{-128})
        << "narrow types divide in 32 bits and truncate back";
    EXPECT_EQ((run<uint32_t, t_uint4>(qmo_seq_div_uint4, {0xFFFFFFFFu}, {2})), std::vector<uint32_t>{0x7FFFFFFFu});
}

TEST(ElementwiseQuirks, FloatingRemainderGoesThroughDouble) {
    EXPECT_EQ((run<double, t_double>(qmo_seq_mod_double, {7.5, -7.5}, {2, 2})), (std::vector<double>{1.5, -1.5}));
    EXPECT_EQ((run<float, t_float>(qmo_seq_mod_float, {7.5f}, {2.0f})), std::vector<float>{1.5f});
}

TEST(ElementwiseQuirks, DatetimeRemainderIsRoundedThroughDoubleButUint8IsExact) {
    const uint64_t big = (uint64_t{1} << 53) + 1;
    EXPECT_EQ((run<uint64_t, t_uint8>(qmo_seq_mod_uint8, {big}, {2})), std::vector<uint64_t>{1});
    EXPECT_EQ((run<uint64_t, t_datetime>(qmo_seq_mod_datetime, {big}, {2})), std::vector<uint64_t>{0});
    // A remainder at or above 2^63 comes back through the 2^63 offset.
    const uint64_t a = 0xFFFFFFFFFFFFF000u, b = 0xFFFFFFFFFFFFF800u;
    EXPECT_EQ((run<uint64_t, t_datetime>(qmo_seq_mod_datetime, {a, kTwo63 + 4096}, {b, kTwo63})),
              (std::vector<uint64_t>{a, 4096}));
}

TEST(ElementwiseQuirks, NaNComparesFalseExceptNe) {
    const std::vector<double> nan = {kNaN, kNaN, 1.0};
    const std::vector<double> other = {kNaN, 1.0, kNaN};
    EXPECT_EQ((run<uint8_t, t_double>(qmo_seq_eq_double, nan, other)), (std::vector<uint8_t>{0, 0, 0}));
    EXPECT_EQ((run<uint8_t, t_double>(qmo_seq_ne_double, nan, other)), (std::vector<uint8_t>{1, 1, 1}));
    for (Binary ordered : {qmo_seq_lt_double, qmo_seq_gt_double, qmo_seq_le_double, qmo_seq_ge_double})
        EXPECT_EQ((run<uint8_t, t_double>(ordered, nan, other)), (std::vector<uint8_t>{0, 0, 0}));
    EXPECT_EQ((run<uint8_t, t_float>(qmo_seq_lt_float, {std::nanf(""), 1.0f}, {2.0f, std::nanf("")})),
              (std::vector<uint8_t>{0, 0}));
}

TEST(ElementwiseQuirks, FloatMaxAndMinReturnTheRightOperandOnNaNAndTies) {
    const auto mx = run<double, t_double>(qmo_seq_max_double, {kNaN, 1.0, 0.0}, {2.0, kNaN, -0.0});
    EXPECT_EQ(mx[0], 2.0);
    EXPECT_TRUE(std::isnan(mx[1]));
    EXPECT_TRUE(mx[2] == 0.0 && std::signbit(mx[2])) << "max(0.0, -0.0) is -0.0";
    const auto mn = run<float, t_float>(qmo_seq_min_float, {std::nanf(""), 1.0f, -0.0f}, {2.0f, std::nanf(""), 0.0f});
    EXPECT_EQ(mn[0], 2.0f);
    EXPECT_TRUE(std::isnan(mn[1]));
    EXPECT_FALSE(std::signbit(mn[2])) << "min(-0.0, 0.0) is 0.0";
}

TEST(ElementwiseQuirks, FloatSignOperators) {
    const auto a = run<t_double>(qmo_seq_abs_double, {-0.0, -kNaN, -3.0});
    EXPECT_TRUE(std::signbit(a[0])) << "abs(-0.0) stays -0.0";
    EXPECT_TRUE(std::isnan(a[1]) && std::signbit(a[1])) << "abs(NaN) unchanged";
    EXPECT_EQ(a[2], 3.0);
    const auto n = run<t_float>(qmo_seq_neg_float, {0.0f, std::nanf("")});
    EXPECT_TRUE(std::signbit(n[0]));
    EXPECT_TRUE(std::signbit(n[1])) << "neg flips the sign bit of NaN too";
}

TEST(ElementwiseQuirks, NegDatetimeIsModular) {
    EXPECT_EQ(run<t_datetime>(qmo_seq_neg_datetime, {5}), std::vector<uint64_t>{0 - uint64_t{5}});
    EXPECT_EQ(run<t_uint4>(qmo_seq_neg_uint4, {5}), std::vector<uint32_t>{5});
    EXPECT_EQ(run<t_int1>(qmo_seq_abs_int1, {-128}), std::vector<int8_t>{-128});
}

// ---- char ----------------------------------------------------------------------

TEST(CharOperators, ComparisonNeedsEqualWidthsAndComparesEveryByte) {
    CharSource w8(8, {"a"}), w10(10, {"a"});
    Iter out;
    EXPECT_EQ(qmo_seq_eq_char(&out, &w8.it, &w10.it), QMO_SEQ_TYPE_MISMATCH);
    Source<t_int4> i4({1});
    EXPECT_EQ(qmo_seq_lt_char(&out, &w8.it, &i4.it), QMO_SEQ_TYPE_MISMATCH);

    // Bytes after the NUL take part: "ab\0x" and "ab\0y" differ.
    CharSource l(4, {"ab", std::string("ab\0x", 4), "b", "abcd"});
    CharSource r(4, {"ab", std::string("ab\0y", 4), "abcd", "b"});
    struct Row {
        Binary make;
        std::vector<uint8_t> expected;
    };
    for (const Row &row : std::vector<Row>{{qmo_seq_eq_char, {1, 0, 0, 0}},
                                           {qmo_seq_ne_char, {0, 1, 1, 1}},
                                           {qmo_seq_lt_char, {0, 1, 0, 1}},
                                           {qmo_seq_gt_char, {0, 0, 1, 0}},
                                           {qmo_seq_le_char, {1, 1, 0, 1}},
                                           {qmo_seq_ge_char, {1, 0, 1, 0}}}) {
        l.reset(&l.it);
        r.reset(&r.it);
        ASSERT_EQ(row.make(&out, &l.it, &r.it), 0);
        EXPECT_EQ(drain<uint8_t>(&out).values, row.expected);
    }
}

TEST(CharOperators, ConcatenationJoinsTextUpToEachNul) {
    CharSource l(4, {"ab", "abcd", ""}, {2}), r(4, {"cd", "x", "z"});
    Iter out;
    ASSERT_EQ(qmo_seq_add_char(&out, &l.it, &r.it), 0);
    EXPECT_EQ(out.elem_size, 8);
    EXPECT_EQ(out.elem_type, QMO_SEQ_TYPE_CHAR);
    ASSERT_EQ(out.next(&out), 0);
    EXPECT_EQ(std::string(out.values.bytes, 24),
              std::string("abcd\0\0\0\0" "abcdx\0\0\0" "z\0\0\0\0\0\0\0", 24));
    EXPECT_EQ(out.null_bitmap[0], 4u);
}

TEST(CharOperators, ConcatenationRefusesResultsWiderThan32) {
    CharSource w20(20, {"a"}), w13(13, {"b"}), w12(12, {"c"});
    Iter out;
    EXPECT_EQ(qmo_seq_add_char(&out, &w20.it, &w13.it), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(w20.it.bound, 0);
    EXPECT_EQ(qmo_seq_add_char(&out, &w20.it, &w12.it), 0);
    EXPECT_EQ(out.elem_size, 32);
}

// ---- logic ------------------------------------------------------------------------

TEST(Logic, TruthTablesAndWholeByteBitwiseness) {
    const std::vector<uint8_t> a = {0, 0, 1, 1, 2, 3};
    const std::vector<uint8_t> b = {0, 1, 0, 1, 3, 1};
    EXPECT_EQ((run<uint8_t, t_uint1>(qmo_seq_and, a, b)), (std::vector<uint8_t>{0, 0, 0, 1, 2, 1}));
    EXPECT_EQ((run<uint8_t, t_uint1>(qmo_seq_or, a, b)), (std::vector<uint8_t>{0, 1, 1, 1, 3, 3}));
    EXPECT_EQ((run<uint8_t, t_uint1>(qmo_seq_xor, a, b)), (std::vector<uint8_t>{0, 1, 1, 0, 1, 2}));
    EXPECT_EQ(run<t_uint1>(qmo_seq_not, a), (std::vector<uint8_t>{1, 1, 0, 0, 0, 0}));
}

TEST(Logic, NamesAndTypes) {
    Source<t_uint1> a({1}), b({0});
    Source<t_int1> i1({1});
    Iter out;
    EXPECT_EQ(qmo_seq_and(&out, &a.it, &i1.it), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(qmo_seq_not(&out, &i1.it), QMO_SEQ_TYPE_MISMATCH);
    ASSERT_EQ(qmo_seq_xor(&out, &a.it, &b.it), 0);
    EXPECT_EQ(out.next, qmo_seq_xor_qmo_seq_bool_next);
    ASSERT_EQ(qmo_seq_not(&out, &a.it), 0);
    EXPECT_EQ(out.next, qmo_seq_not_qmo_seq_bool_next);
    EXPECT_EQ(out.reset, qmo_seq_reset_unary_iterator);
}
