// Element-wise operators: the tile protocol they share, every family over its
// member types, the deliberate quirks, and conversion between numeric types.
#include "support.hpp"

#include <cmath>

using namespace test;

namespace {

// op over sources of a (and b) as elements of type R.
template <class R, class Tag>
std::vector<R> apply(Binary make, const std::vector<V<Tag>> &a, const std::vector<V<Tag>> &b) {
    Source<Tag> l(a), r(b);
    return run<R>(make, &l.it, &r.it).values;
}
template <class Tag, class R = V<Tag>>
std::vector<R> apply(Unary make, const std::vector<V<Tag>> &a) {
    Source<Tag> in(a);
    return run<R>(make, &in.it).values;
}

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr uint64_t kTwo63 = uint64_t{1} << 63;

// The conversion of one value.
template <class R, class Tag>
R convert(Unary make, V<Tag> x) {
    return apply<Tag, R>(make, {x}).at(0);
}

#define TEST_NAMES_(a, t, ctype, code) #t,
constexpr const char *kList1[] = {QMO_SEQ_NUMERIC_TYPES(TEST_NAMES_, )};
constexpr const char *kList2[] = {QMO_SEQ_NUMERIC_TYPES_2(TEST_NAMES_, )};
#undef TEST_NAMES_

}  // namespace

// ---- the tile protocol (told on add_int4; every member shares the kernel) ---

TEST(ElementwiseProtocol, TypesThenBindingThenTheRecord) {
    Source<t_int4> a({1}), b({2});
    Source<t_int8> i8({1});
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_add_int4(o, &i8.it, &a.it); }, {&a.it});
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_neg_int4(o, &i8.it); }, {&i8.it});
    BindingChecks on(1);
    b.it.bound = 1;
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_add_int4(o, &i8.it, &b.it); }, {&i8.it});
    expect_refused(QMO_SEQ_ALREADY_BOUND, [&](Iter *o) { return qmo_seq_add_int4(o, &a.it, &b.it); }, {&a.it});
    b.it.bound = 0;
    Iter out;
    std::memset(&out, 0xAB, sizeof out);
    ASSERT_EQ(qmo_seq_lt_int4(&out, &a.it, &b.it), 0);
    EXPECT_TRUE(out.elem_type == QMO_SEQ_TYPE_UINT1 && out.elem_size == 1 && out.last_pos == ~uint64_t{0});
    EXPECT_TRUE(out.prepare == nullptr && out.merge == nullptr && out.operand3 == nullptr);
    EXPECT_EQ(out.tile_count + out.cursor + out.prepared + out.bound + out.pos + out.first_pos, 0u);
    EXPECT_EQ(a.it.bound + b.it.bound, 2);
}

// Left is pulled first; its end ends the call without pulling right.
TEST(ElementwiseProtocol, ShorterOperandSetsTheTileAndResetReplays) {
    for (const auto &[left, right, tiles, left_pulls, right_pulls] :
         std::vector<std::tuple<size_t, size_t, std::vector<unsigned>, int, int>>{
             {200, 130, {128, 2}, 3, 2}, {300, 128, {128}, 2, 2}, {1, 300, {1}, 2, 1}}) {
        SCOPED_TRACE(::testing::Message() << left << " and " << right);
        Source<t_int4> a(iota_column(left)), b(iota_column(right, 1000));
        Iter out;
        ASSERT_EQ(qmo_seq_add_int4(&out, &a.it, &b.it), 0);
        const auto d = drain_replayed<int32_t>(&out);
        EXPECT_EQ(d.tiles, tiles);
        EXPECT_EQ(d.status, QMO_SEQ_END);
        for (size_t i = 0; i < d.values.size(); ++i) ASSERT_EQ(d.values[i], int32_t(1000 + 2 * i));
        EXPECT_TRUE(a.pulls == 2 * left_pulls && b.pulls == 2 * right_pulls) << a.pulls << " and " << b.pulls;
    }
    {  // one record as both operands: the left count is the one read before the second pull
        Source<t_int4> x(iota_column(138), {}, {10, 128});
        Iter twice;
        ASSERT_EQ(qmo_seq_add_int4(&twice, &x.it, &x.it), 0);
        ASSERT_EQ(twice.next(&twice), 0);
        EXPECT_EQ(twice.tile_count, 10);
        EXPECT_EQ(twice.values.i4[0], 20) << "over the record's current values (10..137)";
    }
    Source<t_int4> a({1}), b({2});
    b.fail_with = 4242;
    EXPECT_EQ(run<int32_t>(qmo_seq_add_int4, &a.it, &b.it).status, 4242) << "errors pass unchanged";
    a.fail_with = 17;
    EXPECT_EQ(run<int32_t>(qmo_seq_neg_int4, &a.it).status, 17);
}

TEST(ElementwiseProtocol, NullBitmapsAreOredWordWiseAndValuesStillComputed) {
    Source<t_int4> a(std::vector<int32_t>(128, 1), {3, 100}), b(std::vector<int32_t>(128, 2), {10, 70}, {100});
    Iter out;
    ASSERT_EQ(qmo_seq_add_int4(&out, &a.it, &b.it), 0);
    ASSERT_EQ(out.next(&out), 0);
    EXPECT_EQ(out.tile_count, 100);
    EXPECT_EQ(out.null_bitmap[0], (uint64_t{1} << 3) | (uint64_t{1} << 10));
    EXPECT_EQ(out.null_bitmap[1], (uint64_t{1} << 36) | (uint64_t{1} << 6)) << "bits past the count are kept";
    EXPECT_EQ(out.values.i4[3], 3) << "computed under the null bit";
    Source<t_double> in({1.5, -2.0, 3.0}, {1});
    EXPECT_EQ(run<double>(qmo_seq_abs_double, &in.it).nulls, (std::vector<bool>{0, 1, 0})) << "unary keeps its bitmap";
}

// ---- every family over its member types -------------------------------------

template <class Tag>
class NumericFamilies : public ::testing::Test {};
TYPED_TEST_SUITE(NumericFamilies, NumericTypes);

TYPED_TEST(NumericFamilies, OperatorTable) {
    using T = V<TypeParam>;
    using Tag = TypeParam;
    const std::vector<T> a = {7, 12, 3, 9, 1}, b = {2, 5, 3, 1, 4};
    const bool f = is_float_v<Tag>;
    for (const auto &[make, expected] : std::vector<std::pair<Binary, std::vector<T>>>{
             {fn::add<Tag>, {9, 17, 6, 10, 5}},
             {fn::sub<Tag>, {5, 7, 0, 8, T(T(1) - T(4))}},
             {fn::mul<Tag>, {14, 60, 9, 9, 4}},
             {fn::div<Tag>, {T(f ? 3.5 : 3), T(f ? 2.4 : 2), 1, 9, T(f ? 0.25 : 0)}},
             {fn::mod<Tag>, {1, 2, 0, 0, 1}},
             {fn::max<Tag>, {7, 12, 3, 9, 4}},
             {fn::min<Tag>, {2, 5, 3, 1, 1}}})
        EXPECT_EQ((apply<T, Tag>(make, a, b)), expected);
    for (const auto &[make, expected] : std::vector<std::pair<Binary, std::vector<uint8_t>>>{
             {fn::eq<Tag>, {0, 0, 1, 0, 0}}, {fn::ne<Tag>, {1, 1, 0, 1, 1}}, {fn::lt<Tag>, {0, 0, 0, 0, 1}},
             {fn::gt<Tag>, {1, 1, 0, 1, 0}}, {fn::le<Tag>, {0, 0, 1, 0, 1}}, {fn::ge<Tag>, {1, 1, 1, 1, 0}}})
        EXPECT_EQ((apply<uint8_t, Tag>(make, a, b)), expected);
}

// The vector kernels (16 or 32 lanes, both instruction sets) against the
// scalar relation, over tiles of odd lengths, with NaN and signed zeros.
TYPED_TEST(NumericFamilies, ComparisonsAgreeWithTheScalarRelationAcrossTiles) {
    using T = V<TypeParam>;
    using Tag = TypeParam;
    std::vector<T> a(300), b(300);
    for (size_t i = 0; i < a.size(); ++i) {
        a[i] = static_cast<T>((i * 37) % 11);
        b[i] = static_cast<T>((i * 53) % 7);
        if constexpr (is_float_v<Tag>) {
            if (i % 13 == 0) a[i] = std::numeric_limits<T>::quiet_NaN();
            if (i % 17 == 0) b[i] = T(-0.0);
        }
    }
    const std::pair<Binary, bool (*)(T, T)> table[] = {
        {fn::eq<Tag>, [](T x, T y) { return x == y; }}, {fn::ne<Tag>, [](T x, T y) { return x != y; }},
        {fn::lt<Tag>, [](T x, T y) { return x < y; }},  {fn::gt<Tag>, [](T x, T y) { return x > y; }},
        {fn::le<Tag>, [](T x, T y) { return x <= y; }}, {fn::ge<Tag>, [](T x, T y) { return x >= y; }}};
    for (const auto &[make, holds] : table) {
        Source<Tag> l(a, {}, {128, 37, 100}), r(b, {}, {128, 37, 100});
        const auto got = run<uint8_t>(make, &l.it, &r.it).values;
        ASSERT_EQ(got.size(), a.size());
        for (size_t i = 0; i < a.size(); ++i) ASSERT_EQ(got[i], holds(a[i], b[i]) ? 1 : 0) << "element " << i;
    }
}

// Comparisons use the type's signedness; integers wrap in their own width.
TYPED_TEST(NumericFamilies, Extremes) {
    using T = V<TypeParam>;
    using Tag = TypeParam;
    const T low = std::numeric_limits<T>::lowest(), high = std::numeric_limits<T>::max();
    EXPECT_EQ((apply<uint8_t, Tag>(fn::lt<Tag>, {low, high}, {high, low})), (std::vector<uint8_t>{1, 0}));
    EXPECT_EQ((apply<T, Tag>(fn::max<Tag>, {low, high}, {high, low})), (std::vector<T>{high, high}));
    EXPECT_EQ((apply<T, Tag>(fn::min<Tag>, {low, high}, {high, low})), (std::vector<T>{low, low}));
    if constexpr (!is_float_v<Tag>) {
        EXPECT_EQ((apply<T, Tag>(fn::add<Tag>, {high}, {1})), std::vector<T>{low});
        EXPECT_EQ((apply<T, Tag>(fn::sub<Tag>, {low}, {1})), std::vector<T>{high});
        EXPECT_EQ((apply<T, Tag>(fn::mul<Tag>, {high, high}, {2, high})), (std::vector<T>{T(-2), 1}));
    }
}

// neg copies uint1..uint8 but negates datetime modulo 2^64; abs copies both.
TYPED_TEST(NumericFamilies, SignOperatorsFollowTheTypesKind) {
    using T = V<TypeParam>;
    const T five = 5, minus_five = T(T(0) - five);  // 2^n - 5 for unsigned types
    const bool negates = is_float_v<TypeParam> || is_signed_v<TypeParam>;
    const bool dt = std::is_same_v<TypeParam, t_datetime>;
    EXPECT_EQ(apply<TypeParam>(fn::abs<TypeParam>, {five, minus_five}),
              (std::vector<T>{five, negates ? five : minus_five}));
    EXPECT_EQ(apply<TypeParam>(fn::neg<TypeParam>, {five}), std::vector<T>{negates || dt ? minus_five : five});
    if constexpr (is_signed_v<TypeParam>) {
        const T low = std::numeric_limits<T>::min();
        EXPECT_EQ(apply<TypeParam>(fn::abs<TypeParam>, {low}), std::vector<T>{low});
        EXPECT_EQ(apply<TypeParam>(fn::neg<TypeParam>, {low}), std::vector<T>{low});
    }
}

// ---- the deliberate quirks ----------------------------------------------------

TEST(ElementwiseQuirks, DivisionAndRemainder) {
    EXPECT_EQ((apply<int32_t, t_int4>(qmo_seq_mod_int4, {-7, 7}, {3, -3})), (std::vector<int32_t>{-1, 1}));
    EXPECT_EQ((apply<int32_t, t_int4>(qmo_seq_div_int4, {-7}, {2})), std::vector<int32_t>{-3});
    EXPECT_EQ((apply<int8_t, t_int1>(qmo_seq_div_int1, {-128}, {-1})), std::vector<int8_t>{-128}) << "in 32 bits";
    EXPECT_EQ((apply<uint32_t, t_uint4>(qmo_seq_div_uint4, {0xFFFFFFFFu}, {2})), std::vector<uint32_t>{0x7FFFFFFFu});
    EXPECT_EQ((apply<double, t_double>(qmo_seq_mod_double, {7.5, -7.5}, {2, 2})), (std::vector<double>{1.5, -1.5}));
    EXPECT_EQ((apply<float, t_float>(qmo_seq_mod_float, {7.5f}, {2.0f})), std::vector<float>{1.5f});
    // Datetime goes through double (rounded above 2^53, back through the 2^63 offset); uint8 is exact.
    const uint64_t big = (uint64_t{1} << 53) + 1, a = 0xFFFFFFFFFFFFF000u, b = 0xFFFFFFFFFFFFF800u;
    EXPECT_EQ((apply<uint64_t, t_uint8>(qmo_seq_mod_uint8, {big}, {2})), std::vector<uint64_t>{1});
    EXPECT_EQ((apply<uint64_t, t_datetime>(qmo_seq_mod_datetime, {big, a, kTwo63 + 4096}, {2, b, kTwo63})),
              (std::vector<uint64_t>{0, a, 4096}));
}

TEST(ElementwiseQuirks, NaNComparesFalseExceptNe) {
    const std::vector<double> nan = {kNaN, kNaN, 1.0}, other = {kNaN, 1.0, kNaN};
    EXPECT_EQ((apply<uint8_t, t_double>(qmo_seq_ne_double, nan, other)), (std::vector<uint8_t>{1, 1, 1}));
    for (Binary make : {qmo_seq_eq_double, qmo_seq_lt_double, qmo_seq_gt_double, qmo_seq_le_double, qmo_seq_ge_double})
        EXPECT_EQ((apply<uint8_t, t_double>(make, nan, other)), (std::vector<uint8_t>{0, 0, 0}));
    EXPECT_EQ((apply<uint8_t, t_float>(qmo_seq_lt_float, {std::nanf(""), 1.0f}, {2.0f, std::nanf("")})),
              (std::vector<uint8_t>{0, 0}));
}

TEST(ElementwiseQuirks, FloatExtremesAndSignsOfNaNAndZero) {
    const auto mx = apply<double, t_double>(qmo_seq_max_double, {kNaN, 1.0, 0.0}, {2.0, kNaN, -0.0});
    EXPECT_TRUE(mx[0] == 2.0 && std::isnan(mx[1])) << "the right operand when either is NaN";
    EXPECT_TRUE(mx[2] == 0.0 && std::signbit(mx[2])) << "max(0.0, -0.0) is -0.0";
    const auto mn = apply<float, t_float>(qmo_seq_min_float, {std::nanf(""), 1.0f, -0.0f}, {2.0f, std::nanf(""), 0.0f});
    EXPECT_TRUE(mn[0] == 2.0f && std::isnan(mn[1]));
    EXPECT_FALSE(std::signbit(mn[2])) << "min(-0.0, 0.0) is 0.0";
    const auto a = apply<t_double>(qmo_seq_abs_double, {-0.0, -kNaN, -3.0});
    EXPECT_TRUE(std::signbit(a[0]) && std::isnan(a[1]) && std::signbit(a[1])) << "-0.0 and NaN pass unchanged";
    EXPECT_EQ(a[2], 3.0);
    const auto n = apply<t_float>(qmo_seq_neg_float, {0.0f, std::nanf("")});
    EXPECT_TRUE(std::signbit(n[0]) && std::signbit(n[1])) << "neg flips the sign bit of zero and NaN";
}

// ---- char and logic -------------------------------------------------------------

TEST(CharOperators, ComparisonNeedsEqualWidthsAndComparesEveryByte) {
    CharSource w8(8, {"a"}), w10(10, {"a"});
    Source<t_int4> i4({1});
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_eq_char(o, &w8.it, &w10.it); }, {&w8.it});
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_lt_char(o, &w8.it, &i4.it); }, {&w8.it});
    // Bytes after the NUL take part: "ab\0x" and "ab\0y" differ.
    CharSource l(4, {"ab", std::string("ab\0x", 4), "b", "abcd"}), r(4, {"ab", std::string("ab\0y", 4), "abcd", "b"});
    for (const auto &[make, expected] : std::vector<std::pair<Binary, std::vector<uint8_t>>>{
             {qmo_seq_eq_char, {1, 0, 0, 0}}, {qmo_seq_ne_char, {0, 1, 1, 1}}, {qmo_seq_lt_char, {0, 1, 0, 1}},
             {qmo_seq_gt_char, {0, 0, 1, 0}}, {qmo_seq_le_char, {1, 1, 0, 1}}, {qmo_seq_ge_char, {1, 0, 1, 0}}}) {
        EXPECT_EQ(run<uint8_t>(make, &l.it, &r.it).values, expected);
        l.reset(&l.it), r.reset(&r.it);
    }
}

TEST(CharOperators, ConcatenationJoinsTextUpToEachNulIntoAtMost32) {
    CharSource l(4, {"ab", "abcd", ""}, {2}), r(4, {"cd", "x", "z"}), w20(20, {"a"}), w13(13, {"b"}), w12(12, {"c"});
    const auto d = run<std::string>(qmo_seq_add_char, &l.it, &r.it);
    EXPECT_EQ(d.values, (std::vector<std::string>{{"abcd\0\0\0\0", 8}, {"abcdx\0\0\0", 8}, {"z\0\0\0\0\0\0\0", 8}}));
    EXPECT_EQ(d.nulls, (std::vector<bool>{0, 0, 1}));
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_add_char(o, &w20.it, &w13.it); }, {&w20.it});
    Iter out;
    ASSERT_EQ(qmo_seq_add_char(&out, &w20.it, &w12.it), 0);
    EXPECT_TRUE(out.elem_size == 32 && out.elem_type == QMO_SEQ_TYPE_CHAR);
}

TEST(Logic, WholeBytesBitwiseOverUint1Only) {
    const std::vector<uint8_t> a = {0, 0, 1, 1, 2, 3}, b = {0, 1, 0, 1, 3, 1};
    EXPECT_EQ((apply<uint8_t, t_uint1>(qmo_seq_and, a, b)), (std::vector<uint8_t>{0, 0, 0, 1, 2, 1}));
    EXPECT_EQ((apply<uint8_t, t_uint1>(qmo_seq_or, a, b)), (std::vector<uint8_t>{0, 1, 1, 1, 3, 3}));
    EXPECT_EQ((apply<uint8_t, t_uint1>(qmo_seq_xor, a, b)), (std::vector<uint8_t>{0, 1, 1, 0, 1, 2}));
    EXPECT_EQ(apply<t_uint1>(qmo_seq_not, a), (std::vector<uint8_t>{1, 1, 0, 0, 0, 0}));
    Source<t_uint1> u({1});
    Source<t_int1> i1({1});
    Iter out;
    EXPECT_EQ(qmo_seq_and(&out, &u.it, &i1.it), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(qmo_seq_not(&out, &i1.it), QMO_SEQ_TYPE_MISMATCH);
    ASSERT_EQ(qmo_seq_not(&out, &u.it), 0);
    EXPECT_TRUE(out.next == qmo_seq_not_qmo_seq_bool_next && out.reset == qmo_seq_reset_unary_iterator);
}

// ---- conversion ----------------------------------------------------------------

TEST(Convert, TheNestingListCopiesTheNumericList) {
    ASSERT_EQ(std::size(kList1), std::size(kList2));
    for (size_t i = 0; i < std::size(kList1); ++i) EXPECT_STREQ(kList1[i], kList2[i]);
}

TEST(Convert, IntegersWidenByTheirSignAndNarrowToTheLowBits) {
    EXPECT_EQ((convert<uint8_t, t_int4>(qmo_seq_int4_to_uint1, 300)), 44);
    EXPECT_EQ((convert<uint8_t, t_int4>(qmo_seq_int4_to_uint1, -1)), 255);
    EXPECT_EQ((convert<int64_t, t_int1>(qmo_seq_int1_to_int8, -5)), -5) << "sign-extended";
    EXPECT_EQ((convert<int64_t, t_uint1>(qmo_seq_uint1_to_int8, 251)), 251) << "zero-extended";
    EXPECT_EQ((convert<uint64_t, t_datetime>(qmo_seq_datetime_to_uint8, 12345)), 12345u);
    EXPECT_EQ((convert<int32_t, t_int4>(qmo_seq_int4_to_int4, -7)), -7);
}

TEST(Convert, FloatingToIntegerTruncatesThroughTheStatedWidths) {
    EXPECT_EQ((convert<int32_t, t_double>(qmo_seq_double_to_int4, -2.7)), -2);
    EXPECT_EQ((convert<uint64_t, t_double>(qmo_seq_double_to_uint8, 1e19)), 10000000000000000000u);
    EXPECT_EQ((convert<uint64_t, t_double>(qmo_seq_double_to_datetime, 3.9)), 3u);
    EXPECT_EQ((convert<uint8_t, t_double>(qmo_seq_double_to_uint1, 300.5)), 44) << "through int32, low bits";
    EXPECT_EQ((convert<uint32_t, t_double>(qmo_seq_double_to_uint4, 4e9)), 4000000000u) << "through int64";
    EXPECT_EQ((convert<int16_t, t_float>(qmo_seq_float_to_int2, 1e10f)), 0) << "out of range: INT32_MIN's low bits";
    EXPECT_EQ((convert<int32_t, t_double>(qmo_seq_double_to_int4, std::nan(""))), INT32_MIN);
    EXPECT_EQ((convert<int64_t, t_double>(qmo_seq_double_to_int8, 1e300)), INT64_MIN);
}

TEST(Convert, IntegerToFloatingRoundsToNearestUnsignedForUint8) {
    EXPECT_EQ((convert<double, t_uint8>(qmo_seq_uint8_to_double, ~uint64_t{0})), 18446744073709551616.0);
    EXPECT_EQ((convert<float, t_int4>(qmo_seq_int4_to_float, 16777217)), 16777216.0f);
    EXPECT_EQ((convert<float, t_double>(qmo_seq_double_to_float, 0.1)), 0.1f);
}

TEST(Convert, AliasNullsAndTypeCheck) {
    Source<t_int4> in({1, 2, 3}, {1});
    Source<t_int8> wrong({1});
    Iter out;
    ASSERT_EQ(qmo_seq_double_from_int4(&out, &in.it), 0);
    EXPECT_EQ(out.next, qmo_seq_int4_to_double_next);
    EXPECT_EQ(out.elem_type, QMO_SEQ_TYPE_DOUBLE);
    const auto d = drain<double>(&out);
    EXPECT_EQ(d.values, (std::vector<double>{1, 2, 3}));
    EXPECT_EQ(d.nulls, (std::vector<bool>{false, true, false}));
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_int4_to_double(o, &wrong.it); },
                   {&wrong.it});
}
