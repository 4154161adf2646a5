// Conversion between numeric element types.
#include "support.hpp"

#include <cmath>

using namespace test;

namespace {

using Convert = int (*)(Iter *, Iter *);

template <class R, class Tag>
R convert_one(Convert make, V<Tag> x) {
    Source<Tag> in({x});
    Iter out;
    EXPECT_EQ(make(&out, &in.it), 0);
    const auto d = drain<R>(&out);
    EXPECT_EQ(d.values.size(), 1u);
    return d.values.empty() ? R{} : d.values[0];
}

#define TEST_NAMES_(a, t, ctype, code) #t,
constexpr const char *kList1[] = {QMO_SEQ_NUMERIC_TYPES(TEST_NAMES_, )};
constexpr const char *kList2[] = {QMO_SEQ_NUMERIC_TYPES_2(TEST_NAMES_, )};
#undef TEST_NAMES_

}  // namespace

TEST(Convert, TheNestingListCopiesTheNumericList) {
    ASSERT_EQ(std::size(kList1), std::size(kList2));
    for (size_t i = 0; i < std::size(kList1); ++i) EXPECT_STREQ(kList1[i], kList2[i]);
}

TEST(Convert, IntegerWideningNarrowingAndSignedness) {
    EXPECT_EQ((convert_one<uint8_t, t_int4>(qmo_seq_int4_to_uint1, 300)), 44);
    EXPECT_EQ((convert_one<uint8_t, t_int4>(qmo_seq_int4_to_uint1, -1)), 255);
    EXPECT_EQ((convert_one<int64_t, t_int1>(qmo_seq_int1_to_int8, -5)), -5) << "sign-extended";
    EXPECT_EQ((convert_one<int64_t, t_uint1>(qmo_seq_uint1_to_int8, 251)), 251) << "zero-extended";
    EXPECT_EQ((convert_one<uint64_t, t_datetime>(qmo_seq_datetime_to_uint8, 12345)), 12345u);
    EXPECT_EQ((convert_one<int32_t, t_int4>(qmo_seq_int4_to_int4, -7)), -7);
}

TEST(Convert, FloatingToIntegerTruncatesThroughTheStatedWidths) {
    EXPECT_EQ((convert_one<int32_t, t_double>(qmo_seq_double_to_int4, -2.7)), -2);
    EXPECT_EQ((convert_one<uint64_t, t_double>(qmo_seq_double_to_uint8, 1e19)), 10000000000000000000u);
    EXPECT_EQ((convert_one<uint64_t, t_double>(qmo_seq_double_to_datetime, 3.9)), 3u);
    EXPECT_EQ((convert_one<uint8_t, t_double>(qmo_seq_double_to_uint1, 300.5)), 44) << "through int32, low bits";
    EXPECT_EQ((convert_one<uint32_t, t_double>(qmo_seq_double_to_uint4, 4e9)), 4000000000u) << "through int64";
    EXPECT_EQ((convert_one<int16_t, t_float>(qmo_seq_float_to_int2, 1e10f)), 0) << "out of range: INT32_MIN's low bits";
    EXPECT_EQ((convert_one<int32_t, t_double>(qmo_seq_double_to_int4, std::nan(""))), INT32_MIN);
    EXPECT_EQ((convert_one<int64_t, t_double>(qmo_seq_double_to_int8, 1e300)), INT64_MIN);
}

TEST(Convert, IntegerToFloatingRoundsToNearestUnsignedForUint8) {
    EXPECT_EQ((convert_one<double, t_uint8>(qmo_seq_uint8_to_double, ~uint64_t{0})), 18446744073709551616.0);
    EXPECT_EQ((convert_one<float, t_int4>(qmo_seq_int4_to_float, 16777217)), 16777216.0f);
    EXPECT_EQ((convert_one<float, t_double>(qmo_seq_double_to_float, 0.1)), 0.1f);
}

TEST(Convert, AliasNullsAndTypeCheck) {
    Source<t_int4> in({1, 2, 3}, {1});
    Iter out;
    ASSERT_EQ(qmo_seq_double_from_int4(&out, &in.it), 0);
    EXPECT_EQ(out.next, qmo_seq_int4_to_double_next);
    EXPECT_EQ(out.elem_type, QMO_SEQ_TYPE_DOUBLE);
    const auto d = drain<double>(&out);
    EXPECT_EQ(d.values, (std::vector<double>{1, 2, 3}));
    EXPECT_EQ(d.nulls, (std::vector<bool>{false, true, false}));
    Source<t_int8> wrong({1});
    EXPECT_EQ(qmo_seq_int4_to_double(&out, &wrong.it), QMO_SEQ_TYPE_MISMATCH);
}
