// Conditionals, callbacks, filters, position lists and maps.
#include "support.hpp"

#include <numeric>
#include <random>

using namespace test;

namespace {

Source<t_uint1> conditions(const std::vector<uint8_t> &c, std::vector<size_t> nulls = {},
                           std::vector<unsigned> tiles = {QMO_SEQ_TILE_SIZE}) {
    return Source<t_uint1>(c, std::move(nulls), std::move(tiles));
}

std::vector<int32_t> iota_column(size_t n, int32_t from = 0) {
    std::vector<int32_t> v(n);
    std::iota(v.begin(), v.end(), from);
    return v;
}

}  // namespace

// ---- if (lazy) --------------------------------------------------------------

TEST(If, EachBranchIsReadAsACompactSequence) {
    auto c = conditions({1, 0, 1, 1, 0});
    Source<t_int4> then_branch({10, 20, 30}, {1}), else_branch({5, 6});
    Iter out;
    ASSERT_EQ(qmo_seq_if_int4(&out, &c.it, &then_branch.it, &else_branch.it), 0);
    const auto d = drain<int32_t>(&out);
    EXPECT_EQ(d.values, (std::vector<int32_t>{10, 5, 20, 30, 6}));
    EXPECT_EQ(d.nulls, (std::vector<bool>{false, false, true, false, false}));
}

TEST(If, NullConditionTakesTheElseBranchAndAllFalseNeverPullsThen) {
    auto c = conditions({1, 1, 0}, {0, 1});
    Source<t_int4> then_branch({10}), else_branch({5, 6, 7});
    Iter out;
    ASSERT_EQ(qmo_seq_if_int4(&out, &c.it, &then_branch.it, &else_branch.it), 0);
    EXPECT_EQ(drain<int32_t>(&out).values, (std::vector<int32_t>{5, 6, 7}));
    EXPECT_EQ(then_branch.pulls, 0);
}

TEST(If, BranchTilesNeedNotLineUpAndAnExhaustedBranchEndsTheResult) {
    std::vector<uint8_t> c(300, 1);
    c[299] = 1;
    auto cond = conditions(c);
    Source<t_int4> then_branch(iota_column(299), {}, {7}), else_branch({});
    Iter out;
    ASSERT_EQ(qmo_seq_if_int4(&out, &cond.it, &then_branch.it, &else_branch.it), 0);
    ASSERT_EQ(out.next(&out), 0);
    ASSERT_EQ(out.next(&out), 0);
    EXPECT_EQ(out.values.i4[127], 255);
    EXPECT_EQ(out.next(&out), QMO_SEQ_END) << "then ends one element short";
}

TEST(If, ResetReplaysFromTheStart) {
    auto c = conditions({0, 1, 0, 1});
    Source<t_double> then_branch({1.5, 2.5}), else_branch({-1, -2});
    Iter out;
    ASSERT_EQ(qmo_seq_if_double(&out, &c.it, &then_branch.it, &else_branch.it), 0);
    const auto first = drain<double>(&out).values;
    ASSERT_EQ(out.reset(&out), 0);
    EXPECT_EQ(drain<double>(&out).values, first);
    EXPECT_EQ(first, (std::vector<double>{-1, 1.5, -2, 2.5}));
}

TEST(If, TypesAndCharWidths) {
    auto c = conditions({1});
    Source<t_int4> i4({1});
    Source<t_int8> i8({1});
    CharSource w4(4, {"a"}), w5(5, {"b"});
    Iter out;
    EXPECT_EQ(qmo_seq_if_int4(&out, &i4.it, &i4.it, &i4.it), QMO_SEQ_TYPE_MISMATCH) << "condition must be uint1";
    EXPECT_EQ(qmo_seq_if_int4(&out, &c.it, &i4.it, &i8.it), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(qmo_seq_iif_char(&out, &c.it, &w4.it, &w5.it), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(c.it.bound + i4.it.bound, 0);
}

// ---- iif (positional) ----------------------------------------------------------

TEST(Iif, AllThreeAdvanceTogetherInTilesOfTheShortest) {
    std::vector<uint8_t> c(200);
    for (size_t i = 0; i < c.size(); ++i) c[i] = i % 2;
    auto cond = conditions(c, {3});
    Source<t_int4> then_branch(iota_column(200, 1000), {}, {100}), else_branch(iota_column(200), {1, 2});
    Iter out;
    ASSERT_EQ(qmo_seq_iif_int4(&out, &cond.it, &then_branch.it, &else_branch.it), 0);
    const auto d = drain<int32_t>(&out);
    // The rest of each longer tile is dropped: the second call starts at
    // cond 128, then 100 and else 128.
    EXPECT_EQ(d.tiles, (std::vector<unsigned>{100, 72}));
    EXPECT_EQ(d.values[0], 0);
    EXPECT_EQ(d.values[1], 1001);
    EXPECT_EQ(d.values[3], 3) << "a null condition selects else";
    EXPECT_EQ(d.nulls[1], false) << "then's bit, not else's";
    EXPECT_EQ(d.nulls[2], true);
    EXPECT_EQ(d.values[100], 128);
    EXPECT_EQ(d.values[101], 1101);
}

TEST(Iif, CharElementsAreCopiedWhole) {
    auto c = conditions({1, 0});
    CharSource a(3, {"abc", "def"}), b(3, {"xyz", "uvw"});
    Iter out;
    ASSERT_EQ(qmo_seq_iif_char(&out, &c.it, &a.it, &b.it), 0);
    EXPECT_EQ(drain_chars(&out), (std::vector<std::string>{"abc", "uvw"}));
}

// ---- callbacks ------------------------------------------------------------------

namespace {
int calls = 0;
int32_t twice(int32_t x) { return ++calls, 2 * x; }
int32_t plus_ctx(int32_t x, void *ctx) { return x + *static_cast<int32_t *>(ctx); }
uint8_t is_odd(int32_t x) { return x & 1; }
uint8_t above_ctx(double x, void *ctx) { return x > *static_cast<double *>(ctx); }
int64_t diff(int64_t a, int64_t b) { return a - b; }
int64_t scaled_diff(int64_t a, int64_t b, void *ctx) { return (a - b) * *static_cast<int64_t *>(ctx); }
void upper(char *out, const char *in, size_t w) {
    for (size_t i = 0; i < w; ++i) out[i] = static_cast<char>(in[i] >= 'a' && in[i] <= 'z' ? in[i] - 32 : in[i]);
}
uint8_t starts_with_ctx(const char *in, size_t, void *ctx) { return in[0] == *static_cast<char *>(ctx); }
void swap_halves(char *out, const char *l, const char *r, size_t w) {
    std::memcpy(out, r, w / 2);
    std::memcpy(out + w / 2, l + w / 2, w - w / 2);
}
}  // namespace

TEST(Callbacks, UnaryFamiliesCallOncePerElementIncludingNulls) {
    Source<t_int4> in({1, 2, 3}, {1});
    Iter out;
    calls = 0;
    ASSERT_EQ(qmo_seq_func_int4(&out, &in.it, twice), 0);
    const auto d = drain<int32_t>(&out);
    EXPECT_EQ(d.values, (std::vector<int32_t>{2, 4, 6}));
    EXPECT_EQ(d.nulls, (std::vector<bool>{false, true, false}));
    EXPECT_EQ(calls, 3);

    int32_t ten = 10;
    Source<t_int4> in2({1, 2});
    ASSERT_EQ(qmo_seq_func_ctx_int4(&out, &in2.it, plus_ctx, &ten), 0);
    EXPECT_EQ(drain<int32_t>(&out).values, (std::vector<int32_t>{11, 12}));

    Source<t_int4> in3({1, 2, 3});
    ASSERT_EQ(qmo_seq_cond_int4(&out, &in3.it, is_odd), 0);
    EXPECT_EQ(out.elem_type, QMO_SEQ_TYPE_UINT1);
    EXPECT_EQ(drain<uint8_t>(&out).values, (std::vector<uint8_t>{1, 0, 1}));

    double limit = 1.5;
    Source<t_double> in4({1, 2});
    ASSERT_EQ(qmo_seq_cond_ctx_double(&out, &in4.it, above_ctx, &limit), 0);
    EXPECT_EQ(drain<uint8_t>(&out).values, (std::vector<uint8_t>{0, 1}));
}

TEST(Callbacks, BinaryFamiliesTakeTheShorterLengthAndOrTheBitmaps) {
    std::vector<int64_t> a(128, 10), b(50, 3);
    Source<t_int8> l(a, {60}), r(b, {7});
    Iter out;
    ASSERT_EQ(qmo_seq_func2_int8(&out, &l.it, &r.it, diff), 0);
    ASSERT_EQ(out.next(&out), 0);
    EXPECT_EQ(out.tile_count, 50);
    EXPECT_EQ(out.values.i8[0], 7);
    EXPECT_EQ(out.null_bitmap[0], (uint64_t{1} << 7) | (uint64_t{1} << 60));

    int64_t factor = -2;
    Source<t_int8> l2({5}), r2({1});
    ASSERT_EQ(qmo_seq_func2_ctx_int8(&out, &l2.it, &r2.it, scaled_diff, &factor), 0);
    EXPECT_EQ(drain<int64_t>(&out).values, std::vector<int64_t>{-8});
}

TEST(Callbacks, CharMembersHandOverPointersAndTheWidth) {
    CharSource in(3, {"ab", "xyz"});
    Iter out;
    ASSERT_EQ(qmo_seq_func_char(&out, &in.it, upper), 0);
    EXPECT_EQ(out.elem_size, 3);
    EXPECT_EQ(drain_chars(&out), (std::vector<std::string>{std::string("AB\0", 3), "XYZ"}));

    char x = 'x';
    in.reset(&in.it);
    ASSERT_EQ(qmo_seq_cond_ctx_char(&out, &in.it, starts_with_ctx, &x), 0);
    EXPECT_EQ(drain<uint8_t>(&out).values, (std::vector<uint8_t>{0, 1}));

    CharSource l(4, {"abcd"}), r(4, {"wxyz"}), w5(5, {"a"});
    ASSERT_EQ(qmo_seq_func2_char(&out, &l.it, &r.it, swap_halves), 0);
    EXPECT_EQ(drain_chars(&out), std::vector<std::string>{"wxcd"});
    EXPECT_EQ(qmo_seq_func2_char(&out, &l.it, &w5.it, swap_halves), QMO_SEQ_TYPE_MISMATCH);
}

TEST(Callbacks, OperandStatusesPassUnchanged) {
    Source<t_int4> in({1});
    in.fail_with = 57;
    Iter out;
    ASSERT_EQ(qmo_seq_func_int4(&out, &in.it, twice), 0);
    EXPECT_EQ(out.next(&out), 57);
}

// ---- filter -----------------------------------------------------------------------

TEST(Filter, SelectivitiesAgainstAPlainLoop) {
    std::mt19937 rng(5);
    for (int percent : {0, 1, 50, 100}) {
        SCOPED_TRACE(percent);
        std::vector<uint8_t> c(10000);
        std::vector<int32_t> expected;
        const auto values = iota_column(c.size());
        for (size_t i = 0; i < c.size(); ++i) {
            c[i] = static_cast<int>(rng() % 100) < percent;
            if (c[i]) expected.push_back(values[i]);
        }
        auto cond = conditions(c, {}, {100});
        Source<t_int4> v(values, {}, {77});
        Iter out;
        ASSERT_EQ(qmo_seq_filter_int4(&out, &cond.it, &v.it), 0);
        const auto d = drain<int32_t>(&out);
        EXPECT_EQ(d.values, expected);
        for (size_t k = 0; k + 1 < d.tiles.size(); ++k) ASSERT_EQ(d.tiles[k], 128u) << "full tiles until the last";
        EXPECT_EQ(d.status, QMO_SEQ_END);
    }
}

TEST(Filter, NeverTrueReadsBothToTheEndThenEnds) {
    auto cond = conditions(std::vector<uint8_t>(300, 0), {});
    Source<t_int4> v(iota_column(300));
    Iter out;
    ASSERT_EQ(qmo_seq_filter_int4(&out, &cond.it, &v.it), 0);
    EXPECT_EQ(out.next(&out), QMO_SEQ_END);
    EXPECT_EQ(cond.pulls, 4);
}

TEST(Filter, NullConditionsAreFalseAndNullValuesSurviveWithinOnePass) {
    auto cond = conditions({1, 1, 1, 0}, {1});
    Source<t_int4> v({1, 2, 3, 4}, {2});
    Iter out;
    ASSERT_EQ(qmo_seq_filter_int4(&out, &cond.it, &v.it), 0);
    const auto d = drain<int32_t>(&out);
    EXPECT_EQ(d.values, (std::vector<int32_t>{1, 3}));
    EXPECT_EQ(d.nulls, (std::vector<bool>{false, true}));
}

TEST(Filter, NullBitsOfEarlierPassesAreLostDeliberately) {
    // Two passes fill one output tile: the null gathered in the first is lost.
    auto cond = conditions({1, 1, 1, 1}, {}, {2});
    Source<t_int4> v({1, 2, 3, 4}, {0, 3}, {2});
    Iter out;
    ASSERT_EQ(qmo_seq_filter_int4(&out, &cond.it, &v.it), 0);
    const auto d = drain<int32_t>(&out);
    EXPECT_EQ(d.values, (std::vector<int32_t>{1, 2, 3, 4}));
    EXPECT_EQ(d.nulls, (std::vector<bool>{false, false, false, true}));
}

TEST(Filter, ConditionLongerOrShorterThanTheValues) {
    auto long_cond = conditions(std::vector<uint8_t>(10, 1));
    Source<t_int4> short_values({1, 2, 3});
    Iter out;
    ASSERT_EQ(qmo_seq_filter_int4(&out, &long_cond.it, &short_values.it), 0);
    EXPECT_EQ(drain<int32_t>(&out).values, (std::vector<int32_t>{1, 2, 3}));

    auto short_cond = conditions({1, 0});
    Source<t_int4> long_values(iota_column(10));
    ASSERT_EQ(qmo_seq_filter_int4(&out, &short_cond.it, &long_values.it), 0);
    EXPECT_EQ(drain<int32_t>(&out).values, std::vector<int32_t>{0});
}

TEST(Filter, ResetClearsItsOwnBindingAndReplays) {
    auto cond = conditions({0, 1, 1});
    CharSource v(2, {"ab", "cd", "ef"});
    Iter out;
    ASSERT_EQ(qmo_seq_filter_char(&out, &cond.it, &v.it), 0);
    EXPECT_EQ(drain_chars(&out), (std::vector<std::string>{"cd", "ef"}));
    out.bound = 1;
    ASSERT_EQ(out.reset(&out), 0);
    EXPECT_EQ(out.bound, 0);
    EXPECT_EQ(drain_chars(&out), (std::vector<std::string>{"cd", "ef"}));
}

// ---- position lists ------------------------------------------------------------------

TEST(FilterPos, CountsEveryConditionElement) {
    auto cond = conditions(std::vector<uint8_t>(300, 1), {}, {100});
    Iter out;
    ASSERT_EQ(qmo_seq_filter_pos(&out, &cond.it), 0);
    EXPECT_EQ(out.elem_type, QMO_SEQ_TYPE_UINT8);
    const auto d = drain<uint64_t>(&out);
    EXPECT_EQ(d.tiles, (std::vector<unsigned>{128, 128, 44}));
    std::vector<uint64_t> all(300);
    std::iota(all.begin(), all.end(), 0);
    EXPECT_EQ(d.values, all);

    auto mixed = conditions({0, 1, 1, 0, 1}, {2});
    ASSERT_EQ(qmo_seq_filter_pos(&out, &mixed.it), 0);
    EXPECT_EQ(drain<uint64_t>(&out).values, (std::vector<uint64_t>{1, 4}));
    ASSERT_EQ(out.reset(&out), 0);
    EXPECT_EQ(drain<uint64_t>(&out).values, (std::vector<uint64_t>{1, 4}));
}

TEST(FilterPos, SearchCountsFromTheSourcesFirstPosition) {
    const auto values = iota_column(2000);
    Iter src, lim, cmp, threshold, out;
    qmo_seq_unget_int4(&src, values.data(), values.size());
    qmo_seq_limit(&lim, &src, 1000, 1999);
    qmo_seq_const_int4(&threshold, 1004);
    qmo_seq_gt_int4(&cmp, &lim, &threshold);
    ASSERT_EQ(qmo_seq_get_first_pos(&cmp), 1000u);
    ASSERT_EQ(qmo_seq_filter_search(&out, &cmp, &cmp), 0);
    const auto d = drain<uint64_t>(&out);
    ASSERT_EQ(d.values.size(), 995u);
    EXPECT_EQ(d.values.front(), 1005u);
    ASSERT_EQ(out.reset(&out), 0);
    EXPECT_EQ(drain<uint64_t>(&out).values.front(), 1005u);
}

TEST(FirstPos, TheFirstNTruePositionsInOneTile) {
    std::vector<uint8_t> c(50, 0);
    for (size_t i : {5, 9, 12, 40}) c[i] = 1;
    auto cond = conditions(c, {}, {10});
    Iter out;
    EXPECT_EQ(qmo_seq_filter_first_pos(&out, &cond.it, 129), QMO_SEQ_INVALID_ARGUMENT);
    ASSERT_EQ(qmo_seq_filter_first_pos(&out, &cond.it, 3), 0);
    EXPECT_EQ(cond.it.bound, 0) << "the condition is not marked bound";
    EXPECT_EQ(out.prepare, qmo_seq_prepare_aggregate);
    EXPECT_EQ(out.merge, qmo_seq_filter_first_pos_merge);
    const auto d = drain<uint64_t>(&out);
    EXPECT_EQ(d.values, (std::vector<uint64_t>{5, 9, 12}));
    EXPECT_EQ(d.tiles.size(), 1u);
    EXPECT_EQ(cond.pulls, 2) << "stops once n are found";

    auto none = conditions(c);
    ASSERT_EQ(qmo_seq_filter_first_pos(&out, &none.it, 0), 0);
    EXPECT_EQ(out.next(&out), QMO_SEQ_END);
    EXPECT_EQ(none.pulls, 0);
}

TEST(FirstPos, PartitionsPreparedAndMergedMatchOneScan) {
    // Ordinals 0..999 in four partitions; true where i % 37 == 5.
    std::vector<uint8_t> c(1000);
    for (size_t i = 0; i < c.size(); ++i) c[i] = i % 37 == 5;
    for (uint64_t n : {1u, 5u, 27u, 100u}) {
        SCOPED_TRACE(n);
        Iter whole_src, whole;
        qmo_seq_unget_uint1(&whole_src, c.data(), c.size());
        qmo_seq_filter_first_pos(&whole, &whole_src, n);
        const auto expected = drain<uint64_t>(&whole).values;

        Iter src[4], lim[4], part[4];
        // Merged in a scrambled order: the block insert keeps the result ascending.
        for (int p : {2, 0, 3, 1}) {
            qmo_seq_unget_uint1(&src[p], c.data(), c.size());
            qmo_seq_limit(&lim[p], &src[p], 250 * p, 250 * p + 249);
            ASSERT_EQ(qmo_seq_filter_first_pos(&part[p], &lim[p], n), 0);
            part[p].prepare(&part[p]);
            EXPECT_EQ(part[p].prepared, 1);
            if (p != 2) {
                ASSERT_EQ(part[2].merge(&part[2], &part[p]), 0);
            }
        }
        const auto merged = drain<uint64_t>(&part[2]);
        EXPECT_EQ(merged.values, expected);
        EXPECT_EQ(merged.tiles.size(), 1u);
    }
}

// ---- map ----------------------------------------------------------------------------

TEST(Map, GathersInAnyOrderRewindingWhenNeeded) {
    Source<t_uint8> positions({7, 2, 7, 300, 1}, {}, {3, 1});  // tiles {7, 2, 7}, {300}, {1}
    Source<t_int4> values(iota_column(400, 100), {2});
    Iter out;
    ASSERT_EQ(qmo_seq_map_int4(&out, &values.it, &positions.it), 0);
    EXPECT_EQ(out.operand1, &positions.it);
    EXPECT_EQ(out.operand2, &values.it);
    const auto d = drain<int32_t>(&out);
    EXPECT_EQ(d.values, (std::vector<int32_t>{107, 102, 107, 400, 101}));
    EXPECT_EQ(d.nulls, std::vector<bool>(5, false)) << "mapped nulls arrive as values";
    EXPECT_EQ(values.resets, 1) << "position 1 lies behind the tile that held 300";
}

TEST(Map, NullPositionIs703AndPositionsPastTheEndEnd) {
    Source<t_uint8> null_pos({1, 2}, {1});
    Source<t_double> values({1, 2, 3});
    Iter out;
    ASSERT_EQ(qmo_seq_map_double(&out, &values.it, &null_pos.it), 0);
    EXPECT_EQ(out.next(&out), QMO_SEQ_NULL_VALUE);

    Source<t_uint8> far({5});
    Source<t_double> values2({1, 2, 3});
    ASSERT_EQ(qmo_seq_map_double(&out, &values2.it, &far.it), 0);
    EXPECT_EQ(out.next(&out), QMO_SEQ_END);

    Source<t_int4> wrong({1});
    EXPECT_EQ(qmo_seq_map_double(&out, &values2.it, &wrong.it), QMO_SEQ_TYPE_MISMATCH);
}
